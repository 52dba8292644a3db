#include "console/SetCommand.h"

#include <strings.h>

#include <cerrno>
#include <cstdlib>
#include <limits>

namespace {

constexpr const char* kBlanks = " \t\n\v\f\r";

// Reads the number at pText, moves pText behind it. False: there is none, or it is out of range.
bool TakeNumber(const char*& pText, std::int32_t& nNumber) {
    char* pEnd = nullptr;
    errno = 0;
    const long long nValue = std::strtoll(pText, &pEnd, 10);
    using Limits = std::numeric_limits<std::int32_t>;
    if (pEnd == pText || errno == ERANGE || nValue < Limits::min() || nValue > Limits::max()) {
        return false;
    }
    pText = pEnd;
    nNumber = static_cast<std::int32_t>(nValue);
    return true;
}

}  // namespace

bool SetCommand::IsSet() const {
    return strcasecmp(strWord.c_str(), "set") == 0;
}

SetCommand ParseSetCommand(const std::string& strTyped) {
    SetCommand command;
    const std::string strLine = strTyped.substr(0, strTyped.find('\0'));
    const std::size_t nStart = strLine.find_first_not_of(kBlanks);
    if (nStart == std::string::npos) {
        return command;
    }
    command.strWord = strLine.substr(nStart, strLine.find_first_of(kBlanks, nStart) - nStart);
    const char* pText = strLine.c_str() + nStart + command.strWord.size();
    command.nFields = 1;
    for (std::int32_t* pNumber : {&command.nNum1, &command.nNum2}) {
        if (!TakeNumber(pText, *pNumber)) {
            break;
        }
        ++command.nFields;
    }
    return command;
}
