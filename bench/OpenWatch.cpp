#include "bench/OpenWatch.h"

#include <sys/socket.h>

#include <cerrno>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "bench/Measure.h"
#include "support/Socket.h"
#include "support/UniqueFd.h"

namespace {

constexpr std::int64_t kLimitNs = 10'000'000'000;
constexpr std::int64_t kProbeGapNs = 50'000;

bool WasRefused(int nSocket) {
    int nError = 0;
    socklen_t nLen = sizeof(nError);
    getsockopt(nSocket, SOL_SOCKET, SO_ERROR, &nError, &nLen);
    return nError != 0;
}

}  // namespace

std::function<bool()> UdpPortProbe(std::uint16_t wPort) {
    const auto pSocket = std::make_shared<CUniqueFd>(MakeSocket(SOCK_DGRAM));
    if (!ConnectSocket(pSocket->Get(), kLoopback, wPort)) {
        throw std::system_error(errno, std::generic_category(), "port watch");
    }
    return
        [pSocket] { return send(pSocket->Get(), "?", 1, 0) == 1 && !WasRefused(pSocket->Get()); };
}

COpenWatch::COpenWatch(std::function<bool()> probe)
    : m_Probe(std::move(probe)), m_Thread([this] { Watch(); }) {
}

COpenWatch::~COpenWatch() {
    if (m_Thread.joinable()) {
        m_Thread.join();
    }
}

std::int64_t COpenWatch::OpenedAt() {
    m_Thread.join();
    return m_nOpened;
}

void COpenWatch::Watch() {
    const std::int64_t nEnd = NowNs() + kLimitNs;
    while (NowNs() < nEnd) {
        if (m_Probe()) {
            m_nOpened = NowNs();
            return;
        }
        SleepNs(kProbeGapNs);
    }
}

double MsUntilOpen(std::function<bool()> probe, const std::function<void()>& launch) {
    COpenWatch watch(std::move(probe));
    const std::int64_t nBegin = NowNs();
    launch();
    const std::int64_t nOpened = watch.OpenedAt();
    if (nOpened == 0) {
        throw std::runtime_error("what was started takes nothing");
    }
    return Ms(nOpened - nBegin);
}
