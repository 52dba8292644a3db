#include "client/ControlFrame.h"

#include <cstring>

#include "console/LogcCtrlFrame.h"

namespace tarvik {

namespace {

bool IsRealTime(const LogcCtrlFrame& frame, std::uint32_t dwIndex) {
    return frame.dwCommand == LOGC_CMD_REALTIME && frame.dwLength == kRealTimeFrameBytes &&
           frame.dwIndex == dwIndex && frame.dwParam1 == dwIndex &&
           frame.dwParam2 <= std::uint32_t{kMaxRealTimeValue};
}

bool IsLanguage(const LogcCtrlFrame& frame) {
    return frame.dwCommand == LOGC_CMD_LANGUAGE && frame.dwLength == kLanguageFrameBytes &&
           frame.dwIndex == 0 && frame.dwParam1 <= LANGUAGE_ENGLISH;
}

}  // namespace

ControlWord ReadControlFrame(const void* pData, std::size_t nLen, int nIndex) {
    LogcCtrlFrame frame{};
    if (nLen < kLanguageFrameBytes || nLen > sizeof(frame)) {
        return {};
    }
    std::memcpy(&frame, pData, nLen);
    if (frame.dwMagic != LOGC_CTRL_MAGIC || frame.dwLength != nLen) {
        return {};
    }
    if (IsRealTime(frame, static_cast<std::uint32_t>(nIndex))) {
        return {ControlWord::Kind::kRealTime, static_cast<int>(frame.dwParam2)};
    }
    if (IsLanguage(frame)) {
        return {ControlWord::Kind::kLanguage, static_cast<int>(frame.dwParam1)};
    }
    return {};
}

}  // namespace tarvik
