#include "bench/RateSearch.h"

#include <algorithm>
#include <iterator>

namespace {

constexpr double kFirstRate = 20000;
constexpr double kLowestRate = 100;       // losses at this one are no question of speed
constexpr double kHighestRate = 2000000;  // no sender reaches this one
constexpr double kClose = 1.02;           // ratio of the bounds at which the search ends

// Of a rate asked for, with which a try is good enough.
constexpr double kSenderShare = 0.95;

constexpr int kTries = 5;

// Of tries without loss the one with the highest rate. One that is as fast as asked ends the tries.
RateTry BestOf(const std::function<RateTry(double)>& tryRate, double dRate) {
    RateTry best;
    for (int nTry = 0; nTry < kTries && best.dRate < dRate * kSenderShare; ++nTry) {
        const RateTry now = tryRate(dRate);
        if (now.bKeptAll && now.dRate > best.dRate) {
            best = now;
        }
    }
    return best;
}

}  // namespace

std::vector<double> RatesOf(const std::vector<HighestRate>& rounds) {
    std::vector<double> rates;
    std::transform(rounds.begin(), rounds.end(), std::back_inserter(rates),
                   [](const HighestRate& r) { return r.dRate; });
    return rates;
}

bool SenderWasLimit(const std::vector<HighestRate>& rounds) {
    const auto nLimited = std::count_if(rounds.begin(), rounds.end(),
                                        [](const HighestRate& r) { return r.bSenderWasLimit; });
    return 2 * static_cast<std::size_t>(nLimited) > rounds.size();
}

HighestRate FindHighestRate(const std::function<RateTry(double)>& tryRate) {
    double dReached = 0;  // the highest without loss
    double dGood = 0;     // the highest asked for without loss
    double dBad = 0;      // the lowest asked for with loss; 0: none known
    double dRate = kFirstRate;
    while (dBad == 0 ? dGood < kHighestRate : dGood == 0 || dBad / dGood > kClose) {
        const RateTry best = BestOf(tryRate, dRate);
        if (best.bKeptAll) {
            dGood = dRate;
            dReached = std::max(dReached, best.dRate);
        } else if (dRate < kLowestRate) {
            throw CNoRate();
        } else {
            dBad = dRate;
        }
        dRate = dBad == 0 ? dRate * 2 : (dGood + dBad) / 2;
    }
    return {dReached, dReached < dGood * kSenderShare};
}
