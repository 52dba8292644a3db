// Logs as client 2 for ten seconds, also in real time: example [PortFromClient [ListenPort]]
#include <poll.h>
#include <tarvik_log.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

int main(int nArguments, char** szArguments) {
    const auto port = [&](int nArgument, const char* szDefault) {
        const char* const szPort = nArgument < nArguments ? szArguments[nArgument] : szDefault;
        return static_cast<uint16_t>(std::strtoul(szPort, nullptr, 10));
    };
    tarvik_log* pLog = nullptr;
    if (tarvik_log_open(&pLog, 2, port(1, "1982"), port(2, "2002")) != 0) {
        return 1;
    }
    const std::unique_ptr<tarvik_log, decltype(&tarvik_log_close)> log(pLog, tarvik_log_close);
    const auto onRealTime = [](int nValue, void*) { std::cout << "real-time: " << nValue << "\n"; };
    tarvik_log_on_realtime(log.get(), onRealTime, nullptr);
    for (int nRound = 0; nRound < 20; ++nRound) {
        tarvik_log_info(log.get(), "round %d", nRound);
        tarvik_log_realtime(log.get(), "in detail: %s", std::to_string(nRound).c_str());
        pollfd waiting{tarvik_log_fd(log.get()), POLLIN, 0};
        poll(&waiting, 1, 500);
        tarvik_log_poll(log.get());
    }
    return 0;
}
