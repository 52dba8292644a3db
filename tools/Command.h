// The subcommands of tarvik-log. Each lives in a file of its own, adds its options to the program
// and says what is to be run when it was the one that was typed.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

struct Command {
    CLI::App* pApp;              // as added to the program
    std::function<int()> fnRun;  // returns the exit status; WrongUse is 2, what else it throws 1
};

// Checks of an option's value: a number within these bounds, and nothing around it. What is wrong
// is said in one short line.
CLI::Validator WholeNumber(std::uint64_t nLowest, std::uint64_t nHighest);
CLI::Validator DecimalNumber(double dLowest, double dHighest);

// For an option that takes a port, and for one where 0 means something, too.
CLI::Validator Port();
CLI::Validator PortOrNone();

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
