// What a logging call of the client library costs the program that makes it.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <tarvik_log.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr int kRounds = 5;

// A socket on a free port; records that nobody reads there are dropped by the system.
struct Port {
    Port() {
        socklen_t nLen = sizeof(address);
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        auto* const pAddress = reinterpret_cast<sockaddr*>(&address);
        if (bind(nSocket, pAddress, nLen) != 0 || getsockname(nSocket, pAddress, &nLen) != 0) {
            throw std::runtime_error("no port");
        }
    }
    ~Port() { close(nSocket); }
    std::uint16_t Number() const { return ntohs(address.sin_port); }

    int nSocket = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
};

// Processor time of this thread, which does not count what else the machine does.
std::int64_t SpentNs() {
    timespec tsSpent{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &tsSpent);
    return std::int64_t{tsSpent.tv_sec} * 1'000'000'000 + tsSpent.tv_nsec;
}

// Nanoseconds of one call, the median of some rounds of nCalls.
template <typename Call>
double NsPerCall(int nCalls, const Call& call) {
    std::vector<double> listNs;
    for (int nRound = 0; nRound < kRounds; ++nRound) {
        const std::int64_t nBegin = SpentNs();
        for (int n = 0; n < nCalls; ++n) {
            call(n);
        }
        listNs.push_back(static_cast<double>(SpentNs() - nBegin) / nCalls);
    }
    std::sort(listNs.begin(), listNs.end());
    return listNs[kRounds / 2];
}

// szWhat as ns: a real-time call while off, and a record of 60 bytes.
void Measure(const char* szWhat, std::uint16_t wService, std::uint16_t wControl, bool bThread) {
    tarvik_log* log = nullptr;
    if (tarvik_log_open(&log, 1, wService, wControl) != 0 ||
        (bThread && tarvik_log_start_thread(log) != 0)) {
        throw std::runtime_error(std::string(szWhat) + ": no log");
    }
    const double dOff =
        NsPerCall(20'000'000, [log](int n) { tarvik_log_realtime(log, "packet %d", n); });
    const double dRecord = NsPerCall(100'000, [log](int n) {
        tarvik_log_info(log, "packet %8d from 192.168.100.101 to 192.168.100.102, ttl %d", n, 64);
    });
    std::printf("  \"%s\": {\"realtime_off_ns\": %.2f, \"record_ns\": %.0f},\n", szWhat, dOff,
                dRecord);
    tarvik_log_close(log);
}

}  // namespace

int main() {
    try {
        const Port service;
        std::uint16_t wControl = 0;
        std::uint16_t wNobody = 0;
        {
            const Port control;
            const Port nobody;
            wControl = control.Number();
            wNobody = nobody.Number();
        }
        std::printf("{\n");
        Measure("no control port", service.Number(), 0, false);
        Measure("control port", service.Number(), wControl, false);
        Measure("control port and thread", service.Number(), wControl, true);
        Measure("control port, service not there", wNobody, wControl, false);
        std::printf("  \"rounds\": %d\n}\n", kRounds);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tarvik-bench-client: %s\n", error.what());
        return 1;
    }
    return 0;
}
