#include "bench/BareRelay.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <system_error>
#include <thread>

#include "bench/Measure.h"
#include "bench/PacedSender.h"
#include "peers/LogClient.h"
#include "support/UniqueFd.h"

namespace {

constexpr std::size_t kSendBytes = 1024;
constexpr std::size_t kLineBytes = 400;
constexpr int kLinesBetweenLooks = 256;

void Check(bool bDone) {
    if (!bDone) {
        throw std::system_error(errno, std::generic_category(), "bare relay");
    }
}

struct Connection {
    CUniqueFd sender;
    CUniqueFd reader;
};

Connection Connect() {
    const CUniqueFd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t nLen = sizeof(address);
    auto* const pAddress = reinterpret_cast<sockaddr*>(&address);
    Check(bind(listener.Get(), pAddress, nLen) == 0 && listen(listener.Get(), 1) == 0 &&
          getsockname(listener.Get(), pAddress, &nLen) == 0);
    CUniqueFd reader(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    Check(connect(reader.Get(), pAddress, nLen) == 0);
    CUniqueFd sender(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    Check(sender.IsOpen());
    return {std::move(sender), std::move(reader)};
}

std::int64_t ThreadCpuNs() {
    timespec tsUsed{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &tsUsed);
    return std::int64_t{tsUsed.tv_sec} * 1'000'000'000 + tsUsed.tv_nsec;
}

// Lines of one record after the other, cut into sends.
class CLineSender {
public:
    explicit CLineSender(int nSocket)
        : m_nSocket(nSocket), m_Record(MakeRecord(0, kRealTimeType, kSampleText)) {}

    void SendLine() {
        char szLine[kLineBytes];
        const LogRecord& r = m_Record;
        const int nLen = std::snprintf(
            szLine, sizeof(szLine), "[%s] [%4d-%02d-%02d %02d:%02d:%02d] [%s]\r\n", "alpha",
            r.wYear, r.byMonth, r.byDay, r.byHour, r.byMinute, r.bySecond, r.szText);
        Append(szLine, static_cast<std::size_t>(nLen));
    }

private:
    void Append(const char* pData, std::size_t nLen) {
        std::memcpy(m_szHeld + m_nHeld, pData, nLen);
        m_nHeld += nLen;
        if (m_nHeld >= kSendBytes) {
            Check(send(m_nSocket, m_szHeld, kSendBytes, MSG_NOSIGNAL) == kSendBytes);
            m_nHeld -= kSendBytes;
            std::memmove(m_szHeld, m_szHeld + kSendBytes, m_nHeld);
        }
    }

    int m_nSocket;
    LogRecord m_Record;
    char m_szHeld[kSendBytes + kLineBytes] = {};
    std::size_t m_nHeld = 0;
};

void ReadAll(int nSocket) {
    char szChunk[65536];
    while (recv(nSocket, szChunk, sizeof(szChunk), 0) > 0) {
    }
}

}  // namespace

BareRelayResult RunBareRelay(double dSeconds) {
    Connection connection = Connect();
    std::thread reader([nSocket = connection.reader.Get()] { ReadAll(nSocket); });
    CLineSender lines(connection.sender.Get());
    const std::int64_t nCpuBefore = ThreadCpuNs();
    const std::int64_t nBegin = NowNs();
    const std::int64_t nEnd = nBegin + static_cast<std::int64_t>(dSeconds * 1e9);
    std::int64_t nLines = 0;
    while (NowNs() < nEnd) {
        for (int i = 0; i < kLinesBetweenLooks; ++i, ++nLines) {
            lines.SendLine();
        }
    }
    const auto dElapsedNs = static_cast<double>(NowNs() - nBegin);
    const auto dCpuNs = static_cast<double>(ThreadCpuNs() - nCpuBefore);
    connection.sender.Reset();
    reader.join();
    return {1e9 * static_cast<double>(nLines) / dElapsedNs,
            1e-3 * dCpuNs / static_cast<double>(nLines)};
}
