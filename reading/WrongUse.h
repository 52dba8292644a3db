// What a person asked for makes no sense: one line on standard error, and an exit status of its
// own.
#pragma once

#include <stdexcept>
#include <string>

class WrongUse : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;

    // What is wrong with one of the things that can be asked for, by its name as it is typed.
    WrongUse(const std::string& strName, const std::string& strText)
        : std::runtime_error("--" + strName + ": " + strText) {}
};
