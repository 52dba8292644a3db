// tarvik-log send: logs from the command line, as a program of the appliance does.
#include <fmt/format.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include <poll.h>

#include "core/ConfigKeys.h"
#include "reading/Output.h"
#include "reading/RecordQuery.h"
#include "reading/RecordType.h"
#include "reading/ServiceConfig.h"
#include "reading/WrongUse.h"
#include "support/ParseInt.h"
#include "support/UniqueFd.h"
#include "tarvik_log.h"
#include "tools/Command.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kSendProgram = "tarvik-log send";

struct SendOptions {
    std::vector<std::string> words;
    std::string strClient;
    std::string strType = "info";
    std::string strConfig = MachineConfig();
    std::uint16_t wPort = 0;         // 0: of the log.conf
    std::uint16_t wControlPort = 0;  // 0: of the log.conf
    bool bRealTime = false;
    double dRate = 1000;  // records per second; 0: as they come
};

std::int32_t OneClient(const SendOptions& options) {
    CClientNames names;
    const bool bNames = names.Load(options.strConfig);
    const std::vector<std::int32_t> indexes = ClientsIn(options.strClient, names);
    if (indexes.size() > 1) {
        throw WrongUse("client", fmt::format("'{}' is the name of clients {}; give the index",
                                             options.strClient, fmt::join(indexes, ", ")));
    }
    if (indexes.front() < 0) {
        throw WrongUse("client", fmt::format("'{}' is no index", options.strClient));
    }
    static_cast<void>(bNames);  // without names the index still does
    return indexes.front();
}

// Lines of standard input.
class CLines {
public:
    // Reads once; false at the end. Throws std::system_error when it cannot be read.
    bool Read() {
        std::array<char, 65536> bytes;
        const ssize_t nBytes = read(STDIN_FILENO, bytes.data(), bytes.size());
        if (nBytes < 0 && errno != EINTR && errno != EAGAIN) {
            throw std::system_error(errno, std::generic_category(), "standard input");
        }
        m_strHeld.append(bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(nBytes, 0)));
        m_bEnded = nBytes == 0;
        return !m_bEnded;
    }

    // The next line, if it is here. A very long one is handed out in parts.
    std::optional<std::string> Next() {
        const std::size_t nHeld = m_strHeld.size() - m_nNext;
        const std::size_t nLine =
            std::min(m_strHeld.find('\n', m_nNext), m_strHeld.size()) - m_nNext;
        if (nLine == nHeld && (nHeld == 0 || (nHeld <= kMostBytes && !m_bEnded))) {
            m_strHeld.erase(0, m_nNext);
            m_nNext = 0;
            return std::nullopt;
        }
        const std::size_t nBytes = nLine <= kMostBytes ? nLine : PartBytes();
        std::string strLine = m_strHeld.substr(m_nNext, nBytes);
        m_nNext += nBytes;
        m_nNext += nBytes == nLine && nLine < nHeld ? 1 : 0;  // its line end
        return strLine;
    }

private:
    static constexpr std::size_t kMostBytes = 16384;

    // kMostBytes, or a few less so that the next part begins with a character of UTF-8.
    std::size_t PartBytes() const {
        for (std::size_t nBytes = kMostBytes; nBytes > kMostBytes - 4; --nBytes) {
            if ((static_cast<std::uint8_t>(m_strHeld[m_nNext + nBytes]) & 0xC0U) != 0x80U) {
                return nBytes;
            }
        }
        return kMostBytes;
    }

    std::string m_strHeld;
    std::size_t m_nNext = 0;  // where in it the next line begins
    bool m_bEnded = false;
};

// SIGINT and SIGTERM as a descriptor, so that what was lost is said after them, too.
CUniqueFd CatchEnd() {
    sigset_t setEnd;
    sigemptyset(&setEnd);
    sigaddset(&setEnd, SIGINT);
    sigaddset(&setEnd, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &setEnd, nullptr);
    CUniqueFd fd(signalfd(-1, &setEnd, SFD_CLOEXEC));
    if (!fd.IsOpen()) {
        throw std::system_error(errno, std::generic_category(), "signalfd");
    }
    return fd;
}

class CSend {
public:
    explicit CSend(const SendOptions& options)
        : m_nType(options.bRealTime ? static_cast<int>(TARVIK_LOG_REALTIME)
                                    : TypeIn(options.strType)),
          m_nIntervalNs(options.dRate > 0
                            ? static_cast<std::int64_t>(std::min(1e9 / options.dRate, kLongestNs))
                            : 0) {
        CServiceConfig config(options.strConfig);
        const std::int32_t nClient = OneClient(options);
        std::uint16_t wControlPort = 0;
        if (options.bRealTime) {
            wControlPort =
                options.wControlPort != 0
                    ? options.wControlPort
                    : config.Port(std::to_string(nClient), kListenPortKey, "--control-port");
        }
        const std::uint16_t wPort = options.wPort != 0
                                        ? options.wPort
                                        : config.Port(kPortSection, kClientPortKey, "--port");
        Open(nClient, wPort, wControlPort);
    }
    ~CSend() { tarvik_log_close(m_pLog); }
    CSend(const CSend&) = delete;
    CSend& operator=(const CSend&) = delete;

    void SendText(std::string strText) {
        // A record's text ends at a NUL, and the rest would be lost.
        std::replace(strText.begin(), strText.end(), '\0', ' ');
        const int nError = tarvik_log_write(m_pLog, m_nType, strText.data(), strText.size());
        m_nError = nError != 0 ? nError : m_nError;
    }

    // Sends the lines of standard input as they come, until its end or a signal.
    void SendLines() {
        const CUniqueFd end = CatchEnd();
        CLines lines;
        bool bMore = true;
        Clock::time_point tNext = Clock::now();
        while (true) {
            std::optional<std::string> strLine = lines.Next();
            if (!strLine && !bMore) {
                return;
            }
            const What what = strLine ? Await(end.Get(), false, tNext) : Await(end.Get(), true, {});
            if (what == What::kEnd) {
                return;
            }
            if (strLine) {
                const auto nRecords =
                    1 + static_cast<std::int64_t>(strLine->size()) / TARVIK_LOG_TEXT_BYTES;
                SendText(std::move(*strLine));
                const auto took = std::chrono::nanoseconds(m_nIntervalNs * nRecords);
                tNext = std::max(tNext + took, Clock::now() - kCatchUp);
            } else {
                bMore = lines.Read();
            }
        }
    }

    // Says what was lost; the exit status.
    int Finish() {
        // A refusal comes back a moment after its record, if the machine is busy.
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        std::uint64_t nSent = 0;
        std::uint64_t nLost = 0;
        tarvik_log_stats(m_pLog, &nSent, &nLost);
        if (nLost == 0) {
            return 0;
        }
        SayError(fmt::format(
            "{}: {} of {} records lost: {}", kSendProgram, nLost, nSent + nLost,
            m_nError != 0 ? std::strerror(-m_nError)
                          : fmt::format("the service was not there, at UDP port {}", m_wPort)));
        return 1;
    }

private:
    enum class What { kTime, kInput, kEnd };

    static constexpr std::chrono::milliseconds kCatchUp{20};
    static constexpr double kLongestNs = 1e15;  // from record to record: 11 days

    void Open(std::int32_t nClient, std::uint16_t wPort, std::uint16_t wControlPort) {
        m_wPort = wPort;
        const int nError = tarvik_log_open(&m_pLog, nClient, wPort, wControlPort);
        if (nError == -EADDRINUSE) {
            throw std::runtime_error(
                fmt::format("UDP port {} is taken: the client's own program has it, if that runs",
                            wControlPort));
        }
        if (nError != 0) {
            throw std::system_error(-nError, std::generic_category(), "no log");
        }
        tarvik_log_on_realtime(
            m_pLog,
            [](int nValue, void*) {
                SayError(fmt::format("{}: real-time logging {}", kSendProgram,
                                     nValue != 0 ? fmt::format("on, value {}", nValue) : "off"));
            },
            nullptr);
        tarvik_log_on_language(
            m_pLog,
            [](int nValue, void*) {
                SayError(fmt::format("{}: language {}", kSendProgram,
                                     nValue != 0 ? "English" : "Chinese"));
            },
            nullptr);
    }

    // Waits for standard input, if bInput, else for the time; for the end in either case. Lets
    // control frames act meanwhile.
    What Await(int nEnd, bool bInput, Clock::time_point tUntil) {
        std::array<pollfd, 3> waiting = {{{nEnd, POLLIN, 0},
                                          {tarvik_log_fd(m_pLog), POLLIN, 0},
                                          {bInput ? STDIN_FILENO : -1, POLLIN, 0}}};
        while (true) {
            const auto left = std::max(tUntil - Clock::now(), Clock::duration::zero());
            const auto nNs = std::chrono::nanoseconds(left).count();
            const timespec tsLeft{static_cast<std::time_t>(nNs / 1'000'000'000),
                                  static_cast<long>(nNs % 1'000'000'000)};
            ppoll(waiting.data(), waiting.size(), bInput ? nullptr : &tsLeft, nullptr);
            if (waiting[0].revents != 0) {
                return What::kEnd;
            }
            if (waiting[1].revents != 0) {
                tarvik_log_poll(m_pLog);
            }
            if (waiting[2].revents != 0) {
                return What::kInput;
            }
            if (!bInput && Clock::now() >= tUntil) {
                return What::kTime;
            }
        }
    }

    int m_nType;
    std::int64_t m_nIntervalNs;  // from record to record
    tarvik_log* m_pLog = nullptr;
    std::uint16_t m_wPort = 0;
    int m_nError = 0;  // the latest
};

int RunSend(const SendOptions& options) {
    if (options.bRealTime && !options.words.empty()) {
        throw WrongUse("--realtime goes with lines of standard input: no TEXT");
    }
    CSend send(options);
    if (options.words.empty()) {
        send.SendLines();
    } else {
        send.SendText(fmt::format("{}", fmt::join(options.words, " ")));
    }
    return send.Finish();
}

void AddSendOptions(CLI::App& app, SendOptions& options) {
    app.add_option(
           "TEXT", options.words,
           "the text of one record, behind \"--\" if it begins with \"-\"; without it, each "
           "line of standard input is a record")
        ->type_name("");
    app.add_option("--client", options.strClient, "whose records they are")
        ->required()
        ->type_name("NAME|INDEX");
    auto* const pType =
        app.add_option("--type", options.strType,
                       fmt::format("{}, or {}", RecordTypeNumbers(), RecordTypeNames()))
            ->type_name("TYPE")
            ->capture_default_str();
    auto* const pRealTime =
        app.add_flag("--realtime", options.bRealTime,
                     "send lines of standard input as real-time records, while these are on");
    pRealTime->excludes(pType);
    app.add_option("--control-port", options.wControlPort,
                   "where the service switches them; without it, ListenPort of the log.conf")
        ->check(Port())
        ->type_name("PORT")
        ->needs(pRealTime);
    app.add_option(
           "--rate", options.dRate,
           "records per second at most; 0: as they come, and the system drops without a word "
           "what the service cannot take so fast")
        ->check(DecimalNumber(0, 1e6))
        ->type_name("N")
        ->capture_default_str();
    app.add_option("--port", options.wPort,
                   "UDP port of the service; without it, PortFromClient of the log.conf")
        ->check(Port())
        ->type_name("PORT");
    app.add_option("--config", options.strConfig, "log.conf of the service")
        ->capture_default_str()
        ->type_name("PATH");
}

constexpr const char* kSendDetails =
    "A text that is longer than a record takes goes out in several. With --realtime, lines go out\n"
    "while the service has switched real-time logging on, and are dropped while not; what the\n"
    "service tells is said on standard error.\n\n"
    "The exit status is 0, or 1 with a line on standard error when records were lost.\n\n";

}  // namespace

Command AddSend(CLI::App& app) {
    CLI::App* const pSend = app.add_subcommand(
        "send",
        "Sends records to the service of this machine, as a program of the appliance does.");
    const auto pOptions = std::make_shared<SendOptions>();
    AddSendOptions(*pSend, *pOptions);
    SetExamples(*pSend,
                {{"tarvik-log send --client 0 --type warning link to eth0 is slow", "one record"},
                 {"df -h | tarvik-log send --client 0 --type debug", "a record of each line"},
                 {"seq 100 | tarvik-log send --client 0 --rate 20", "for five seconds"},
                 {"seq 100 | tarvik-log send --client 0 --realtime --rate 10",
                  "shown to an engineer who chooses client 0 on the console meanwhile"}});
    pSend->footer(kSendDetails + pSend->get_footer());
    return {pSend, [pOptions] { return RunSend(*pOptions); }};
}
