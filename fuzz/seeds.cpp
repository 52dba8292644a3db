// Writes the inputs from which the fuzz targets begin, made of the layouts of docs/protocols.md,
// into the folder DIRECTORY/TARGET of each. What they lead to is in fuzz/corpus; this program is
// for whoever changes a target's input and has to begin anew.
//
// fuzz_seeds DIRECTORY
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "link/CmdFrame.h"
#include "link/UploadFrame.h"
#include "logstore/LogRecord.h"

namespace {

std::string Text(const std::vector<std::uint8_t>& bytes) {
    return {bytes.begin(), bytes.end()};
}

std::string Le16(std::size_t nNumber) {
    return {static_cast<char>(nNumber), static_cast<char>(nNumber >> 8)};
}

std::string Le32(std::uint32_t dwNumber) {
    return Le16(dwNumber & 0xFFFF) + Le16(dwNumber >> 16);
}

// A step of a target: its number and what belongs to it.
std::string Step(int nStep, const std::string& strRest = {}) {
    return static_cast<char>(nStep) + strRest;
}

std::string Raw(int nStep, const std::string& strBytes) {
    return Step(nStep, static_cast<char>(strBytes.size() - 1) + strBytes);
}

std::string Record(std::int32_t nIndex, std::int32_t nType, const std::string& strText) {
    LogRecord record{LOG_RECORD_MAGIC, nIndex, nType, 2026, 11, 22, 14, 5, 9, 0, {}};
    strText.copy(record.szText, kRecordTextBytes);
    return {reinterpret_cast<const char*>(&record), sizeof(record)};
}

std::string DayHeader(std::uint32_t dwCount) {
    std::string strHeader = Le32(LOG_RECORD_MAGIC) + Le32(dwCount);
    strHeader.resize(kRecordBytes);
    return strHeader;
}

std::string Message(std::uint16_t wCode, const std::string& strBody) {
    return Text(MakeUploadFrame(wCode, strBody.data(), strBody.size()));
}

const std::string kNewFile = Step(8, Le32(0));
const std::string kRealTime = Step(0, Step(4, Le16(8) + "eth0 up "));

using Seeds = std::vector<std::string>;

Seeds RecordSeeds() {
    const std::string strWhole = Le16(kRecordBytes) + Record(1, 2, "link to eth0 is slow");
    return {
        kNewFile + Step(0, strWhole) + Step(0, Le16(299)) + Step(0, Le16(301)),
        Step(0, Le32(10238)) + Step(1, Step(1, Step(2, Le16(5) + "wraps"))) + Step(0, strWhole),
        Step(0, Le32(0xFFFFFFFF)) + Step(1, Step(-1, Step(-2, Le16(0)))),
        Step(4, Le32(5)) + Step(1, Step(1, Step(1, Le16(3) + "red"))),
        Step(9, Le32(0)) + Step(1, kRealTime) + Step(1, kRealTime) + Step(1, kRealTime) +
            Step(1, kRealTime),
        kNewFile + Step(1, kRealTime) + Step(1, Step(99, Step(4, Le16(0)))),
        kNewFile + Step(2, std::string("\x03\x47", 2) + std::string(38, '\0') + Le32(30) + Le16(3)),
        Step(24, Le32(0)) +
            Step(2, std::string("\x03\x47", 2) + std::string(38, '\0') + Le32(30) + Le16(3)),
        kNewFile + Step(2, Step(0, "\x0C") + std::string(13, '\2')),
        kNewFile + Step(3, std::string("\x02") + "hi") + Step(4, Step(2, Le32(7) + "\1")),
        kNewFile + Step(4, std::string(1, '\0') + Le32(0) + "\1") + Step(1, kRealTime),
    };
}

Seeds LinkSeeds() {
    const std::string strAck = Text(MakeCmdFrame(
        CMD_REGISTER_ACK, (Le32(17) + std::string(36, '\0') + Le32(0x0A000001) + "\7").data(), 45));
    const std::string strParameters =
        Text(MakeCmdFrame(CMD_PARAMETERS, (std::string(40, '\0') + "\7").data(), 41));
    const std::string strBlock = Le16(3) + Le32(100) + Le32(0x7F000001) + Le16(9000) + Le16(0) +
                                 Le32(1) + Le32(2) + "node-007";
    const std::string strPayload = Le32(7) + std::string(21, '\0') + Le32(30) + strBlock;
    const std::string strRequest =
        Text(MakeCmdFrame(CMD_HLOG_REQUEST, strPayload.data(), strPayload.size()));
    const std::string strTake = Step(15);
    return {
        Step(0) + Raw(0, strAck) + Raw(0, strParameters) + Raw(0, strRequest) + strTake,
        Step(0x80) + Raw(0, strRequest + strParameters) + strTake + Step(11),
        Step(0x80) + Step(-120, "\x3A" + strRequest) + strTake,
        Step(0x80) + Step(8, strPayload) + Step(10, "\5") + strTake + Step(11),
        Step(0x80) + Step(3, strBlock + "\7\2") + Step(11) + Step(1, "\x32") + Step(11),
        Step(1) + Step(1, "\x32") + Raw(0, strAck),
        Step(2) + Step(9, std::string(1, '\0')) + Step(1, "\x32") + Raw(0, strAck),
        Step(3) + Step(1, "\x32"),
        Step(0) + Step(1, "\x40") + Step(7, "\1") + Step(1, "\x32") + Raw(0, strAck),
        Step(0x80) + Step(2, std::string("\x43\x1D", 2)) + Step(2, "\x32"),
        Step(0x80) + Step(5, "\2\6") + Step(13, "\1\3"),
    };
}

Seeds UploadSeeds() {
    const std::string strReady = Step(0x80, std::string(30, '\0'));
    const std::string strHello = Message(UM_HELLO_ACK, "\1" + Le32(0x1F000000));
    const std::string strInfo = Message(UM_INFO_ACK, std::string(1, '\0'));
    const std::string strSubscribe =
        Step(2, "\4" + std::string(6, '\0') + "\1" + std::string(393, '\0'));
    const std::string strRecord =
        Step(3, "\1\2" + Le16(20) + "link to eth0 is slow" + std::string(1, '\2'));
    const std::string strLong = Step(6, "\2" + Le32(300));
    const std::string strRead = Step(9, "\x7F");
    return {
        Step(0, std::string(30, '\0')) + Raw(0, strHello) + Raw(0, strInfo) + strRead,
        Step(0, std::string(30, '\0')) + Step(-128, "\x20" + strHello + strInfo + Le16(9)),
        strReady + strSubscribe + strRecord + strRead,
        strReady + Step(6, Step(0) + Le32(300)) + strRead,
        strReady + strLong + strRead + strRead + Step(2, "\3" + Le32(5)) + strRead,
        strReady + strLong + strRead + Step(13, "\x40") + strRead,
        strReady + strLong + Step(11, "\1"),
        strReady + Step(2, "\5\1") + Step(2, "\6"),
        strReady + Step(6, "\5" + Le32(0)) + Step(6, Step(6) + Le32(0)),
        strReady +
            Step(8,
                 "\x0C"
                 "20261121.log"
                 "\1") +
            strRead,
        strReady + Step(4, Le16(UM_CANCEL) + Le16(4) + Le32(5)),
        Step(1, std::string(30, '\0')) + Step(1, "\x7F"),
        Step(2, std::string(30, '\0')),
        Step(0, std::string(30, '\0')) + Raw(0, strHello) + Step(2, "\1\1"),
        Step(0x88, std::string(30, '\0')) + Step(2, "\5\1"),
        Step(0x60, std::string(30, '\0')),
        strReady + Step(7, "\1\x20") + Step(15, "\1\5\1") + Step(11, std::string(1, '\0')),
    };
}

Seeds ConsoleSeeds() {
    const std::string strRecord =
        Step(3, std::string(1, '\0') + "\1" + "t" + Le16(16) + "\xEA\7\x0B\x16\x0E\5\x09" +
                    std::string(1, '\0') + "eth0 up " + std::string(1, '\0'));
    const std::string strRead = Step(15, "\x7F");
    return {
        Step(1) + Raw(0, "quietharbor\r\n") + Raw(0, "set 1 100\r\n") + strRecord + strRead,
        Step(1) + Raw(0, "quiet") + Raw(0, "harbor\r") + Raw(0, "\n") + Raw(0, "?\r\nq\r\n"),
        Step(3) + Raw(0, "set 2 65536\r\n") + Raw(0, "SeT 4 -1\r\n") + Raw(0, "q\r\n"),
        Step(7) + strRecord + strRecord + strRead + Raw(0, "no\r\nexit\r\n") + strRecord,
        Step(7) + Step(1) + strRecord + Step(11, "\1") + strRecord,
        Step(65) + Step(7, "\x15") + Step(1) + Raw(0, "x"),
        Step(67) + Step(7, "\x05"),
        Step(11) + Raw(0, "set 0 1\r\n"),
        Step(15) + Step(13, "\1") + Raw(0, "x"),
        Step(1) + Raw(0, std::string(256, 'q')) + Raw(0, std::string(256, 'q')),
        Step(16) + Step(1) + Raw(0, "\r\n"),
        Step(35) + Step(9, std::string(1, '\0')),
    };
}

Seeds ConfigSeeds() {
    return {
        "; log\n[local]\nPortFromClient = 5140\nPortFromViewer = 1981\nLANGUAGE = English\n\n"
        "[0]\nAPP = netd\nListenPort = 6000\n",
        "# a\n// b\n\nkey=value\n[ a ]\nk = v = w\n[b]\nk=\n[a]\nk = 2\nx\n",
        "[TimeoutSet]\nTimeoutSet=-1\n[100]\nAPP=x\n[1]\nAPP = a\nAPP = b\n",
        "[]\n=x\n==\n[=]\r\n\tk\t=\tv\t\r\n",
    };
}

Seeds DaySeeds() {
    const std::string strRecord = Record(1, 2, "link to eth0 is slow");
    return {
        Le16(0) + "\1" + DayHeader(2) + strRecord + Record(0, 0, "\x1B[31mred\n\xC3\xA4\xFF"),
        Le16(0) + "\2" + DayHeader(3) + strRecord + std::string(300, '\0') +
            strRecord.substr(0, 100),
        Le16(10236) + "\1" + DayHeader(10241) + strRecord + strRecord,
        Le16(0) + "\3" + std::string(300, 'x') + strRecord + strRecord,
        Le16(0) + "\3" + DayHeader(0xFFFFFFFF) + Record(-5, -1, std::string(280, '"')),
        Le16(0) + "\1short",
    };
}

Seeds ControlSeeds() {
    return {
        Step(0, Step(0, Le16(100))) + Step(0, Step(0, Le16(0))) + Step(0, Step(1, "\1")),
        Step(0, Step(2, Le16(1) + "\1\2")) + Step(-64, Step(0, Le16(9))) + Step(0, Step(3, "\2")),
        Step(1, "\x18" + Le32(0x26581947) + Le32(24) + Le32(3) + Le32(4) + Le32(3) + Le32(65535)),
    };
}

void WriteSeeds(const std::filesystem::path& folder, const Seeds& seeds) {
    std::filesystem::create_directories(folder);
    int nSeed = 0;
    for (const std::string& strSeed : seeds) {
        std::ofstream(folder / ("seed" + std::to_string(++nSeed)), std::ios::binary) << strSeed;
    }
}

}  // namespace

int main(int nArguments, char** pszArguments) {
    if (nArguments != 2) {
        std::fputs("Usage: fuzz_seeds DIRECTORY\n", stderr);
        return 2;
    }
    const std::filesystem::path directory = pszArguments[1];
    const struct {
        const char* szTarget;
        Seeds seeds;
    } targets[] = {{"record", RecordSeeds()},  {"link", LinkSeeds()},
                   {"upload", UploadSeeds()},  {"console", ConsoleSeeds()},
                   {"config", ConfigSeeds()},  {"day", DaySeeds()},
                   {"control", ControlSeeds()}};
    for (const auto& target : targets) {
        WriteSeeds(directory / target.szTarget, target.seeds);
    }
    return 0;
}
