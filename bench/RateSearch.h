// Search for the highest rate at which nothing is lost.
#pragma once

#include <functional>
#include <stdexcept>
#include <vector>

struct RateTry {
    double dRate = 0;       // reached by the sender, records per second
    bool bKeptAll = false;  // nothing was lost
};

struct HighestRate {
    double dRate = 0;              // reached without loss
    bool bSenderWasLimit = false;  // more was asked for without loss, and the sender was slower
};

// The rates alone.
std::vector<double> RatesOf(const std::vector<HighestRate>& rounds);

// Whether the sender was the limit in more than half of the rounds: the median says "at least"
// then.
bool SenderWasLimit(const std::vector<HighestRate>& rounds);

// Records are lost at any rate.
class CNoRate : public std::runtime_error {
public:
    CNoRate() : std::runtime_error("records are lost at any rate") {}
};

// Doubles the rate that is asked for until records are lost, or as far as no sender gets, then
// halves the gap until it is small. A sender may be slower than asked at one rate and not at a
// higher one: who is measured and sleeps has to be woken up with each record. Each rate is tried up
// to five times for one that the sender reaches without loss: a machine that looks away for a
// moment says nothing about who is measured. tryRate: loads what is measured with so many records
// per second. Throws CNoRate.
HighestRate FindHighestRate(const std::function<RateTry(double)>& tryRate);
