// The client library's control port: datagrams of any length and content, compared with a few lines
// that say which of them count.
//
// Input: steps.
#include <cstring>
#include <string>
#include <vector>

#include "client/ControlInput.h"
#include "console/LogcCtrlFrame.h"
#include "fuzz/Check.h"
#include "fuzz/FakeSystem.h"
#include "fuzz/InputBytes.h"

namespace {

constexpr int kIndex = 3;
constexpr std::uint16_t kPort = 6000;

// What the program hears; the values of both callbacks in a row.
struct Heard {
    std::vector<int> realTime;
    std::vector<int> language;
    bool operator==(const Heard&) const = default;
};

std::string MakeFrame(CInputBytes& input) {
    const std::uint8_t byKind = input.Byte();
    const LogcCtrlFrame frame = byKind % 2 == 0
                                    ? MakeRealTimeFrame(kIndex, input.Number<std::uint16_t>())
                                    : MakeLanguageFrame(input.Byte() % 4);
    std::string strFrame(reinterpret_cast<const char*>(&frame), frame.dwLength);
    if (byKind % 4 >= 2) {  // one byte of it is wrong, or happens to be right
        strFrame[input.Byte() % strFrame.size()] = static_cast<char>(input.Byte());
    }
    return strFrame;
}

// Takes notice of a datagram. Whether it counts.
bool Hear(Heard& heard, int& nValue, const std::string& strDatagram) {
    LogcCtrlFrame frame{};
    if (strDatagram.size() != kRealTimeFrameBytes && strDatagram.size() != kLanguageFrameBytes) {
        return false;
    }
    std::memcpy(&frame, strDatagram.data(), strDatagram.size());
    if (frame.dwMagic != LOGC_CTRL_MAGIC || frame.dwLength != strDatagram.size()) {
        return false;
    }
    if (frame.dwCommand == 10 && frame.dwLength == 20 && frame.dwIndex == 0 &&
        frame.dwParam1 <= 1) {
        heard.language.push_back(static_cast<int>(frame.dwParam1));
        return true;
    }
    if (frame.dwCommand != 4 || frame.dwLength != 24 || frame.dwIndex != kIndex ||
        frame.dwParam1 != kIndex || frame.dwParam2 > 65535) {
        return false;
    }
    if (nValue != static_cast<int>(frame.dwParam2)) {
        nValue = static_cast<int>(frame.dwParam2);
        heard.realTime.push_back(nValue);
    }
    return true;
}

void Keep(int nValue, void* pValues) {
    static_cast<std::vector<int>*>(pValues)->push_back(nValue);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nLen) {
    CInputBytes input(pData, nLen);
    CFakeSystem system([] {});
    unsigned int nSkip = 0;
    tarvik::CControlInput control(nSkip);
    Check(control.Open(kIndex, kPort) == 0, "the port can be bound");
    Heard heard;
    control.OnRealTime().Set(Keep, &heard.realTime);
    control.OnLanguage().Set(Keep, &heard.language);
    Heard wanted;
    int nValue = 0;
    int nWaiting = 0;  // valid frames that were not taken up
    while (input.BeginStep()) {
        const std::uint8_t byStep = input.Byte();
        const std::string strDatagram =
            byStep % 2 == 0 ? MakeFrame(input) : input.Bytes(input.Byte() % 32);
        const bool bSent = system.Peers().front().Send(strDatagram);  // else too many wait
        nWaiting += bSent && Hear(wanted, nValue, strDatagram) ? 1 : 0;
        if (byStep < 192) {  // else the next one comes before the program looks
            Check(control.TakeUp() == nWaiting, "valid frames are counted");
            nWaiting = 0;
        }
    }
    Check(control.TakeUp() == nWaiting && heard == wanted, "the program hears what was sent");
    Check(control.Look() == nValue, "the value is that of the last frame");
    return 0;
}
