// What all benchmarks share: their options, what they say meanwhile, and measuring in turns.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "peers/Service.h"

struct BenchOptions {
    std::string strService;  // path of tarvik-logd
    std::string strStatic;   // of its static build; empty: none
    std::string strDaemons;  // directory that packages of log daemons were unpacked to; empty: none
    std::int64_t nBuffer = 0;  // receive buffer to measure with besides the machine's; 0: none
    int nRounds = 5;           // how often each measurement is repeated
    double dSeconds = 1;       // length of one measurement
};

// The path of a program in the same directory.
std::string NextToThisProgram(const std::string& strFile);

// Starts the service, detached. Throws std::runtime_error when it does not start.
void StartService(CService& service);

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
