// A management agent as the service sees it: accepts its registration, asks it to serve a receiver
// and tells what comes back.
#include <arpa/inet.h>
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>
#include <utility>

#include "core/ServiceSettings.h"
#include "tools/Agent.h"
#include "tools/RunTime.h"

namespace {

constexpr int kTurnMs = 100;            // how late the end of the run may be noticed
constexpr int kRegisterLimitMs = 5000;  // the service registers at once

struct Options {
    std::uint16_t wPort = 0;
    std::pair<std::string, std::string> receiver;  // address and port
    std::uint32_t dwFirstId = 1;
    std::uint32_t nRequests = 0;
    double dSeconds = 0;
};

struct Account {
    std::uint32_t nRequests = 0;  // sent
    std::uint32_t nAnswers = 0;   // received
};

AgentRequest MakeRequest(const Options& options) {
    in_addr address{};
    inet_pton(AF_INET, options.receiver.first.c_str(), &address);
    AgentRequest request;
    request.dwAddress = ntohl(address.s_addr);
    request.wPort = static_cast<std::uint16_t>(ParseInt(options.receiver.second));
    return request;
}

void SendRequests(CAgent& agent, const Options& options, Account& account) {
    for (; account.nRequests < options.nRequests; ++account.nRequests) {
        const std::uint32_t dwId = options.dwFirstId + account.nRequests;
        agent.Send(MakeHlogRequest(dwId, MakeRequest(options)));
        fmt::print("request {} sent: receiver {}:{}\n", dwId, options.receiver.first,
                   options.receiver.second);
    }
}

// Serves one connection until it or the run ends.
void ServeConnection(CAgent& agent, const Options& options, const CRunTime& time,
                     Account& account) {
    agent.Register(0, 0, kRegisterLimitMs);
    fmt::print("service registered\n");
    SendRequests(agent, options, account);
    while (!time.IsOver()) {
        const auto answer = agent.ReceiveAnswer(kTurnMs);
        if (answer) {
            ++account.nAnswers;
            fmt::print("answer to request {}: result {} ({})\n", answer->dwId, answer->dwResult,
                       AnswerText(answer->dwResult));
        } else if (agent.End() != PeerEnd::kSilence) {
            fmt::print("connection ended: {}\n", PeerEndText(agent.End()));
            return;
        }
    }
}

void Run(const Options& options) {
    const CRunTime time(options.dSeconds);
    CAgent agent(options.wPort);
    Account account;
    fmt::print("agent listens on 127.0.0.1:{}\n", agent.Port());
    while (!time.IsOver()) {
        if (!agent.Accept(kTurnMs)) {
            continue;
        }
        fmt::print("service connected\n");
        try {
            ServeConnection(agent, options, time, account);
        } catch (const std::runtime_error& error) {
            fmt::print("connection given up: {}\n", error.what());
        }
        agent.Connection().Close();
    }
    fmt::print("{} requests sent, {} answers and {} keep-alives received\n", account.nRequests,
               account.nAnswers, agent.KeepAlives());
}

int ParseAndRun(int nArguments, char** szArguments) {
    Options options;
    CLI::App app{"Plays the management agent of tarvik-logd on 127.0.0.1."};
    app.add_option("--port", options.wPort,
                   "where the service connects to, its nSTPort; 0: any free one")
        ->required();
    auto* const pReceiver =
        app.add_option("--receiver", options.receiver, "ADDRESS:PORT that requests shall name")
            ->delimiter(':')
            ->check(CLI::Validator(CLI::ValidIPV4).application_index(0).description(""))
            ->check(CLI::Range(1, 65535).application_index(1).description(""))
            ->type_name("ADDRESS:PORT");
    app.add_option("--requests", options.nRequests, "how many history requests to send")
        ->needs(pReceiver);
    app.add_option("--id", options.dwFirstId, "id of the first request, 1 unless given");
    app.add_option("--seconds", options.dSeconds, "how long to run; until Ctrl-C unless given")
        ->check(CLI::PositiveNumber);
    try {
        app.parse(nArguments, szArguments);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    if (*pReceiver && app.count("--requests") == 0) {
        options.nRequests = 1;
    }
    Run(options);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // an event is seen when it happens
    try {
        return ParseAndRun(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tarvik-sample-agent: %s\n", error.what());
        return 1;
    }
}
