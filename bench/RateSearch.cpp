#include "bench/RateSearch.h"

#include <algorithm>

namespace {

constexpr double kFirstRate = 20000;
constexpr double kLowestRate = 100;       // losses at this one are no question of speed
constexpr double kHighestRate = 2000000;  // no sender reaches this one
constexpr double kClose = 1.02;           // ratio of the bounds at which the search ends

// Of a rate asked for, with which a try is good enough.
constexpr double kSenderShare = 0.95;

constexpr int kTries = 3;

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

HighestRate FindHighestRate(const std::function<RateTry(double)>& tryRate) {
    double dGood = 0;  // the highest reached without loss
    double dBad = 0;   // the lowest asked for with loss; 0: none known
    double dRate = kFirstRate;
    while (dBad == 0 || dGood == 0 || dBad / dGood > kClose) {
        const RateTry best = BestOf(tryRate, dRate);
        if (!best.bKeptAll && dRate < kLowestRate) {
            throw CNoRate();
        }
        if (!best.bKeptAll) {
            dBad = dRate;
        } else if (dBad == 0 ? dRate > kHighestRate : best.dRate <= dGood) {
            return {std::max(dGood, best.dRate), true};
        } else {
            dGood = std::max(dGood, best.dRate);
        }
        dRate = dBad == 0 ? dRate * 2 : (dGood + dBad) / 2;
    }
    return {dGood, false};
}
