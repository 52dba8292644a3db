// tarvik-log fetch: agent and receiver in one for the service of this machine.
#include <fmt/format.h>

#include <asio.hpp>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>

#include "reading/ServiceConfig.h"
#include "tools/Command.h"
#include "tools/JobOptions.h"
#include "tools/StopConditions.h"
#include "transfer/AgentServer.h"
#include "transfer/ReceiverServer.h"

namespace {

constexpr std::uint32_t kRequestId = 1;
constexpr int kSilenceMs = 20000;

struct FetchOptions {
    ReceiveJob job;
    std::uint16_t wPort = 0;  // 0: of the log.conf
    std::string strConfig = MachineConfig();
    double dWaitSeconds = 10;
};

// One session with the service of this machine, from its registration to its last file.
class CFetchRun {
public:
    CFetchRun(asio::io_context& context, const FetchOptions& options)
        : m_Context(context),
          m_wAgentPort(options.wPort != 0 ? options.wPort : AgentPort(options.strConfig)),
          m_Server(context, MakeSettings(options), m_Bars, nullptr,
                   [this] {
                       m_bDone = true;
                       m_Context.stop();
                   }),
          m_Agent(context, AgentSettings(m_wAgentPort), MakeEvents()),
          m_WaitTime(std::chrono::duration_cast<asio::steady_timer::duration>(
              std::chrono::duration<double>(options.dWaitSeconds))),
          m_Wait(context) {
        AwaitSession();
    }

    // After the context's run. Throws std::runtime_error when there was no session.
    ReceptionResult Finish() {
        m_Server.Stop();
        if (!m_bDone && m_Server.Sessions() == 0) {
            throw std::runtime_error(m_strFailure.empty() ? "stopped" : m_strFailure);
        }
        return m_Server.Total();
    }

private:
    static CReceiverServer::Settings MakeSettings(const FetchOptions& options) {
        CReceiverServer::Settings settings;
        settings.strProgram = "tarvik-log fetch";
        settings.address = {asio::ip::address_v4::loopback(), 0};
        settings.nSilenceMs = kSilenceMs;
        settings.nSessions = 1;
        settings.job = options.job;
        return settings;
    }

    static CAgentServer::Settings AgentSettings(std::uint16_t wPort) {
        CAgentServer::Settings settings;
        settings.wPort = wPort;
        return settings;
    }

    CAgentServer::Events MakeEvents() {
        return {
            [](const std::string&) {},
            [] {},
            [this](const std::string& strOwner) { OnRegistered(strOwner); },
            [this](const AgentAnswer& answer) {
                Fail(fmt::format("the service gives no session: {}", AnswerText(answer.dwResult)));
            },
        };
    }

    // Again and again: a session that is there may end in its handshake, and none may follow.
    void AwaitSession() {
        m_Wait.expires_after(m_WaitTime);
        m_Wait.async_wait([this](const std::error_code& error) {
            if (error) {
                return;
            }
            if (m_Server.HasHadSessions()) {
                AwaitSession();
            } else {
                OnWaitOver();
            }
        });
    }

    // A service that registers again was started anew, and its session is gone. Any program of this
    // machine can say that it is the service, so people are told which one it was.
    void OnRegistered(const std::string& strOwner) {
        m_bRegistered = true;
        if (!strOwner.empty()) {
            m_strOwner = strOwner;
            m_Bars.Note("registered: " + strOwner);
        }
        AgentRequest request;
        request.wPort = m_Server.Port();
        m_Agent.Request(kRequestId, request);  // false: it has gone, and another may come
    }

    void OnWaitOver() {
        Fail(m_bRegistered ? fmt::format("the service registered but starts no session{}",
                                         m_strOwner.empty() ? "" : "; it is " + m_strOwner)
                           : fmt::format("no service connected to 127.0.0.1:{}: is tarvik-logd "
                                         "running, with this log.conf?",
                                         m_wAgentPort));
    }

    void Fail(const std::string& strWhy) {
        m_strFailure = strWhy;
        m_Context.stop();
    }

    asio::io_context& m_Context;
    std::uint16_t m_wAgentPort;
    bool m_bRegistered = false;
    bool m_bDone = false;
    std::string m_strFailure;
    std::string m_strOwner;  // of the service that registered
    CProgressBars m_Bars;
    CReceiverServer m_Server;
    CAgentServer m_Agent;
    asio::steady_timer::duration m_WaitTime;
    asio::steady_timer m_Wait;
};

int RunFetch(FetchOptions& options) {
    if (options.job.files.empty() && options.job.nDays == 0) {
        options.job.nDays = kDefaultDays;
    }
    options.job.bFolders = false;
    asio::io_context context(1);
    CFetchRun run(context, options);
    const CStopConditions stop(context, 0);
    context.run();
    const ReceptionResult result = run.Finish();
    fmt::print("{}: {}\n", options.job.strInto, SummaryText(result));
    return result.failures.empty() ? 0 : 1;
}

constexpr const char* kFetchDetails =
    "Plays the management agent and the receiver of the service until the files are here.\n\n"
    "A file that broke off is continued where it stopped (NAME.part), one of a day that has\n"
    "ended is fetched once. Today's file changes in place until midnight, so it is fetched\n"
    "anew each time, as it is at that moment.\n\n";

}  // namespace

Command AddFetch(CLI::App& app) {
    CLI::App* const pFetch =
        app.add_subcommand("fetch", "Fetches the history of the service of this machine.");
    const auto pOptions = std::make_shared<FetchOptions>();
    pOptions->job.strInto = "./tarvik-history";
    AddFileOptions(*pFetch, pOptions->job);
    pFetch
        ->add_option("--port", pOptions->wPort,
                     "where the service connects to; without it, nSTPort of the log.conf")
        ->check(Port())
        ->type_name("PORT");
    pFetch->add_option("--config", pOptions->strConfig, "log.conf of the service")
        ->capture_default_str()
        ->type_name("PATH");
    pFetch
        ->add_option("--wait", pOptions->dWaitSeconds,
                     "seconds to wait for the service, which tries to connect every 3")
        ->check(Seconds())
        ->type_name("S")
        ->capture_default_str();
    SetExamples(*pFetch, {{"tarvik-log fetch", "the last 5 days, into ./tarvik-history"},
                          {"tarvik-log fetch --days 1 --into today", "today's file only"},
                          {"tarvik-log fetch --get $(date +%Y%m%d).log --wait 30",
                           "a file by its name, from a service that is still to start"}});
    pFetch->footer(kFetchDetails + pFetch->get_footer());
    return {pFetch, [pOptions] { return RunFetch(*pOptions); }};
}
