// What goes out for a text, and the account of what did not.
#include <gmock/gmock.h>

#include <cerrno>
#include <ctime>
#include <random>

#include "client/ClientHarness.h"

using testing::ElementsAre;

namespace {

std::string A(std::size_t nTimes) {
    return std::string(nTimes, 'a');
}

// Seconds since 1970 of the record's local time stamp.
std::time_t Stamp(const LogRecord& record) {
    std::tm tm{record.bySecond,
               record.byMinute,
               record.byHour,
               record.byDay,
               record.byMonth - 1,
               record.wYear - 1900,
               0,
               0,
               -1,
               0,
               nullptr};
    return std::mktime(&tm);
}

// The texts at the service after tarvik_log_write.
std::vector<std::string> PiecesOf(const std::string& strText, std::size_t nCount) {
    const CPort service;
    const Log log = OpenLog(1, service.Number());
    EXPECT_EQ(tarvik_log_write(log.get(), TARVIK_LOG_INFO, strText.data(), strText.size()), 0);
    return service.Texts(nCount);
}

}  // namespace

TEST(ClientRecord, CarriesTypeIndexTimeAndText) {
    const CPort service;
    const Log log = OpenLog(99, service.Number());
    const std::time_t tBefore = std::time(nullptr);
    EXPECT_EQ(LogFromC(log.get()), 0);
    const std::time_t tAfter = std::time(nullptr);
    const char* const szTexts[] = {"info", "warning", "error 2", "debug"};
    for (int nType = 0; nType < 4; ++nType) {
        const auto record = service.Receive();
        ASSERT_TRUE(record);
        EXPECT_EQ(record->dwMagic, 0x26581944U);
        EXPECT_EQ(record->nIndex, 99);
        EXPECT_EQ(record->nType, nType);
        EXPECT_GE(Stamp(*record), tBefore);
        EXPECT_LE(Stamp(*record), tAfter);
        std::string strField = szTexts[nType];
        strField.resize(kRecordTextBytes);
        EXPECT_EQ(std::string(record->szText, kRecordTextBytes), strField);
    }
    EXPECT_EQ(CountsOf(log), (Counts{4, 0}));
}

TEST(ClientRecord, CutsLongTextsBetweenCharacters) {
    const std::string strE = "\xC3\xA9";             // 2 bytes
    const std::string strEuro = "\xE2\x82\xAC";      // 3 bytes
    const std::string strNote = "\xF0\x9F\x8E\xB5";  // 4 bytes
    const std::string strLast(300, '\x80');          // the last bytes of characters
    const struct {
        const char* szName;
        std::string strText;
        std::vector<std::string> listPieces;
    } kRows[] = {
        {"empty", "", {""}},
        {"one too long", A(280), {A(279), "a"}},
        {"two fields and one byte", A(559), {A(279), A(279), "a"}},
        {"ends with a whole character", A(277) + strE + "b", {A(277) + strE, "b"}},
        {"2 bytes, 1 fits", A(278) + strE + "b", {A(278), strE + "b"}},
        {"3 bytes, 2 fit", A(277) + strEuro, {A(277), strEuro}},
        {"4 bytes, 3 fit", A(276) + strNote, {A(276), strNote}},
        {"no UTF-8: continuations only", strLast, {strLast.substr(0, 279), strLast.substr(279)}},
        {"no UTF-8: begun and not continued", A(278) + "\xE2" + "b", {A(278) + "\xE2", "b"}},
        {"no UTF-8: continued too long",
         A(276) + strE + "\x80\x80",
         {A(276) + strE + "\x80", "\x80"}},
        {"NUL ends it", std::string("ab\0cd", 5), {"ab"}},
    };
    for (const auto& row : kRows) {
        EXPECT_EQ(PiecesOf(row.strText, row.listPieces.size()), row.listPieces) << row.szName;
    }
}

TEST(ClientRecord, LosesNoByteOfAnyText) {
    std::mt19937 random(2026);
    std::uniform_int_distribution<int> anyByte(1, 255);
    for (const std::size_t nLen : {1021U, 1022U, 1023U, 20000U}) {  // about the buffer of printf
        const CPort service;
        const Log log = OpenLog(1, service.Number());
        std::string strText(nLen, '\0');
        for (char& c : strText) {
            c = static_cast<char>(anyByte(random));
        }
        ASSERT_EQ(tarvik_log_info(log.get(), "<%s>", strText.c_str()), 0);
        std::string strAll;
        for (const std::string& strPiece :
             service.Texts(static_cast<std::size_t>(CountsOf(log).nSent))) {
            strAll += strPiece;
        }
        EXPECT_EQ(strAll, "<" + strText + ">") << nLen;
    }
}

TEST(ClientRecord, CountsWhatADeadServiceMissedAndFlowsWhenItIsBack) {
    const std::uint16_t wPort = FreePort(SOCK_DGRAM);
    const Log log = OpenLog(1, wPort);
    Counts expected;
    for (int nRound = 0; nRound < 3; ++nRound) {
        for (int n = 0; n < 5; ++n) {
            EXPECT_EQ(tarvik_log_info(log.get(), "nobody there"), 0);
        }
        expected.nLost += 5;
        if (nRound == 1) {
            // Asked or not in between, the count is the same.
            EXPECT_TRUE(WaitUntil([&] { return CountsOf(log) == expected; }));
        }
        const CPort service(wPort);
        EXPECT_EQ(tarvik_log_info(log.get(), "back"), 0);
        EXPECT_EQ(tarvik_log_info(log.get(), "and on"), 0);
        expected.nSent += 2;
        EXPECT_THAT(service.Texts(2), ElementsAre("back", "and on"));
        EXPECT_EQ(CountsOf(log), expected);
    }
}

TEST(ClientRecord, CountsTextsThatCannotBeFormatted) {
    const CPort service;
    const Log log = OpenLog(1, service.Number());
    const wchar_t szNoCharacter[] = {0x7FFFFFF0, 0};
    EXPECT_EQ(tarvik_log_info(log.get(), "%ls", szNoCharacter), -EILSEQ);
    EXPECT_EQ(CountsOf(log), (Counts{0, 1}));
}

TEST(ClientRecord, KeepsErrnoAndLogsIt) {
    const std::string strFormat = "%m%s";  // not ISO C++, so that a literal would draw a warning
    std::optional<CPort> service(std::in_place);
    const Log log = OpenLog(1, service->Number(), FreePort(SOCK_DGRAM));
    errno = ENOTDIR;
    tarvik_log_error(log.get(), strFormat.c_str(), ", after a look for control frames");
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_THAT(service->Texts(1),
                ElementsAre(strerror(ENOTDIR) + std::string(", after a look for control frames")));
    service.reset();
    errno = ENOTDIR;
    tarvik_log_info(log.get(), "refused");
    tarvik_log_info(log.get(), "refused, and the one before comes back");
    EXPECT_EQ(errno, ENOTDIR);
}

TEST(ClientRecord, RefusesWrongUse) {
    const CPort taken;
    const struct {
        int nIndex;
        std::uint16_t wService;
        std::uint16_t wControl;
        int nError;
    } kRows[] = {
        {-1, 1982, 0, -EINVAL},
        {100, 1982, 0, -EINVAL},
        {0, 0, 0, -EINVAL},
        {0, 1982, taken.Number(), -EADDRINUSE},
    };
    for (const auto& row : kRows) {
        int nMark = 0;
        auto* pLog = reinterpret_cast<tarvik_log*>(&nMark);
        EXPECT_EQ(tarvik_log_open(&pLog, row.nIndex, row.wService, row.wControl), row.nError);
        EXPECT_EQ(pLog, nullptr);
    }
    const Log log = OpenLog(0, taken.Number());
    for (const int nResult :
         {tarvik_log_write(log.get(), 5, "x", 1), tarvik_log_write(log.get(), -1, "x", 1),
          tarvik_log_write(log.get(), 0, nullptr, 1)}) {
        EXPECT_EQ(nResult, -EINVAL);
    }
    for (const int nResult : {tarvik_log_fd(log.get()), tarvik_log_poll(log.get()),
                              tarvik_log_start_thread(log.get())}) {
        EXPECT_EQ(nResult, -ENOTCONN);
    }
    EXPECT_EQ(CountsOf(log), (Counts{0, 0}));
}

TEST(ClientRecord, NullHandleDoesNothing) {
    tarvik_log* const pNone = nullptr;
    const int nResults[] = {tarvik_log_open(nullptr, 1, 1, 0),
                            tarvik_log_info(pNone, "x"),
                            tarvik_log_write(pNone, 0, "x", 1),
                            tarvik_log_stats(pNone, nullptr, nullptr),
                            tarvik_log_on_realtime(pNone, nullptr, nullptr),
                            tarvik_log_on_language(pNone, nullptr, nullptr),
                            tarvik_log_start_thread(pNone),
                            tarvik_log_fd(pNone),
                            tarvik_log_poll(pNone)};
    EXPECT_THAT(nResults, testing::Each(-EINVAL));
    EXPECT_EQ(LogFromC(pNone) + tarvik_log_look(pNone), 0);
    tarvik_log_close(pNone);
}
