// tarvik-log agent: plays the management agent of the services on this machine.
#include <arpa/inet.h>
#include <fmt/format.h>

#include <asio.hpp>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>

#include "reading/ServiceConfig.h"
#include "support/ParseInt.h"
#include "tools/Command.h"
#include "tools/StopConditions.h"
#include "transfer/AgentServer.h"

namespace {

constexpr std::uint32_t kMostConnections = 10000;
constexpr std::uint32_t kMostRequests = 100000;  // they wait in memory for a service that is slow

struct AgentOptions {
    std::uint16_t wPort = 0;
    bool bPort = false;  // given
    std::string strConfig = MachineConfig();
    std::pair<std::string, std::string> receiver;  // address and port
    std::uint32_t dwFirstId = 1;
    std::uint32_t nRequests = 1;
    std::string strSource = "0.0.0.0";
    unsigned nNode = 0;
    std::size_t nConnections = CAgentServer::Settings().nConnections;
    bool bVerbose = false;
    double dSeconds = 0;
};

std::uint32_t AddressNumber(const std::string& strAddress) {
    in_addr address{};
    inet_pton(AF_INET, strAddress.c_str(), &address);
    return ntohl(address.s_addr);
}

// The agent and what it has seen.
class CAgentRun {
public:
    CAgentRun(asio::io_context& context, const AgentOptions& options)
        : m_Options(options), m_Agent(context, MakeSettings(options), MakeEvents()) {
        fmt::print("agent listens on 127.0.0.1:{}\n", m_Agent.Port());
    }

    void PrintSums() const {
        fmt::print("requests sent: {}, answers: {}, keep-alives: {}\n", m_nRequests, m_nAnswers,
                   m_nKeepAlives);
    }

private:
    static CAgentServer::Settings MakeSettings(const AgentOptions& options) {
        CAgentServer::Settings settings;
        settings.wPort = options.bPort ? options.wPort : AgentPort(options.strConfig);
        settings.dwSource = AddressNumber(options.strSource);
        settings.byNode = static_cast<std::uint8_t>(options.nNode);
        settings.nConnections = options.nConnections;
        return settings;
    }

    CAgentServer::Events MakeEvents() {
        return {
            [](const std::string& strText) { fmt::print("{}\n", strText); },
            [this] { OnKeepAlive(); },
            [this](const std::string&) { SendRequests(); },
            [this](const AgentAnswer& answer) { OnAnswer(answer); },
        };
    }

    void OnKeepAlive() {
        ++m_nKeepAlives;
        if (m_Options.bVerbose) {
            fmt::print("keep-alive {}\n", m_nKeepAlives);
        }
    }

    void SendRequests() {
        const auto& [strAddress, strPort] = m_Options.receiver;
        if (strAddress.empty()) {
            return;
        }
        AgentRequest request;
        request.dwAddress = AddressNumber(strAddress);
        request.wPort = static_cast<std::uint16_t>(ParseInt(strPort));
        for (; m_nRequests < m_Options.nRequests; ++m_nRequests) {
            const std::uint32_t dwId = m_Options.dwFirstId + m_nRequests;
            if (!m_Agent.Request(dwId, request)) {
                return;
            }
            fmt::print("request {} sent: receiver {}:{}\n", dwId, strAddress, strPort);
        }
    }

    void OnAnswer(const AgentAnswer& answer) {
        ++m_nAnswers;
        fmt::print("answer to request {}: result {} ({})\n", answer.dwId, answer.dwResult,
                   AnswerText(answer.dwResult));
    }

    const AgentOptions& m_Options;
    std::uint32_t m_nRequests = 0;  // sent
    std::uint32_t m_nAnswers = 0;   // received
    std::uint64_t m_nKeepAlives = 0;
    CAgentServer m_Agent;
};

int RunAgent(const AgentOptions& options) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // an event is seen when it happens
    asio::io_context context(1);
    const CAgentRun run(context, options);
    const CStopConditions stop(context, options.dSeconds);
    context.run();
    run.PrintSums();
    return 0;
}

void AddReceiverOptions(CLI::App& app, AgentOptions& options) {
    auto* const pReceiver =
        app.add_option("--receiver", options.receiver,
                       "request history for this receiver once a service has registered")
            ->delimiter(':')
            ->check(CLI::Validator(CLI::ValidIPV4).application_index(0).description(""))
            ->check(Port().application_index(1))
            ->type_name("ADDRESS:PORT");
    app.add_option("--requests", options.nRequests, "how many requests, with ids one after another")
        ->check(WholeNumber(1, kMostRequests))
        ->type_name("N")
        ->capture_default_str()
        ->needs(pReceiver);
    app.add_option("--id", options.dwFirstId, "id of the first request")
        ->check(WholeNumber(0, UINT32_MAX))
        ->type_name("N")
        ->capture_default_str()
        ->needs(pReceiver);
}

void AddAgentOptions(CLI::App& app, AgentOptions& options) {
    app.add_option(
           "--port", options.wPort,
           "where services connect to; 0: any free one; without it, nSTPort of the log.conf")
        ->check(PortOrNone())
        ->type_name("PORT");
    app.add_option("--config", options.strConfig, "log.conf of the service")
        ->capture_default_str()
        ->type_name("PATH");
    AddReceiverOptions(app, options);
    app.add_option("--source", options.strSource,
                   "address that uploads shall start from; 0.0.0.0: any")
        ->check(CLI::Validator(CLI::ValidIPV4).description(""))
        ->type_name("ADDRESS")
        ->capture_default_str();
    app.add_option("--node", options.nNode, "node code that services shall tell receivers")
        ->check(WholeNumber(0, UINT8_MAX))
        ->type_name("N")
        ->capture_default_str();
    app.add_option("--max-connections", options.nConnections,
                   "connections at a time; when there are more, the oldest goes that has not "
                   "registered")
        ->check(WholeNumber(1, kMostConnections))
        ->type_name("N")
        ->capture_default_str();
    app.add_flag("--verbose", options.bVerbose, "show keep-alives, too");
    app.add_option("--seconds", options.dSeconds, "how long to run; until Ctrl-C without it")
        ->check(Seconds())
        ->type_name("S");
}

}  // namespace

Command AddAgent(CLI::App& app) {
    CLI::App* const pAgent = app.add_subcommand(
        "agent",
        "Plays the management agent of this machine: registers services, asks them for history.");
    const auto pOptions = std::make_shared<AgentOptions>();
    AddAgentOptions(*pAgent, *pOptions);
    SetExamples(*pAgent,
                {{"tarvik-log agent --verbose --seconds 60", "shows a minute of the command link"},
                 {"tarvik-log agent --receiver 127.0.0.1:4711 --seconds 60",
                  "asks it to serve the receiver on port 4711"},
                 {"tarvik-log agent --receiver 127.0.0.1:4711 --requests 5 --id 100 --node 7",
                  "asks for five sessions, as node 7, until Ctrl-C"}});
    return {pAgent, [pAgent, pOptions] {
                pOptions->bPort = pAgent->count("--port") > 0;
                return RunAgent(*pOptions);
            }};
}
