#include "bench/BareUpload.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <system_error>
#include <thread>
#include <vector>

#include "bench/Measure.h"
#include "support/Socket.h"
#include "support/UniqueFd.h"

namespace {

constexpr std::size_t kFileSendBytes = 1024;

void SendOverAndOver(std::uint16_t wPort, const std::string& strBytes) {
    const CUniqueFd connection(MakeSocket(SOCK_STREAM));
    const int nOn = 1;
    if (setsockopt(connection.Get(), IPPROTO_TCP, TCP_NODELAY, &nOn, sizeof(nOn)) != 0 ||
        !ConnectSocket(connection.Get(), kLoopback, wPort)) {
        _exit(1);
    }
    for (std::size_t nAt = 0;;
         nAt = nAt + kFileSendBytes < strBytes.size() ? nAt + kFileSendBytes : 0) {
        const std::size_t nLen = std::min(kFileSendBytes, strBytes.size() - nAt);
        // As the service does while it has more to send.
        const int nMore = nAt + nLen < strBytes.size() ? MSG_MORE : 0;
        if (send(connection.Get(), strBytes.data() + nAt, nLen, MSG_NOSIGNAL | nMore) < 0) {
            return;
        }
    }
}

}  // namespace

CBareUpload::CBareUpload(std::uint16_t wPort, int nSenders, const std::string& strBytes)
    : m_nPid(fork()) {
    if (m_nPid < 0) {
        throw std::system_error(errno, std::generic_category(), "bare upload: fork");
    }
    if (m_nPid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        setsid();  // like the detached service: the kernel shares out processor time by session
        PinThread(0, Processor::kLast);
        std::vector<std::thread> senders;
        senders.reserve(static_cast<std::size_t>(nSenders));
        for (int i = 0; i < nSenders; ++i) {
            senders.emplace_back([&] { SendOverAndOver(wPort, strBytes); });
        }
        for (std::thread& sender : senders) {
            sender.join();
        }
        _exit(0);
    }
}

CBareUpload::~CBareUpload() {
    kill(m_nPid, SIGKILL);
    waitpid(m_nPid, nullptr, 0);
}
