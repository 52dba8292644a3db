// The "set" command of the console: a word and two numbers, taken out of a typed line.
//
// Threads: any.
#pragma once

#include <cstdint>
#include <string>

struct SetCommand {
    int nFields = 0;      // fields found, 0 to 3; those behind the first bad one are not looked at
    std::string strWord;  // the line's first word
    std::int32_t nNum1 = 0;  // index of the log client
    std::int32_t nNum2 = 0;  // value for it

    // True when strWord is "set", in any mixture of small and capital letters.
    bool IsSet() const;
};

// Takes strTyped apart. Fields are separated as scanf separates "%s%d%d": by any blanks, or by
// nothing where a sign follows a digit; what follows the third field is ignored. A number that does
// not fit into 32 bits is no field. A NUL ends the line.
SetCommand ParseSetCommand(const std::string& strTyped);
