// The subcommands of tarvik-log. Each lives in a file of its own, adds its options to the program
// and says what is to be run when it was the one that was typed.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

// Wrong use that only shows after parsing: one line on standard error, exit status 2.
class WrongUse : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct Command {
    CLI::App* pApp;              // as added to the program
    std::function<int()> fnRun;  // returns the exit status; may throw, which is status 1
};

// Checks of an option's value: a number within these bounds, and nothing around it. What is wrong
// is said in one short line.
CLI::Validator WholeNumber(std::uint64_t nLowest, std::uint64_t nHighest);
CLI::Validator DecimalNumber(double dLowest, double dHighest);

// For an option that says how many seconds something takes: some, and 30 years at most.
CLI::Validator Seconds();

// One for each subcommand; app: the program.
Command AddAgent(CLI::App& app);
Command AddCheck(CLI::App& app);
Command AddFetch(CLI::App& app);
Command AddReceive(CLI::App& app);
Command AddSend(CLI::App& app);
Command AddShow(CLI::App& app);
Command AddStats(CLI::App& app);

// The examples that stand at the end of a subcommand's --help, each a command line as it is typed,
// with a word on what it does.
struct Example {
    std::string strCommand;
    std::string strWhat;
};
void SetExamples(CLI::App& app, const std::vector<Example>& examples);
