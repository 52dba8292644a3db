// The frame of every benchmark program: options, progress on a terminal, one JSON object at the
// end.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace CLI {
class App;
}

using Json = nlohmann::ordered_json;

struct BenchOptions {
    std::string strName;         // of the program, as it stands before its messages
    std::string strDescription;  // one sentence
    std::string strService;      // path of tarvik-logd; by default next to the program itself
    int nRounds = 5;             // how often each measurement is repeated
    double dSeconds = 1;         // length of one measurement
    std::function<void(CLI::App&)> addOptions;  // adds those of this program alone
};

// The path of a program in the same directory.
std::string NextToThisProgram(const std::string& strFile);

// Reads the command line into options (whose values are the defaults), runs measure as RunTidily
// does (bench/ReceiveBuffer.h) and prints what it returns. The exit status: 0; 1 with one line on
// standard error when measure throws; 2 with one line there when the program is used wrongly.
int BenchMain(int nArguments, char** szArguments, BenchOptions options,
              const std::function<Json(const BenchOptions&)>& measure);

// Say what is going on, on a standard error that is a terminal.
void Say(const std::string& strText);
void SayRound(const std::string& strWhat, int nRound, int nRounds);

// The values of several who are measured in turns: one result for each of them and each round.
template <class TResult>
using Turns = std::vector<std::vector<TResult>>;

// Calls measure(i) with 0 to nContenders - 1, over and over. Who begins changes with the round, so
// a drift of the machine hits all.
template <class TMeasure>
auto InTurns(const std::string& strWhat, int nRounds, std::size_t nContenders, TMeasure measure) {
    Turns<decltype(measure(nContenders))> results(nContenders);
    for (int nRound = 0; nRound < nRounds; ++nRound) {
        SayRound(strWhat, nRound + 1, nRounds);
        for (std::size_t nTurn = 0; nTurn < nContenders; ++nTurn) {
            const std::size_t nWho = (static_cast<std::size_t>(nRound) + nTurn) % nContenders;
            results[nWho].push_back(measure(nWho));
        }
    }
    return results;
}

// dValue with three decimals: more would be noise.
double Rounded(double dValue);

// The values of one who is measured, round by round.
struct MeasuredRounds {
    std::string strName;
    std::vector<double> values;
};

// The medians of both by their names, and "ratio", "ratio_lowest" and "ratio_highest" of first to
// second, round by round.
Json CompareRounds(const MeasuredRounds& first, const MeasuredRounds& second);
