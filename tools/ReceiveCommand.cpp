// tarvik-log receive: a receiver for any number of services at once.
#include <fmt/format.h>
#include <unistd.h>

#include <array>
#include <asio.hpp>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "console/LogcCtrlFrame.h"
#include "reading/Output.h"
#include "reading/RecordFormat.h"
#include "reading/RecordQuery.h"
#include "reading/RecordType.h"
#include "reading/WrongUse.h"
#include "tools/Command.h"
#include "tools/JobOptions.h"
#include "tools/StopConditions.h"
#include "transfer/LiveOutput.h"
#include "transfer/ReceiverServer.h"

namespace {

constexpr const char* kReceiveProgram = "tarvik-log receive";

struct ReceiveOptions {
    ReceiveJob job;
    std::uint16_t wPort = 0;
    std::string strListen = "0.0.0.0";
    bool bLive = false;
    RecordQuery read;  // which live records, whose names
    std::string strFormat = "short";
    std::string strLiveTo;
    std::uint64_t nRecords = 0;  // 0: any number
    std::string strLanguage;
    bool bYes = false;
    bool bOnce = false;
    std::uint32_t nSessions = 1;
    int nSilence = 20;  // seconds
    double dSeconds = 0;
    std::vector<std::string> allowed;
    ReceiveLimits limits;
};

// Those that pass the filter, of all that a session can be asked for.
SubscriptionTable WantedRecords(const CRecordFilter& filter) {
    std::vector<ClientAndType> wanted;
    LogRecord record{};
    for (record.nIndex = 0; record.nIndex <= kMaxClientIndex; ++record.nIndex) {
        for (record.nType = 0; record.nType <= kMaxOrdinaryType; ++record.nType) {
            if (filter.Accepts(record)) {
                wanted.emplace_back(record.nIndex, record.nType);
            }
        }
    }
    if (wanted.empty()) {
        throw WrongUse("--live: a service sends none of these records");
    }
    return MakeSubscription(wanted);
}

void CompleteJob(ReceiveOptions& options, const CClientNames& names) {
    ReceiveJob& job = options.job;
    if (options.bLive) {
        job.wanted = WantedRecords(options.read.Filter(names));
    }
    if (!options.strLanguage.empty()) {
        job.optLanguage = options.strLanguage == "english" ? LANGUAGE_ENGLISH : LANGUAGE_CHINESE;
    }
    if (job.nDays == 0 && job.files.empty() && !job.wanted && !job.optLanguage && !job.bReboot) {
        job.nDays = kDefaultDays;
    }
}

// True when the reboots may happen.
bool ConfirmReboot(const ReceiveOptions& options) {
    if (!options.job.bReboot || options.bYes) {
        return true;
    }
    if (isatty(STDIN_FILENO) != 1) {
        throw WrongUse("--reboot needs --yes where nobody can be asked");
    }
    fmt::print(stderr, "Every appliance whose service connects will be rebooted. Go on? [y/N] ");
    std::string strAnswer;
    std::getline(std::cin, strAnswer);
    return strAnswer == "y" || strAnswer == "Y" || strAnswer == "yes";
}

using Sinks = std::vector<std::unique_ptr<CRecordSink>>;
using SinkMaker = std::unique_ptr<CRecordSink> (*)(const ReceiveOptions&, const CClientNames&,
                                                   CProgressBars&);

std::unique_ptr<CRecordSink> MakeLiveOutput(const ReceiveOptions& options,
                                            const CClientNames& names, CProgressBars& bars) {
    return std::make_unique<CLiveOutput>(options.strFormat, options.strLiveTo, names, bars);
}

// Whatever takes received records and files. One more is a row.
constexpr std::array<SinkMaker, 1> kSinkMakers = {MakeLiveOutput};

Sinks MakeSinks(const ReceiveOptions& options, const CClientNames& names, CProgressBars& bars) {
    Sinks sinks;
    for (const SinkMaker pfnMake : kSinkMakers) {
        sinks.push_back(pfnMake(options, names, bars));
    }
    return sinks;
}

// The receiver and the live records that it brought.
class CReceiveRun : private CRecordSink {
public:
    CReceiveRun(asio::io_context& context, const ReceiveOptions& options, const CClientNames& names)
        : m_Options(options),
          m_Context(context),
          m_Sinks(MakeSinks(options, names, m_Bars)),
          m_Server(context, MakeSettings(options), m_Bars, this, [this] { Done(); }) {
        m_Bars.Note(fmt::format("receiver listens on {}:{}", options.strListen, m_Server.Port()));
    }

    // After the context's run: the exit status.
    int Finish() {
        // What others still do once all that was asked for is there is no failure.
        const std::size_t nFailures = m_Server.Total().failures.size();
        m_Server.Stop();
        const ReceptionResult total = m_Server.Total();
        m_Bars.Note(SummaryText(total));
        const bool bAll = ReportShortage();
        return bAll && (m_bDone ? nFailures : total.failures.size()) == 0 ? 0 : 1;
    }

private:
    static CReceiverServer::Settings MakeSettings(const ReceiveOptions& options) {
        CReceiverServer::Settings settings;
        settings.strProgram = kReceiveProgram;
        settings.address = {asio::ip::make_address(options.strListen), options.wPort};
        settings.nSilenceMs = options.nSilence * 1000;
        settings.nSessions = options.bOnce ? options.nSessions : 0;
        settings.limits = options.limits;
        for (const std::string& strNet : options.allowed) {
            settings.limits.allowed.push_back(*ParseAddressNet(strNet));
        }
        settings.job = options.job;
        return settings;
    }

    void OnRecord(const std::string& strAppliance, std::uint64_t nPosition,
                  const LogRecord& record) override {
        if (m_bDone) {
            return;
        }
        Tell([&](CRecordSink& sink) { sink.OnRecord(strAppliance, nPosition, record); });
        if (++m_nRecords == m_Options.nRecords) {
            Done();
        }
    }

    void OnFile(const std::string& strAppliance, const std::string& strPath) override {
        Tell([&](CRecordSink& sink) { sink.OnFile(strAppliance, strPath); });
    }

    // The first sink that fails ends the run.
    template <class TTell>
    void Tell(const TTell& tell) {
        try {
            for (const auto& pSink : m_Sinks) {
                tell(*pSink);
            }
        } catch (const std::exception& error) {
            m_strFailure = error.what();
            m_Context.stop();
        }
    }

    void Done() {
        m_bDone = true;
        m_Context.stop();
    }

    // Tells what did not come by the end. True when there is no such thing.
    bool ReportShortage() {
        if (!m_strFailure.empty()) {
            m_Bars.Note(fmt::format("{}: {}", kReceiveProgram, m_strFailure));
            return false;
        }
        if (!m_bDone && m_nRecords < m_Options.nRecords) {
            m_Bars.Note(fmt::format("{}: {} of {} live records came", kReceiveProgram, m_nRecords,
                                    m_Options.nRecords));
            return false;
        }
        if (!m_bDone && m_Options.bOnce && m_Server.Sessions() < m_Options.nSessions) {
            m_Bars.Note(fmt::format("{}: {} of {} sessions came", kReceiveProgram,
                                    m_Server.Sessions(), m_Options.nSessions));
            return false;
        }
        return true;
    }

    const ReceiveOptions& m_Options;
    asio::io_context& m_Context;
    bool m_bDone = false;
    std::string m_strFailure;
    std::uint64_t m_nRecords = 0;
    CProgressBars m_Bars;
    Sinks m_Sinks;
    CReceiverServer m_Server;
};

int RunReceive(ReceiveOptions& options) {
    const CClientNames names = options.read.Names();
    CompleteJob(options, names);
    if (!ConfirmReboot(options)) {
        SayError(fmt::format("{}: not confirmed, nothing done", kReceiveProgram));
        return 1;
    }
    asio::io_context context(1);
    CReceiveRun run(context, options, names);
    const CStopConditions stop(context, options.dSeconds);
    context.run();
    return run.Finish();
}

void AddLiveOptions(CLI::App& app, ReceiveOptions& options) {
    auto* const pLive = app.add_flag("--live", options.bLive,
                                     "subscribe to live records and print them, until Ctrl-C or "
                                     "the end of the sessions");
    app.add_option("--client", options.read.clients, "only of this client; may be repeated")
        ->type_name("NAME|INDEX")
        ->allow_extra_args(false)
        ->needs(pLive);
    app.add_option("--type", options.read.types,
                   fmt::format("only of this type: {}, or {}; may be repeated", RecordTypeNumbers(),
                               RecordTypeNames()))
        ->type_name("TYPE")
        ->allow_extra_args(false)
        ->needs(pLive);
    app.add_option("--config", options.read.strConfig,
                   "log.conf that names the clients; this machine's without it")
        ->type_name("PATH");
    app.add_option("-o,--output", options.strFormat, RecordFormHelp(EFormUse::kLive))
        ->check(CLI::IsMember(RecordFormNames(EFormUse::kLive)).description(""))
        ->type_name("FORMAT")
        ->capture_default_str()
        ->needs(pLive);
    app.add_option("--live-to", options.strLiveTo, "append live records to a file")
        ->type_name("FILE")
        ->needs(pLive);
    app.add_option("--records", options.nRecords, "end after N live records")
        ->check(WholeNumber(1, UINT64_MAX))
        ->type_name("N")
        ->needs(pLive);
}

void AddOrderOptions(CLI::App& app, ReceiveOptions& options) {
    app.add_option("--set-language", options.strLanguage, "set the display language")
        ->check(CLI::IsMember({"chinese", "english"}).description(""))
        ->type_name("chinese|english");
    auto* const pReboot = app.add_flag("--reboot", options.job.bReboot,
                                       "reboot every appliance once its files are here");
    pReboot->excludes(app.get_option("--live"));
    app.add_flag("--yes", options.bYes, "do not ask before that")->needs(pReboot);
}

void AddEndOptions(CLI::App& app, ReceiveOptions& options) {
    auto* const pOnce = app.add_flag(
        "--once", options.bOnce,
        "end when a session has done what is asked for, or has broken off after its handshake");
    app.add_option("--sessions", options.nSessions, "the same, after N sessions")
        ->check(WholeNumber(1, UINT32_MAX))
        ->type_name("N")
        ->needs(pOnce);
    app.add_option("--silence", options.nSilence,
                   "seconds after which a session is given up from which something is awaited")
        ->check(WholeNumber(1, 3600))
        ->type_name("S")
        ->capture_default_str();
    app.add_option("--seconds", options.dSeconds, "how long to run; until Ctrl-C without it")
        ->check(Seconds())
        ->type_name("S");
}

std::string CheckAddressNet(const std::string& strText) {
    return ParseAddressNet(strText)
               ? std::string()
               : fmt::format("'{}' is no IPv4 address or net, as 192.0.2.7 or 192.0.2.0/24",
                             strText);
}

void AddLimitOptions(CLI::App& app, ReceiveLimits& limits) {
    const std::tuple<const char*, std::size_t&, const char*> counts[] = {
        {"--max-sessions", limits.nSessions, "open sessions, as far as the limit of files allows"},
        {"--max-sessions-each", limits.nSessionsEach, "the same, of one address"},
        {"--max-pending", limits.nPending, "sessions in their handshake"},
        {"--max-pending-each", limits.nPendingEach, "the same, of one address"},
        {"--max-folders-each", limits.nFoldersEach, "new folders a day for one address"},
    };
    for (const auto& [szName, nLimit, szWhat] : counts) {
        app.add_option(szName, nLimit, szWhat)
            ->check(WholeNumber(1, UINT32_MAX))
            ->type_name("N")
            ->capture_default_str();
    }
    const std::tuple<const char*, std::uint64_t&, const char*> sizes[] = {
        {"--max-bytes", limits.nBytes, "bytes of files a day [1TB]"},
        {"--max-bytes-each", limits.nBytesEach, "the same, of one address [100GB]"},
        {"--keep-free", limits.nKeepFree,
         "no file is begun that would leave less on the disk [100MB]"},
    };
    for (const auto& [szName, nLimit, szWhat] : sizes) {
        app.add_option(szName, nLimit, szWhat)
            ->transform(CLI::AsSizeValue(true).description(""))
            ->check(WholeNumber(0, INT64_MAX))
            ->type_name("SIZE");
    }
}

void AddReceiveOptions(CLI::App& app, ReceiveOptions& options) {
    app.add_option("--port", options.wPort, "where services connect to; 0: any free one")
        ->check(PortOrNone())
        ->required()
        ->type_name("PORT");
    app.add_option("--listen", options.strListen, "address of this machine; 0.0.0.0: all")
        ->check(CLI::Validator(CLI::ValidIPV4).description(""))
        ->type_name("ADDRESS")
        ->capture_default_str();
    app.add_option("--allow", options.allowed,
                   "take sessions of these addresses only; may be repeated")
        ->check(CLI::Validator(CheckAddressNet, ""))
        ->type_name("ADDRESS[/BITS]")
        ->allow_extra_args(false);
    AddFileOptions(app, options.job);
    AddLiveOptions(app, options);
    AddOrderOptions(app, options);
    AddEndOptions(app, options);
    AddLimitOptions(app, options.limits);
}

constexpr const char* kReceiveDetails =
    "An agent tells services to connect here: \"tarvik-log agent\" on the appliance, or a real "
    "one.\n\n"
    "The files of an appliance go into a folder of its own in DIR, named after its address,\n"
    "\"-node05\" behind it when its node code is not 0 (here 5), and \"-\" with the 16 bytes that\n"
    "the agent's request carries for the receiver, in hexadecimal digits, when they are not all "
    "0.\n\n"
    "A file that broke off is continued where it stopped: until it is complete it is NAME.part.\n"
    "One of a day that has ended is fetched once. Today's file changes in place until midnight, "
    "so\n"
    "it is fetched anew each time, as it is at that moment, and again when its day has ended. "
    "Which\n"
    "day has ended is told by this machine's clock and time zone: from an appliance whose clock "
    "is\n"
    "behind, get a day's file only when the day has ended there, too.\n\n"
    "Limits keep one peer from taking the places and the disk of all others. Without an option "
    "they "
    "are\n"
    "far above what a thousand appliances behind one address do. When all places are taken, an\n"
    "address with fewer sessions takes one from that which has most. A limit that is reached is "
    "told\n"
    "once a day for each address.\n\n"
    "While a file is sent, the service sends no live records: those of that time do not come.\n\n"
    "The exit status is 0 when all that was asked for came, 1 otherwise, with a line on each\n"
    "failure. What a later session of the same appliance brought is no failure any more.\n\n";

}  // namespace

Command AddReceive(CLI::App& app) {
    CLI::App* const pReceive = app.add_subcommand(
        "receive", "Receives files and live records from any number of services at once.");
    const auto pOptions = std::make_shared<ReceiveOptions>();
    pOptions->job.strInto = "./tarvik-history";
    AddReceiveOptions(*pReceive, *pOptions);
    SetExamples(
        *pReceive,
        {{"tarvik-log receive --port 4711 --seconds 60",
          "the last 5 days of every service that connects within a minute"},
         {"tarvik-log receive --port 4711 --days 30 --into history --once --sessions 12",
          "the last month of twelve appliances"},
         {"tarvik-log receive --port 4711 --live -o json --live-to live.json --seconds 3600",
          "an hour of live records as JSON lines"},
         {"tarvik-log receive --port 4711 --live --client 0 --type warning --type error",
          "shows warnings and errors of a client as they happen, until Ctrl-C"},
         {"tarvik-log receive --port 4711 --set-language english --once",
          "sets the display language of an appliance"},
         {"tarvik-log receive --port 4711 --once --allow 127.0.0.0/8 --max-bytes 1GB",
          "of services of this machine only, and no more than 1 GB a day"}});
    pReceive->footer(kReceiveDetails + pReceive->get_footer());
    return {pReceive, [pOptions] { return RunReceive(*pOptions); }};
}
