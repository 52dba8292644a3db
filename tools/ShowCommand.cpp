// tarvik-log show: prints the records of day's files, and follows today's.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <clocale>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>

#include "reading/DayFollower.h"
#include "reading/DayWalk.h"
#include "reading/Output.h"
#include "reading/RecordFormat.h"
#include "reading/WrongUse.h"
#include "tools/Command.h"
#include "tools/ReadOptions.h"

namespace {

constexpr std::uint64_t kAll = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint64_t kTailOfFollow = 10;  // records shown before those that come

struct ShowOptions {
    RecordQuery read;
    bool bFollow = false;
    bool bReverse = false;
    std::optional<std::uint64_t> nLast;
    std::string strOutput = "short";
};

class CShow {
public:
    explicit CShow(const ShowOptions& options)
        : m_Options(options),
          m_Names(options.read.Names()),
          m_Filter(options.read.Filter(m_Names)),
          m_pFormat(MakeRecordFormat(options.strOutput, {m_Names, WantsColour(), ""})) {}

    int Run() {
        const std::vector<DayEntry> files = m_Options.read.FilesToRead(m_Complaints);
        CDayWalk walk(files, m_Complaints);
        m_pFormat->AppendHeader(m_Output.Buffer());
        if (m_Options.bReverse) {
            Reverse(walk);
        } else {
            Forward(walk);
        }
        m_Output.Flush();
        if (m_Options.bFollow) {
            Follow({files, walk.TakeStream(), m_Complaints});
        }
        return m_Complaints.ExitStatus();
    }

private:
    std::uint64_t Last() const {
        const bool bTail = m_Options.bFollow && !m_Options.read.strSince;
        return m_Options.nLast.value_or(bTail ? kTailOfFollow : kAll);
    }

    // Shows the record if it is wanted; whether it was.
    bool Show(const FoundRecord& found) {
        if (!m_Filter.Accepts(found.record)) {
            return false;
        }
        m_pFormat->Append(m_Output.Buffer(), found);
        m_Output.Spill();
        return true;
    }

    void Forward(CDayWalk& walk) {
        CDayWalk::Place from;
        if (Last() != kAll) {
            from = walk.PlaceOfLast(Last(), [this](const FoundRecord& found) {
                return m_Filter.Accepts(found.record);
            });
        }
        walk.Forward(from, [this](const FoundRecord& found) {
            Show(found);
            return true;
        });
    }

    void Reverse(CDayWalk& walk) {
        std::uint64_t nLeft = Last();
        if (nLeft == 0) {
            return;
        }
        walk.Backward([this, &nLeft](const FoundRecord& found) {
            nLeft -= Show(found) ? 1 : 0;
            return nLeft > 0;
        });
    }

    void Follow(CDayFollower follower) {
        do {
            follower.Take([this](const FoundRecord& found) {
                Show(found);
                return true;
            });
            m_Output.Flush();
        } while (follower.Wait());
    }

    const ShowOptions& m_Options;
    CComplaints m_Complaints{"tarvik-log show"};
    CClientNames m_Names;
    CRecordFilter m_Filter;
    std::unique_ptr<CRecordFormat> m_pFormat;
    COutput m_Output;
};

int RunShow(const ShowOptions& options) {
    std::setlocale(LC_CTYPE, "");  // --grep counts in characters
    EndQuietlyWithReader();
    if (options.bFollow && (options.bReverse || !options.read.files.empty())) {
        throw WrongUse("--follow goes with today's file: no FILE, no --reverse");
    }
    return CShow(options).Run();
}

void SetShowExamples(CLI::App& app) {
    SetExamples(
        app, {{"tarvik-log show -n 20", "the newest 20 records"},
              {"tarvik-log show -f --type warning --type error",
               "warnings and errors as they come, until Ctrl-C"},
              {"tarvik-log show --since '10 min ago' --client 0", "what client 0 logged just now"},
              {"tarvik-log show --since yesterday --until today --grep 'link (up|down)' -i",
               "what happened to the links yesterday"},
              {"tarvik-log show --reverse -n 100 -o full", "newest first, with file and slot"},
              {"tarvik-log show --since today -o json",
               "one JSON object a line: time, client, name, type, severity, text"},
              {"tarvik-log show -o syslog", "RFC 5424 lines, as a syslog server takes them"}});
}

}  // namespace

Command AddShow(CLI::App& app) {
    CLI::App* pApp = app.add_subcommand(
        "show", "Prints the records of day's files, oldest first, and follows today's.");
    const auto pOptions = std::make_shared<ShowOptions>();
    pApp->add_flag("-f,--follow", pOptions->bFollow,
                   "the last 10 records (or those of -n, --since), then what comes");
    pApp->add_option("-n,--lines", pOptions->nLast, "only the newest N of the wanted records")
        ->type_name("N")
        ->check(WholeNumber(0, kAll));
    pApp->add_flag("--reverse", pOptions->bReverse, "newest first");
    pApp->add_option("-o,--output", pOptions->strOutput, RecordFormHelp(EFormUse::kShow))
        ->check(CLI::IsMember(RecordFormNames(EFormUse::kShow)))
        ->capture_default_str();
    AddReadOptions(*pApp, pOptions->read);
    SetShowExamples(*pApp);
    return {pApp, [pOptions] { return RunShow(*pOptions); }};
}
