#include "bench/RateSearch.h"

#include <algorithm>
#include <stdexcept>

namespace {

constexpr double kFirstRate = 20000;
constexpr double kLowestRate = 100;    // losses at this one are no question of speed
constexpr double kClose = 1.02;        // ratio of the bounds at which the search ends
constexpr double kSenderShare = 0.95;  // of a rate asked for: below it the sender is the limit
constexpr int kTries = 3;

RateTry BestOf(const std::function<RateTry(double)>& tryRate, double dRate) {
    RateTry best;
    for (int nTry = 0; nTry < kTries && !best.bKeptAll; ++nTry) {
        best = tryRate(dRate);
    }
    return best;
}

}  // namespace

HighestRate FindHighestRate(const std::function<RateTry(double)>& tryRate) {
    double dGood = 0;  // the highest reached without loss
    double dBad = 0;   // the lowest with loss; 0: none known
    double dRate = kFirstRate;
    while (dBad == 0 || dGood == 0 || dBad / dGood > kClose) {
        const RateTry best = BestOf(tryRate, dRate);
        if (!best.bKeptAll && dRate < kLowestRate) {
            throw std::runtime_error("records are lost at any rate");
        }
        if (!best.bKeptAll) {
            dBad = dRate;
        } else if (best.dRate < dRate * kSenderShare) {
            return {std::max(dGood, best.dRate), true};
        } else {
            dGood = dRate;
        }
        if (dBad == 0) {
            dRate *= 2;
        } else {
            dRate = (dGood + dBad) / 2;
        }
    }
    return {dGood, false};
}
