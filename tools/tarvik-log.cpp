// tarvik-log: one program for the people who read logs, fetch them and test against the service.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "tools/Command.h"

void SetExamples(CLI::App& app, const std::vector<Example>& examples) {
    std::string strText = "Examples:\n";
    for (const Example& example : examples) {
        strText += fmt::format("  {}\n      {}\n", example.strCommand, example.strWhat);
    }
    app.footer(strText);
}

namespace {

constexpr int kFailure = 1;
constexpr int kWrongUse = 2;

// The first line of a message; what else it says is in --help.
std::string FirstLine(const std::string& strText) {
    return strText.substr(0, strText.find('\n'));
}

int ReportWrongUse(const std::string& strName, const std::string& strReason) {
    fmt::print(stderr, "{}: {} (see {} --help)\n", strName, FirstLine(strReason), strName);
    return kWrongUse;
}

std::string NameOf(const CLI::App& app, const CLI::App* pSubcommand) {
    return pSubcommand == nullptr ? app.get_name() : app.get_name() + " " + pSubcommand->get_name();
}

const Command* Parsed(const std::vector<Command>& commands) {
    for (const Command& command : commands) {
        if (command.pApp->parsed()) {
            return &command;
        }
    }
    return nullptr;
}

int Run(const std::string& strName, const Command& command) {
    try {
        return command.fnRun();
    } catch (const WrongUse& error) {
        return ReportWrongUse(strName, error.what());
    } catch (const std::exception& error) {
        fmt::print(stderr, "{}: {}\n", strName, error.what());
        return kFailure;
    }
}

int ParseAndRun(int nArguments, char** szArguments) {
    CLI::App app{"Reads, follows, fetches and tests what tarvik-logd keeps.", "tarvik-log"};
    app.require_subcommand(1);
    app.set_version_flag("--version", TARVIK_VERSION);
    const std::vector<Command> commands = {AddSend(app),  AddShow(app),  AddStats(app),
                                           AddCheck(app), AddAgent(app), AddReceive(app),
                                           AddFetch(app)};
    try {
        app.parse(nArguments, szArguments);
    } catch (const CLI::ParseError& error) {
        const Command* pCommand = Parsed(commands);
        if (error.get_exit_code() == 0) {
            return app.exit(error);
        }
        return ReportWrongUse(NameOf(app, pCommand == nullptr ? nullptr : pCommand->pApp),
                              error.what());
    }
    const Command& command = *Parsed(commands);
    return Run(NameOf(app, command.pApp), command);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return ParseAndRun(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tarvik-log: %s\n", error.what());
        return kFailure;
    }
}
