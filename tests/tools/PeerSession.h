// Sessions of a service as a receiver sees them, made up by a test, and the receiver.
#pragma once

#include <arpa/inet.h>
#include <fmt/format.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "peers/PeerSocket.h"
#include "peers/Service.h"
#include "support/Socket.h"
#include "tools/ReadingTest.h"
#include "transfer/UploadMessage.h"

// A message of nLength bytes: dwFirst, zeros, and byLast.
inline FrameBytes MakeFrame(std::uint16_t wCode, std::size_t nLength, std::uint32_t dwFirst,
                            std::uint8_t byLast = 0) {
    FrameBytes body(nLength - kUmBodyOffset);
    StoreLe32(body.data(), dwFirst);
    body.back() |= byLast;
    return MakeUploadFrame(wCode, body.data(), body.size());
}

inline FrameBytes MakeHello(std::uint32_t dwVersion = kProtocolVersion) {
    return MakeFrame(UM_HELLO, kHelloBytes, dwVersion);
}

// A socket of strAddress, one of 127.0.0.0/8, connected to wPort; not open when that fails.
inline CUniqueFd Connect(const std::string& strAddress, std::uint16_t wPort) {
    CUniqueFd socket(MakeSocket(SOCK_STREAM));
    if (!BindToAddress(socket.Get(), ntohl(inet_addr(strAddress.c_str())), 0) ||
        !ConnectSocket(socket.Get(), kLoopback, wPort)) {
        socket.Reset();
    }
    return socket;
}

// A session of a service as a receiver sees it.
class CFakeSession {
public:
    // Begins with the bytes of first. Serves content, which outlives it, under any name.
    // dwName: makes the name of its appliance another.
    CFakeSession(std::uint16_t wReceiver, const std::string& strAddress, std::string_view content,
                 const FrameBytes& first = MakeHello(), std::uint32_t dwName = 0)
        : m_Content(content), m_Socket(Connect(strAddress, wReceiver)), m_dwName(dwName) {
        m_Socket.Send(first);
    }

    // Answers what comes, up to a message of that code. False: it does not come.
    bool Answer(std::uint16_t wCode) {
        do {
            const auto frame = m_Socket.ReceiveFrame(&CBuff::CheckF1Frame);
            if (!frame) {
                return false;
            }
            Take(OpenUploadFrame(*frame));
        } while (m_Codes.back() != wCode);
        return true;
    }

    // Sends the file that was asked for, from where it stands up to byte nEnd or its end.
    void SendFile(std::size_t nEnd = std::string::npos) {
        nEnd = std::min(nEnd, m_Content.size());
        m_Socket.Send({m_Content.begin() + m_nNext, m_Content.begin() + nEnd});
        m_nNext = nEnd;
    }

    void SendRecord(const LogRecord& record) {
        m_Socket.Send(MakeUploadFrame(UM_RTLOG, reinterpret_cast<const std::uint8_t*>(&record),
                                      kRecordBytes));
    }
    void Close() { m_Socket.Close(); }

    // True when the receiver has ended it within nLimitMs.
    bool IsEnded(int nLimitMs = kPeerLimitMs) {
        return m_Socket.AwaitEnd(nLimitMs) != PeerEnd::kSilence;
    }

    const std::vector<std::uint16_t>& Codes() const { return m_Codes; }    // that came
    const std::vector<std::uint32_t>& Starts() const { return m_Starts; }  // asked for

private:
    void Take(const UploadMessage& message) {
        m_Codes.push_back(message.wCode);
        if (message.wCode == UM_HELLO_ACK) {
            m_Socket.Send(MakeFrame(UM_INFO, kInfoBytes, m_dwName));
        } else if (message.wCode == UM_GET_HLOG) {
            m_nNext = LoadLe32(&message.payload.at(kGetHlogStartOffset));
            m_Starts.push_back(static_cast<std::uint32_t>(m_nNext));
            m_Socket.Send(MakeFrame(
                UM_GET_HLOG_ACK, kGetHlogAckBytes, static_cast<std::uint32_t>(m_Content.size()),
                m_nNext < m_Content.size() ? kGetHlogFound : kGetHlogBeyondEnd));
        }
    }

    std::string_view m_Content;
    CPeerSocket m_Socket;
    std::uint32_t m_dwName;
    std::size_t m_nNext = 0;
    std::vector<std::uint16_t> m_Codes;
    std::vector<std::uint32_t> m_Starts;
};

// Starts the receiver.
class ReceiveHarness : public ReadingTest {
protected:
    // The receiver, on a free port or on that of the start before.
    void StartReceive(const std::string& strArguments) {
        std::filesystem::remove(m_strRoot + "/receive.errors");
        m_nPid =
            Start(fmt::format("receive --into got --port {} {}", m_wPort, strArguments), "receive");
        ASSERT_TRUE(ErrorsGet("\n"));
        const std::string strFirst = Lines(Errors()).front();
        ASSERT_THAT(strFirst, testing::StartsWith("receiver listens on 0.0.0.0:"));
        m_wPort = static_cast<std::uint16_t>(std::stoi(strFirst.substr(strFirst.find(':') + 1)));
    }
    int EndReceive(int nSignal = 0) { return End(m_nPid, nSignal); }
    std::string Errors() const { return Read("/receive.errors"); }
    bool ErrorsGet(const std::string& strText) const {
        return WaitUntil([&] { return Errors().find(strText) != std::string::npos; });
    }

    pid_t m_nPid = 0;
    std::uint16_t m_wPort = 0;
};
