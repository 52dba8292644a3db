// A receiver of history uploads: awaits a session of the service, fetches files from it and prints
// live records. A file that is there in part is continued.
#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "core/ServiceSettings.h"
#include "tools/Receiver.h"
#include "tools/RecordLine.h"
#include "tools/RunTime.h"

namespace fs = std::filesystem;

namespace {

constexpr int kTurnMs = 100;  // how late the end of the run may be noticed

struct Options {
    std::uint16_t wPort = 0;
    std::string strInto = ".";
    std::vector<std::string> files;
    std::vector<std::pair<std::string, std::string>> watched;  // client and type
    std::string strConfig;
    std::uint64_t nLines = 0;  // 0: no limit
    double dSeconds = 0;
};

// How far a file is: a bar that is redrawn on a terminal, elsewhere a line every 25 %.
class CFileProgress {
public:
    CFileProgress(std::string strName, std::uint64_t nSize)
        : m_strName(std::move(strName)), m_nSize(nSize) {}

    void Show(std::uint64_t nDone) {
        const auto nPercent = static_cast<std::size_t>(nDone * 100 / m_nSize);
        if (nPercent < m_nNext) {
            return;
        }
        if (m_bTerminal) {
            fmt::print("\r{} [{:<40}] {:>3}%{}", m_strName, std::string(nPercent * 2 / 5, '#'),
                       nPercent, nPercent == 100 ? "\n" : "");
            std::fflush(stdout);
        } else {
            fmt::print("{}: {}%\n", m_strName, nPercent);
        }
        m_nNext = (nPercent / m_nStep + 1) * m_nStep;
    }

private:
    std::string m_strName;
    std::uint64_t m_nSize;
    bool m_bTerminal = isatty(STDOUT_FILENO) == 1;
    std::size_t m_nStep = m_bTerminal ? 1 : 25;  // per cent
    std::size_t m_nNext = m_nStep;               // per cent at which something is shown
};

const char* RefusalText(std::uint8_t byResult) {
    return byResult == kGetHlogNotFound ? "not found" : "cannot be opened by the service";
}

[[noreturn]] void Fail(const std::string& strWhat) {
    throw std::runtime_error(strWhat);
}

CReceiverSession AwaitSession(CReceiver& receiver, const CRunTime& time) {
    while (!time.IsOver()) {
        if (auto session = receiver.Accept(kTurnMs)) {
            return std::move(*session);
        }
    }
    Fail("no session came");
}

// Appends the file's bytes from nStart to nSize to what is in strPath.
void ReceiveInto(CReceiverSession& session, const std::string& strPath, std::uint64_t nStart,
                 std::uint64_t nSize, const CRunTime& time) {
    std::ofstream file(strPath, std::ios::binary | std::ios::app);
    CFileProgress progress(fs::path(strPath).filename(), nSize);
    std::uint64_t nDone = nStart;
    session.ReceiveFile(nSize - nStart, [&](const std::uint8_t* pBytes, std::size_t nLen) {
        if (!file.write(reinterpret_cast<const char*>(pBytes),
                        static_cast<std::streamsize>(nLen))) {
            Fail(fmt::format("{}: cannot be written", strPath));
        }
        nDone += nLen;
        progress.Show(nDone);
        if (time.IsOver()) {
            Fail(fmt::format("{}: stopped at {} of {} bytes", strPath, nDone, nSize));
        }
    });
    file.close();
    if (!file || nDone < nSize) {
        Fail(fmt::format("{}: {} of {} bytes: {}", strPath, nDone, nSize,
                         file ? PeerEndText(session.End()) : "cannot be written"));
    }
}

// Fetches a file, or what is missing of it. False, with a line on standard error, when the service
// does not have it.
bool Fetch(CReceiverSession& session, const std::string& strName, const Options& options,
           const CRunTime& time) {
    using Clock = std::chrono::steady_clock;
    const auto tStart = Clock::now();
    const std::string strPath = fs::path(options.strInto) / strName;
    const std::uint64_t nStart = fs::exists(strPath) ? fs::file_size(strPath) : 0;
    if (nStart > std::numeric_limits<std::uint32_t>::max()) {
        Fail(fmt::format("{}: too large to be continued", strPath));
    }
    const UploadFileAnswer answer = session.GetFile(strName, static_cast<std::uint32_t>(nStart));
    if (answer.byResult == kGetHlogBeyondEnd) {
        fmt::print("{}: {} bytes, nothing is missing\n", strPath, nStart);
        return true;
    }
    if (answer.byResult != kGetHlogFound) {
        fmt::print(stderr, "tarvik-sample-receiver: {}: {}\n", strName,
                   RefusalText(answer.byResult));
        return false;
    }
    ReceiveInto(session, strPath, nStart, answer.dwSize, time);
    const double dSeconds = std::chrono::duration<double>(Clock::now() - tStart).count();
    fmt::print("{}: {} bytes, {} of them fetched in {:.2f} s ({:.0f} MB/s)\n", strPath,
               answer.dwSize, answer.dwSize - nStart, dSeconds,
               static_cast<double>(answer.dwSize - nStart) / 1e6 / dSeconds);
    return true;
}

// Prints live records until the run is over or all lines asked for are out; true in the latter
// case, or when no number of lines was asked for.
bool Watch(CReceiverSession& session, const Options& options, const CRunTime& time,
           const CRecordLines& lines) {
    std::vector<ClientAndType> wanted;
    for (const auto& [strClient, strType] : options.watched) {
        wanted.emplace_back(ParseInt(strClient), ParseInt(strType));
    }
    session.Subscribe(wanted);
    std::uint64_t nSeen = 0;
    while (!time.IsOver() && (options.nLines == 0 || nSeen < options.nLines)) {
        if (const auto record = session.ReceiveRecord(kTurnMs)) {
            fmt::print("{}\n", lines.Line(*record));
            ++nSeen;
        } else if (session.End() != PeerEnd::kSilence) {
            Fail(fmt::format("after {} records: {}", nSeen, PeerEndText(session.End())));
        }
    }
    if (nSeen < options.nLines) {
        fmt::print(stderr, "tarvik-sample-receiver: {} of {} records came\n", nSeen,
                   options.nLines);
        return false;
    }
    return true;
}

// True when everything asked for arrived.
bool Run(const Options& options) {
    const CRecordLines lines(options.strConfig);
    const CRunTime time(options.dSeconds);
    CReceiver receiver(options.wPort);
    fmt::print("receiver listens on 127.0.0.1:{}\n", receiver.Port());
    CReceiverSession session = AwaitSession(receiver, time);
    const UploadInfo info = session.Handshake();
    fmt::print("session with node {}, language {}\n", info.byNode, info.byLanguage);
    bool bAll = true;
    for (const std::string& strName : options.files) {
        bAll = Fetch(session, strName, options, time) && bAll;
    }
    if (!options.watched.empty()) {
        bAll = Watch(session, options, time, lines) && bAll;
    }
    return bAll;
}

// A CLI check: the name is one plain file name that a request can carry.
std::string CheckName(const std::string& strName) {
    const bool bPlain = !strName.empty() && strName != "." && strName != ".." &&
                        strName.find('/') == std::string::npos &&
                        strName.size() < kGetHlogNameBytes;
    return bPlain ? std::string() : fmt::format("'{}' is no plain file name", strName);
}

int ParseAndRun(int nArguments, char** szArguments) {
    Options options;
    CLI::App app{"Plays a receiver of history uploads of tarvik-logd on 127.0.0.1."};
    app.add_option("--port", options.wPort, "where sessions connect to; 0: any free one")
        ->required();
    app.add_option("--into", options.strInto, "directory for the files, here unless given")
        ->check(CLI::ExistingDirectory);
    auto* const pGet = app.add_option("--get", options.files, "name of a file to fetch")
                           ->check(CheckName)
                           ->type_name("NAME")
                           ->allow_extra_args(false);
    auto* const pWatch =
        app.add_option("--watch", options.watched, "live records to print")
            ->delimiter(':')
            ->check(CLI::Range(0, kMaxClientIndex).application_index(0).description(""))
            ->check(CLI::Range(0, kMaxOrdinaryType).application_index(1).description(""))
            ->type_name("CLIENT:TYPE")
            ->allow_extra_args(false);
    app.add_option("--lines", options.nLines, "how many live records to print")->needs(pWatch);
    app.add_option("--config", options.strConfig, "log.conf that names the clients");
    app.add_option("--seconds", options.dSeconds, "how long to run; no limit unless given")
        ->check(CLI::PositiveNumber);
    try {
        app.parse(nArguments, szArguments);
        if (!*pGet && !*pWatch) {
            throw CLI::RequiredError("--get or --watch");
        }
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    return Run(options) ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // an event is seen when it happens
    try {
        return ParseAndRun(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tarvik-sample-receiver: %s\n", error.what());
        return 1;
    }
}
