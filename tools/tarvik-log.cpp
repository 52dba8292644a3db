// tarvik-log: one program for the people who read logs, fetch them and test against the service.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "reading/Output.h"
#include "reading/WrongUse.h"
#include "support/Socket.h"
#include "tools/Command.h"

void SetExamples(CLI::App& app, const std::vector<Example>& examples) {
    std::string strText = "Examples:\n";
    for (const Example& example : examples) {
        strText += fmt::format("  {}\n      {}\n", example.strCommand, example.strWhat);
    }
    app.footer(strText);
}

namespace {

template <typename Number>
CLI::Validator NumberWithin(Number lowest, Number highest) {
    const auto Check = [lowest, highest](const std::string& strText) {
        Number number{};
        const char* const pEnd = strText.data() + strText.size();
        const auto [pRest, error] = std::from_chars(strText.data(), pEnd, number);
        const bool bGood =
            error == std::errc() && pRest == pEnd && number >= lowest && number <= highest;
        return bGood ? std::string()
                     : fmt::format("'{}' is no number from {} to {}", strText, lowest, highest);
    };
    return {Check, ""};
}

}  // namespace

CLI::Validator WholeNumber(std::uint64_t nLowest, std::uint64_t nHighest) {
    return NumberWithin(nLowest, nHighest);
}

CLI::Validator DecimalNumber(double dLowest, double dHighest) {
    return NumberWithin(dLowest, dHighest);
}

CLI::Validator Port() {
    return WholeNumber(1, kHighestPort);
}

CLI::Validator PortOrNone() {
    return WholeNumber(0, kHighestPort);
}

CLI::Validator Seconds() {
    return DecimalNumber(0.001, 1e9);
}

namespace {

constexpr int kFailure = 1;
constexpr int kWrongUse = 2;

// The first line of a message; what else it says is in --help.
std::string FirstLine(const std::string& strText) {
    return strText.substr(0, strText.find('\n'));
}

int ReportWrongUse(const std::string& strName, const std::string& strReason) {
    SayError(fmt::format("{}: {} (see {} --help)", strName, FirstLine(strReason), strName));
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

// What was typed where a subcommand belongs.
std::string WhyNotParsed(const CLI::App& app, const CLI::ParseError& error) {
    const std::vector<std::string> rest = app.remaining();
    return app.get_subcommands().empty() && !rest.empty()
               ? fmt::format("'{}' is no subcommand", rest.front())
               : error.what();
}

// A word in front of --help that is no subcommand is wrong use, too.
bool WantsHelpForNothing(const CLI::App& app, const Command* pCommand) {
    return pCommand == nullptr && !app.remaining().empty() && app["--help"]->count() > 0;
}

// Help or the version.
int ShowAndExit(const CLI::App& app, const CLI::ParseError& error) {
    app.exit(error);
    if (!std::cout.flush()) {
        SayError(fmt::format("{}: standard output: cannot be written", app.get_name()));
        return kFailure;
    }
    return 0;
}

int Run(const std::string& strName, const Command& command) {
    try {
        return command.fnRun();
    } catch (const WrongUse& error) {
        return ReportWrongUse(strName, error.what());
    } catch (const std::exception& error) {
        SayError(fmt::format("{}: {}", strName, error.what()));
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
        if (error.get_exit_code() == 0 && !WantsHelpForNothing(app, pCommand)) {
            return ShowAndExit(app, error);
        }
        return ReportWrongUse(NameOf(app, pCommand == nullptr ? nullptr : pCommand->pApp),
                              WhyNotParsed(app, error));
    }
    const Command& command = *Parsed(commands);
    return Run(NameOf(app, command.pApp), command);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        HoldStandardDescriptors();
        return ParseAndRun(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tarvik-log: %s\n", error.what());
        return kFailure;
    }
}
