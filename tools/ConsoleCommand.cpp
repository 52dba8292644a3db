// tarvik-log console: the debug console of a service, for people.
#include <fmt/format.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <asio.hpp>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <system_error>

#include "core/ConfigKeys.h"
#include "reading/Output.h"
#include "reading/RecordFilter.h"
#include "reading/TextRepair.h"
#include "reading/WrongUse.h"
#include "tools/Command.h"
#include "transfer/ConsoleDialog.h"

namespace {

using asio::ip::tcp;
using std::chrono::system_clock;

constexpr std::chrono::seconds kRetryPause(1);
constexpr std::chrono::seconds kFarewell(2);  // for the service's word that the relay has ended
constexpr std::chrono::seconds kConnectTime(10);

struct ConsoleOptions {
    std::string strHost;
    std::uint16_t wPort = kDefaultConsolePort;
    std::string strPasswordFile;
    std::optional<std::string> strPattern;
    bool bIgnoreCase = false;
    std::string strRecord;
    double dSeconds = 0;
    CConsoleDialog::Wishes wishes;
};

// Switches the echo of the terminal off for as long as it lives.
class CSilentTerminal {
public:
    CSilentTerminal() {
        m_bTerminal = tcgetattr(STDIN_FILENO, &m_Before) == 0;
        if (m_bTerminal) {
            termios silent = m_Before;
            silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
            tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent);
        }
    }
    ~CSilentTerminal() {
        if (m_bTerminal) {
            tcsetattr(STDIN_FILENO, TCSAFLUSH, &m_Before);
        }
    }
    CSilentTerminal(const CSilentTerminal&) = delete;
    CSilentTerminal& operator=(const CSilentTerminal&) = delete;

private:
    termios m_Before{};
    bool m_bTerminal;
};

// The first line of the file, or of standard input, without echo when that is a terminal.
std::string ReadPassword(const std::string& strFile) {
    std::string strPassword;
    if (!strFile.empty()) {
        std::ifstream file(strFile);
        if (!std::getline(file, strPassword)) {
            throw WrongUse("password-file", fmt::format("'{}' has no line to read", strFile));
        }
    } else {
        const bool bTerminal = isatty(STDIN_FILENO) == 1;
        std::fputs(bTerminal ? "Password: " : "", stderr);
        {
            const CSilentTerminal silent;
            std::getline(std::cin, strPassword);
        }
        std::fputs(bTerminal ? "\n" : "", stderr);
    }
    if (!strPassword.empty() && strPassword.back() == '\r') {
        strPassword.pop_back();
    }
    if (strPassword.empty()) {
        throw WrongUse("no password on standard input; --password-file names a file with it");
    }
    return strPassword;
}

std::string NowText() {
    const system_clock::time_point now = system_clock::now();
    const std::time_t tNow = system_clock::to_time_t(now);
    const auto nMs =
        std::chrono::duration_cast<std::chrono::milliseconds>(now - system_clock::from_time_t(tNow))
            .count();
    std::tm local{};
    localtime_r(&tNow, &local);
    std::array<char, 32> szTime{};
    std::strftime(szTime.data(), szTime.size(), "%Y-%m-%d %H:%M:%S", &local);
    return fmt::format("{}.{:03}", szTime.data(), nMs);
}

// Where the lines of the relay go: standard output, and a file when one is named.
class CConsoleOutput {
public:
    explicit CConsoleOutput(const ConsoleOptions& options) : m_bColour(WantsColour()) {
        if (options.strPattern) {
            const std::string strError =
                m_Filter.SetPattern(*options.strPattern, options.bIgnoreCase);
            if (!strError.empty()) {
                throw WrongUse("grep", fmt::format("'{}': {}", *options.strPattern, strError));
            }
        }
        if (!options.strRecord.empty()) {
            m_pFile.reset(std::fopen(options.strRecord.c_str(), "ae"));
            if (m_pFile == nullptr) {
                throw std::system_error(errno, std::generic_category(), options.strRecord);
            }
        }
    }

    void Write(const RelayLine& line) {
        LogRecord record{};
        line.strText.copy(record.szText, kRecordTextBytes);
        if (!m_Filter.Accepts(record)) {
            return;
        }
        const std::string strTime = NowText();
        const std::string strRest =
            fmt::format("{} [{}] ", Shown(line.strName), Shown(line.strStamp));
        const std::string strText = Shown(line.strText);
        const char* const szDim = m_bColour ? "\x1b[2m" : "";
        const char* const szNormal = m_bColour ? "\x1b[0m" : "";
        fmt::format_to(fmt::appender(m_Output.Buffer()), "{}{}{} {}{}\n", szDim, strTime, szNormal,
                       strRest, strText);
        m_Output.Flush();
        if (m_pFile != nullptr) {
            fmt::print(m_pFile.get(), "{} {}{}\n", strTime, strRest, strText);
            if (std::fflush(m_pFile.get()) != 0) {
                throw std::system_error(errno, std::generic_category(), "--record");
            }
        }
    }

private:
    struct FileCloser {
        void operator()(std::FILE* pFile) const { std::fclose(pFile); }
    };

    CRecordFilter m_Filter;
    COutput m_Output;
    std::unique_ptr<std::FILE, FileCloser> m_pFile;
    bool m_bColour;
};

void PrintClients(const std::vector<ConsoleClient>& clients) {
    for (const ConsoleClient& client : clients) {
        fmt::print("{:>3}  {}\n", client.nIndex, Shown(client.strName));
    }
    if (std::fflush(stdout) != 0) {
        throw std::system_error(errno, std::generic_category(), "standard output");
    }
}

// One connection after the other until the dialog is done, fails for good, or is ended.
class CConsoleRun {
public:
    CConsoleRun(asio::io_context& context, const ConsoleOptions& options)
        : m_Options(options),
          m_Output(options),
          m_Resolver(context),
          m_Socket(context),
          m_Pause(context),
          m_Limit(context),
          m_Signals(context, SIGINT, SIGTERM) {
        m_Signals.async_wait([this](const std::error_code& error, int) {
            if (!error) {
                Leave();
            }
        });
        if (options.dSeconds > 0) {
            After(m_Limit, std::chrono::duration<double>(options.dSeconds), [this] { Leave(); });
        }
        Connect();
    }

    // To be asked when the context has run out of work: 0, or 1 when it failed.
    int ExitStatus() const { return m_nStatus; }

private:
    template <typename Duration, typename Function>
    static void After(asio::steady_timer& timer, Duration duration, Function fn) {
        timer.expires_after(std::chrono::duration_cast<asio::steady_timer::duration>(duration));
        timer.async_wait([fn](const std::error_code& error) {
            if (!error) {
                fn();
            }
        });
    }

    void Connect() {
        m_pDialog.emplace(m_Options.wishes,
                          CConsoleDialog::Events{
                              [this](std::string_view strBytes) { Send(strBytes); },
                              PrintClients,
                              [this](const RelayLine& line) { m_Output.Write(line); },
                          });
        After(m_Pause, kConnectTime, [this] { Close(); });
        m_Resolver.async_resolve(
            m_Options.strHost, std::to_string(m_Options.wPort),
            [this](const std::error_code& error, const tcp::resolver::results_type& hosts) {
                if (error) {
                    Lost(error.message(), true);
                    return;
                }
                asio::async_connect(m_Socket, hosts,
                                    [this](const std::error_code& failed, const tcp::endpoint&) {
                                        OnConnected(failed);
                                    });
            });
    }

    void OnConnected(const std::error_code& error) {
        if (error) {
            Lost(error == asio::error::operation_aborted ? "no answer" : error.message(), true);
            return;
        }
        m_Socket.set_option(asio::socket_base::keep_alive(true));
        Read();
    }

    void Read() {
        m_Socket.async_read_some(
            asio::buffer(m_Bytes),
            [this](const std::error_code& error, std::size_t nBytes) { OnRead(error, nBytes); });
    }

    void OnRead(const std::error_code& error, std::size_t nBytes) {
        m_pDialog->Take({m_Bytes.data(), nBytes});
        if (error) {
            m_pDialog->OnClosed();
        }
        switch (m_pDialog->State()) {
            case CConsoleDialog::EState::kDone:
                End(0);
                return;
            case CConsoleDialog::EState::kFailed:
                Lost(m_pDialog->Reason(), m_pDialog->MayPass());
                return;
            case CConsoleDialog::EState::kRelay:
                OnRelay();
                break;
            default:
                break;
        }
        Read();
    }

    void OnRelay() {
        m_Pause.cancel();
        if (!m_bOnline) {
            SayError(fmt::format("tarvik-log console: {} at {}", m_bEver ? "again" : "connected",
                                 m_Options.strHost));
        }
        m_bOnline = true;
        m_bEver = true;
    }

    // What is short goes out at once or not at all.
    void Send(std::string_view strBytes) {
        std::error_code error;
        asio::write(m_Socket, asio::buffer(strBytes), error);
    }

    // A relay that ran once is taken up again; what did not work at first would not later.
    void Lost(const std::string& strReason, bool bMayPass) {
        const bool bAgain = m_bEver && bMayPass && !m_bLeaving;
        if (!bAgain || m_bOnline) {
            SayError(fmt::format("tarvik-log console: {}: {}{}", m_Options.strHost,
                                 Shown(strReason), bAgain ? "; trying again" : ""));
        }
        m_bOnline = false;
        Close();
        if (!bAgain) {
            End(1);
            return;
        }
        After(m_Pause, kRetryPause, [this] { Connect(); });
    }

    void Leave() {
        const bool bRelay = m_pDialog->State() == CConsoleDialog::EState::kRelay;
        m_bLeaving = true;
        m_pDialog->Leave();
        if (bRelay) {
            After(m_Pause, kFarewell, [this] { End(0); });
        } else {
            End(0);
        }
    }

    void Close() {
        std::error_code ignored;
        m_Socket.close(ignored);
    }

    void End(int nStatus) {
        m_nStatus = nStatus;
        static_cast<asio::io_context&>(m_Socket.get_executor().context()).stop();
    }

    const ConsoleOptions& m_Options;
    CConsoleOutput m_Output;
    tcp::resolver m_Resolver;
    tcp::socket m_Socket;
    asio::steady_timer m_Pause;
    asio::steady_timer m_Limit;
    asio::signal_set m_Signals;
    std::optional<CConsoleDialog> m_pDialog;
    std::array<char, 4096> m_Bytes{};
    bool m_bOnline = false;  // the relay runs
    bool m_bEver = false;    // it ran once
    bool m_bLeaving = false;
    int m_nStatus = 0;
};

int RunConsole(ConsoleOptions& options) {
    EndQuietlyWithReader();
    options.wishes.strPassword = ReadPassword(options.strPasswordFile);
    asio::io_context context(1);
    const CConsoleRun run(context, options);
    context.run();
    return run.ExitStatus();
}

void AddConsoleOptions(CLI::App& app, ConsoleOptions& options) {
    app.add_option("HOST", options.strHost, "machine of the service, by name or address")
        ->required()
        ->type_name("");
    app.add_option("CLIENT", options.wishes.strClient,
                   "whose real-time records are shown, by name or index; none: lists the clients")
        ->type_name("");
    app.add_option("--port", options.wPort, "the service's PortFromViewer")
        ->check(Port())
        ->type_name("PORT")
        ->capture_default_str();
    app.add_option("--password-file", options.strPasswordFile,
                   "file whose first line is the password; without it, standard input")
        ->type_name("PATH");
    app.add_option("--value", options.wishes.wValue,
                   "handed to the client with the order to send; its meaning is the client's")
        ->check(WholeNumber(1, UINT16_MAX))
        ->type_name("N")
        ->capture_default_str();
    app.add_option("--grep", options.strPattern,
                   "records whose text matches this extended regular expression");
    app.add_flag("-i,--ignore-case", options.bIgnoreCase, "--grep takes no notice of case");
    app.add_option("--record", options.strRecord, "append what is shown to this file, too")
        ->type_name("PATH");
    app.add_option("--seconds", options.dSeconds, "how long to run; until Ctrl-C without it")
        ->check(Seconds())
        ->type_name("S");
}

}  // namespace

Command AddConsole(CLI::App& app) {
    CLI::App* const pApp = app.add_subcommand(
        "console", "Shows a client's real-time records as they come, over the debug console.");
    const auto pOptions = std::make_shared<ConsoleOptions>();
    AddConsoleOptions(*pApp, *pOptions);
    SetExamples(*pApp,
                {{"tarvik-log console 127.0.0.1 --password-file password", "lists the clients"},
                 {"tarvik-log console 127.0.0.1 webd --password-file password --record seen.txt",
                  "shows what webd sends until Ctrl-C, and keeps it"},
                 {"tarvik-log console 127.0.0.1 0 --password-file password --grep 'link (up|down)'",
                  "only the records about links"}});
    return {pApp, [pOptions] { return RunConsole(*pOptions); }};
}
