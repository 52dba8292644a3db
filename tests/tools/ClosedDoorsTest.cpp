// What strangers may do to tarvik-log agent, receive and fetch: the honest ones are served all the
// same, and nothing grows that is theirs.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <filesystem>
#include <optional>

#include "peers/PeerSocket.h"
#include "support/Socket.h"
#include "tools/PeerSession.h"
#include "tools/ReadingTest.h"
#include "transfer/AgentFrame.h"
#include "transfer/Download.h"
#include "transfer/ReceiveLimits.h"

namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

TEST(ReceiveLimitsTest, NetsAreReadStrictly) {
    const struct {
        const char* szText;
        const char* szInside;  // null: no net
        const char* szOutside;
    } cases[] = {
        {"192.0.2.7", "192.0.2.7", "192.0.2.6"},      {"192.0.2.7/32", "192.0.2.7", "192.0.2.8"},
        {"192.0.2.0/24", "192.0.2.255", "192.0.3.0"}, {"10.0.0.0/8", "10.255.0.1", "11.0.0.0"},
        {"128.0.0.0/1", "255.1.1.1", "127.0.0.1"},    {"0.0.0.0/0", "1.2.3.4", nullptr},
    };
    const auto number = [](const char* szAddress) { return ntohl(inet_addr(szAddress)); };
    for (const auto& c : cases) {
        const auto net = ParseAddressNet(c.szText);
        ASSERT_TRUE(net) << c.szText;
        EXPECT_TRUE(net->Holds(number(c.szInside))) << c.szText;
        EXPECT_FALSE(c.szOutside != nullptr && net->Holds(number(c.szOutside))) << c.szText;
    }
    for (const char* szText : {"", "10", "10.0.0.0/", "10.0.0.0/33", "10.0.0.0/-1", "10.0.0.0/08",
                               "10.0.0.0/8 ", " 10.0.0.0/8", "10.0.0.1/8", "10.0.0.0/8/8",
                               "010.0.0.0/8", "10.0.0.0/+8", "::1", "0.0.0.1/0", "localhost"}) {
        EXPECT_FALSE(ParseAddressNet(szText)) << szText;
    }
}

TEST(ReceiveLimitsTest, AnAddressWithFewerSessionsTakesAPlaceOfThatWithMost) {
    ReceiveLimits limits;
    limits.nSessions = 6;
    limits.nSessionsEach = 5;
    limits.nPending = 4;
    limits.nPendingEach = 3;
    CPlaces places(limits);
    constexpr std::uint32_t kMany = 1;
    constexpr std::uint32_t kFew = 2;
    const auto answer = [&](std::uint32_t dwAddress) { return places.Judge(dwAddress).eAnswer; };
    for (int nSession = 0; nSession < 3; ++nSession) {
        EXPECT_EQ(answer(kMany), CPlaces::Answer::kCome);
        places.Enter(kMany);
    }
    EXPECT_EQ(answer(kMany), CPlaces::Answer::kTooManyPendingOfAddress);
    places.Enter(kFew);
    CPlaces::Verdict verdict = places.Judge(kFew);
    EXPECT_EQ(verdict.eAnswer, CPlaces::Answer::kDisplace);
    EXPECT_EQ(verdict.dwVictim, kMany);
    EXPECT_TRUE(verdict.bPendingOnly);
    for (int nSession = 0; nSession < 3; ++nSession) {
        places.FinishHandshake(kMany);
    }
    places.FinishHandshake(kFew);
    places.Enter(kMany);
    places.FinishHandshake(kMany);
    places.Enter(kMany);
    EXPECT_EQ(answer(kMany), CPlaces::Answer::kTooManyOfAddress);
    verdict = places.Judge(kFew);
    EXPECT_EQ(verdict.eAnswer, CPlaces::Answer::kDisplace);
    EXPECT_FALSE(verdict.bPendingOnly);
    places.Leave(kMany, true);
    EXPECT_EQ(answer(kFew), CPlaces::Answer::kCome);
    for (std::uint32_t dwOther = 1; dwOther <= 5; ++dwOther) {
        places.Leave(dwOther == 5 ? kFew : kMany, false);
    }
    for (std::uint32_t dwOther = 11; dwOther <= 14; ++dwOther) {  // one each: nobody has too many
        places.Enter(dwOther);
    }
    EXPECT_EQ(answer(kFew), CPlaces::Answer::kFull);
}

class ClosedDoors : public ReceiveHarness {
protected:
    std::size_t Count(const std::string& strText) const {
        const std::string strErrors = Errors();
        std::size_t nCount = 0;
        for (std::size_t n = 0; (n = strErrors.find(strText, n)) != std::string::npos; ++n) {
            ++nCount;
        }
        return nCount;
    }
    // One session of an address brings its file.
    void ExpectServed(const std::string& strAddress, const std::string& strContent) {
        CFakeSession session(m_wPort, strAddress, strContent);
        ASSERT_TRUE(session.Answer(UM_GET_HLOG));
        session.SendFile();
        EXPECT_TRUE(session.IsEnded());
    }
};

// Each of them used to cost the accepting a fifth of a second.
TEST_F(ClosedDoors, WhoConnectsAndResetsKeepsNobodyOut) {
    StartReceive("--get a");
    for (int nReset = 0; nReset < 300; ++nReset) {
        CPeerSocket(Connect("127.0.0.66", m_wPort)).Reset();
    }
    CFakeSession session(m_wPort, "127.0.0.5", "content");
    ASSERT_TRUE(session.Answer(UM_GET_HLOG));  // within 10 s
    session.SendFile();
    EXPECT_TRUE(session.IsEnded());
    EXPECT_EQ(EndReceive(SIGTERM), 0) << Errors();
}

TEST_F(ClosedDoors, OnlyTheAllowedComeInAndTheOthersAreToldOnce) {
    StartReceive("--get a --allow 127.0.1.0/24 --allow 127.0.2.9");
    for (const char* szAddress : {"127.0.0.1", "127.0.2.8", "127.0.0.1"}) {
        CFakeSession stranger(m_wPort, szAddress, "", {});
        EXPECT_TRUE(stranger.IsEnded()) << szAddress;
    }
    for (const char* szAddress : {"127.0.1.5", "127.0.2.9"}) {
        ExpectServed(szAddress, "content");
    }
    EXPECT_EQ(EndReceive(SIGTERM), 0) << Errors();
    EXPECT_EQ(Count("127.0.0.1: no session: it is not in --allow"), 1U);
    EXPECT_EQ(Count("127.0.2.8: no session: it is not in --allow"), 1U);
    for (const std::string strNet : {"10.0.0.1/8", "somewhere", "10.0.0.0/33"}) {
        EXPECT_EQ(Run("receive --port 0 --allow " + strNet).nStatus, 2) << strNet;
    }
}

TEST_F(ClosedDoors, ALimitStopsWhoReachesItAndNobodyElse) {
    const std::string strContent(1000, 'x');
    const struct {
        const char* szArguments;
        int nStrangers;  // of one address, each with its first message only
        const char* szTold;
    } cases[] = {
        {"--max-pending-each 3", 5, "as many unfinished handshakes as --max-pending-each allows"},
        {"--max-sessions-each 3", 5, "as many as --max-sessions-each allows"},
        {"--max-pending 3", 3, "gave way to a session of another address"},
        {"--max-sessions 3", 3, "gave way to a session of another address"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.szArguments);
        m_wPort = 0;
        fs::remove_all(m_strRoot + "/got");
        StartReceive(std::string("--get a ") + c.szArguments);
        std::deque<CFakeSession> strangers;
        for (int nStranger = 0; nStranger < c.nStrangers; ++nStranger) {
            strangers.emplace_back(m_wPort, "127.0.0.66", "", FrameBytes{UM_LEAD_BYTE});
        }
        ExpectServed("127.0.0.5", strContent);
        EXPECT_TRUE(ErrorsGet(c.szTold)) << Errors();
        EXPECT_EQ(Count(c.szTold), 1U);
        EXPECT_EQ(Read("/got/127.0.0.5/a"), strContent);
        strangers.clear();
        EndReceive(SIGTERM);
    }
}

// A folder is made with the first byte; bytes and folders of an address have an end.
TEST_F(ClosedDoors, InventedNamesFillNeitherDiskNorMemory) {
    const std::string strContent(1000, 'x');
    StartReceive("--get a --max-folders-each 2");
    const auto session = [&](std::uint32_t dwName, bool bContent) {
        CFakeSession one(m_wPort, "127.0.0.66", strContent, MakeHello(), dwName);
        EXPECT_TRUE(one.Answer(UM_GET_HLOG));
        if (bContent) {
            one.SendFile();
            EXPECT_TRUE(one.IsEnded());
        }
    };
    for (std::uint32_t dwName = 1; dwName <= 50; ++dwName) {
        session(dwName, false);
    }
    EXPECT_FALSE(fs::exists(m_strRoot + "/got"));
    for (std::uint32_t dwName = 51; dwName <= 60; ++dwName) {
        session(dwName, true);
    }
    EXPECT_EQ(Count("--max-folders-each"), 1U) << Errors();
    const fs::directory_iterator folders(m_strRoot + "/got");
    EXPECT_EQ(std::distance(begin(folders), end(folders)), 2);
    ExpectServed("127.0.0.5", strContent);
    EXPECT_EQ(Read("/got/127.0.0.5/a"), strContent);
    EXPECT_EQ(EndReceive(SIGTERM), 1);  // those that broke off count as failures
}

TEST_F(ClosedDoors, WhatIsTooMuchForADayIsNotTaken) {
    const std::string strContent(1000, 'x');
    const struct {
        const char* szArguments;
        const char* szTold;
        std::size_t nTold;
        int nTaken;  // of 4 of one address and 1 of another
    } cases[] = {
        {"--max-bytes-each 2500", "more than --max-bytes-each allows", 1, 3},
        {"--max-bytes 2500", "more than --max-bytes allows", 2, 2},
        {"--keep-free 1000TB", "(--keep-free)", 2, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.szArguments);
        m_wPort = 0;
        fs::remove_all(m_strRoot + "/got");
        StartReceive(std::string("--get a ") + c.szArguments);
        int nTaken = 0;
        for (std::uint32_t dwName = 1; dwName <= 5; ++dwName) {
            CFakeSession one(m_wPort, dwName == 5 ? "127.0.0.5" : "127.0.0.66", strContent,
                             MakeHello(), dwName);
            ASSERT_TRUE(one.Answer(UM_GET_HLOG));
            if (one.IsEnded(100)) {
                continue;  // refused
            }
            one.SendFile();
            EXPECT_TRUE(one.IsEnded());
            ++nTaken;
        }
        EXPECT_EQ(nTaken, c.nTaken) << Errors();
        // Once for each address.
        EXPECT_TRUE(WaitUntil([&] { return Count(c.szTold) == c.nTold; })) << Errors();
        EndReceive(SIGTERM);
    }
}

TEST_F(ClosedDoors, AByteNowAndThenIsNoProgress) {
    StartReceive("--get a --silence 1");
    const std::string strContent(1000, 'x');
    CFakeSession session(m_wPort, "127.0.0.66", strContent);
    ASSERT_TRUE(session.Answer(UM_GET_HLOG));
    for (std::size_t nSent = 1; !session.IsEnded(100); ++nSent) {
        ASSERT_LT(nSent, 100U);
        session.SendFile(nSent);
    }
    EXPECT_TRUE(ErrorsGet("bytes came in 1 s")) << Errors();
    EndReceive(SIGTERM);
}

// None of them is written to, waited for or followed.
TEST_F(ClosedDoors, WhatLiesUnderThePartsNameMustBeAFileOfThatNameAlone) {
    Write("/precious", "keep");
    const std::string strPart = m_strRoot + "/a.part";
    const std::string strPrecious = m_strRoot + "/precious";
    const struct {
        const char* szWhat;
        int nMade;
        const char* szSaid;
    } cases[] = {
        {"pipe", mkfifo((m_strRoot + "/pipe.part").c_str(), 0600), "is no regular file"},
        {"hard", link(strPrecious.c_str(), (m_strRoot + "/hard.part").c_str()),
         "has another name, too"},
        {"soft", symlink(strPrecious.c_str(), (m_strRoot + "/soft.part").c_str()), "soft.part: "},
        {"folder", mkdir((m_strRoot + "/folder.part").c_str(), 0700), "folder.part: "},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(c.nMade, 0);
        try {
            CDownload download(m_strRoot, c.szWhat);
            ADD_FAILURE() << c.szWhat;
        } catch (const std::runtime_error& error) {
            EXPECT_THAT(error.what(), HasSubstr(c.szSaid));
        }
    }
    const CUniqueFd reader(open((m_strRoot + "/pipe.part").c_str(), O_RDONLY | O_NONBLOCK));
    EXPECT_THROW(CDownload(m_strRoot, "pipe"), std::runtime_error);  // with a reader it opens
    EXPECT_EQ(Read("/precious"), "keep");
    // A folder is not made before there is something to put into it.
    CDownload later(m_strRoot + "/later", "a");
    EXPECT_THROW(CDownload(m_strRoot + "/later", "a"), std::runtime_error);  // it has an owner
    EXPECT_FALSE(fs::exists(m_strRoot + "/later"));
    later.Begin(2);
    later.Write(reinterpret_cast<const std::uint8_t*>("hi"), 2);
    later.Finish();
    EXPECT_EQ(Read("/later/a"), "hi");
}

TEST_F(ClosedDoors, RecordsThatNobodySubscribedToAreDropped) {
    const struct {
        const char* szArguments;
        int nShown;
    } cases[] = {{"--get a", 0}, {"--live --client beta --type error", 1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.szArguments);
        m_wPort = 0;
        StartReceive(c.szArguments);
        CFakeSession session(m_wPort, "127.0.0.66", "content");
        ASSERT_TRUE(session.Answer(c.nShown == 0 ? UM_INFO_ACK : UM_SUBSCRIBE));
        for (const auto& [nIndex, nType] :
             {std::pair{0, 2}, {1, 1}, {1, 4}, {-1, 2}, {100, 0}, {1, 2}}) {
            session.SendRecord(StampedRecord(nIndex, nType, 9, "text"));
        }
        EXPECT_TRUE(ErrorsGet("sends live records that it was not asked for; dropped"));
        session.Close();
        EXPECT_TRUE(WaitUntil(
            [&] { return static_cast<int>(Lines(Read("/receive")).size()) >= c.nShown; }));
        EndReceive(SIGTERM);
        EXPECT_EQ(Lines(Read("/receive")).size(), static_cast<std::size_t>(c.nShown));
        EXPECT_EQ(Count("was not asked for; dropped"), 1U);
        fs::remove_all(m_strRoot + "/got");
    }
}

// A connection to the agent, as any program of the machine may make one.
class CAgentPeer {
public:
    explicit CAgentPeer(std::uint16_t wPort) : m_Socket(Connect("127.0.0.1", wPort)) {}

    void Register() {
        PeerBytes value(sizeof(std::uint32_t));
        StoreLe32(value.data(), kRegisterValue);
        m_Socket.Send(AgentFrame{CMD_REGISTER, value}.Encode());
    }
    std::optional<PeerBytes> Receive() { return m_Socket.ReceiveFrame(&CBuff::CheckFeFrame); }
    CPeerSocket& Socket() { return m_Socket; }

private:
    CPeerSocket m_Socket;
};

class ClosedAgent : public ClosedDoors {
protected:
    void StartAgent(const std::string& strArguments) {
        m_nPid = Start("agent --port 0 " + strArguments, "agent");
        ASSERT_TRUE(WaitUntil([&] { return Said().find('\n') != std::string::npos; }));
        m_wPort = static_cast<std::uint16_t>(std::stoi(Said().substr(Said().find(':') + 1)));
    }
    std::string Said() const { return Read("/agent"); }
    bool Says(const std::string& strText) const {
        return WaitUntil([&] { return Said().find(strText) != std::string::npos; });
    }
};

TEST_F(ClosedAgent, TheOldestThatHasNotRegisteredGivesWay) {
    StartAgent("--max-connections 3");
    CAgentPeer service(m_wPort);
    service.Register();
    ASSERT_TRUE(service.Receive());
    EXPECT_TRUE(Says(fmt::format("service registered (test_tools, pid {}, user ", getpid())));
    std::deque<CAgentPeer> strangers;
    for (int nStranger = 0; nStranger < 4; ++nStranger) {
        strangers.emplace_back(m_wPort);
    }
    EXPECT_NE(strangers.front().Socket().AwaitEnd(), PeerEnd::kSilence);
    strangers.back().Register();  // the newest has a place
    EXPECT_TRUE(strangers.back().Receive());
    service.Register();  // and the first has it still
    EXPECT_TRUE(service.Receive());
    EXPECT_EQ(End(m_nPid, SIGTERM), 0);
}

// Its answers would wait in memory.
TEST_F(ClosedAgent, WhoDoesNotReadTheAnswersIsEnded) {
    StartAgent("");
    CAgentPeer hostile(m_wPort);
    const auto flood = [&] {
        for (int nFrame = 0; nFrame < 2'000'000; ++nFrame) {
            hostile.Register();
        }
    };
    EXPECT_THROW(flood(), std::system_error);  // the connection is gone
    EXPECT_TRUE(Says("registers again and again and does not read"));
    CAgentPeer service(m_wPort);
    service.Register();
    EXPECT_TRUE(service.Receive());
    EXPECT_EQ(End(m_nPid, SIGTERM), 0);
}

TEST_F(ClosedAgent, DescriptorsThatAreUsedUpEndNothing) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer needs descriptors itself, and takes it for a fault without";
#endif
    StartAgent("--max-connections 1000");
    const rlimit limit{16, 16};
    ASSERT_EQ(prlimit(m_nPid, RLIMIT_NOFILE, &limit, nullptr), 0);
    {
        std::deque<CAgentPeer> strangers;
        for (int nStranger = 0; nStranger < 30; ++nStranger) {
            strangers.emplace_back(m_wPort);
        }
        EXPECT_TRUE(Says("no connection can be taken for now"));
    }
    CAgentPeer service(m_wPort);
    service.Register();
    EXPECT_TRUE(service.Receive());
    EXPECT_EQ(End(m_nPid, SIGTERM), 0);
}

TEST_F(ClosedAgent, FetchSaysWhoseTheOtherEndIs) {
    const CPeerListener squatter;
    EXPECT_THAT(Run(fmt::format("fetch --port {}", squatter.Port())).strErrors,
                HasSubstr(fmt::format("runs there already (test_tools, pid {}, user ", getpid())));
    const std::uint16_t wPort = CPeerListener().Port();
    const pid_t nPid = Start(fmt::format("fetch --port {} --wait 1", wPort), "fetch");
    std::optional<CAgentPeer> peer;
    ASSERT_TRUE(WaitUntil([&] {
        CUniqueFd socket = Connect("127.0.0.1", wPort);
        if (!socket.IsOpen()) {
            return false;
        }
        socket.Reset();
        peer.emplace(wPort);
        return true;
    }));
    peer->Register();
    EXPECT_TRUE(peer->Receive());
    EXPECT_EQ(End(nPid), 1);
    EXPECT_THAT(Read("/fetch.errors"),
                AllOf(HasSubstr(fmt::format("registered: test_tools, pid {}, user ", getpid())),
                      HasSubstr("starts no session; it is test_tools, pid ")));
}

}  // namespace
