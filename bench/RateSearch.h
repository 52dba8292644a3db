// Search for the highest rate at which nothing is lost.
#pragma once

#include <functional>
#include <stdexcept>

struct RateTry {
    double dRate = 0;       // reached by the sender, records per second
    bool bKeptAll = false;  // nothing was lost
};

struct HighestRate {
    double dRate = 0;              // reached without loss
    bool bSenderWasLimit = false;  // the sender could not send faster
};

// Records are lost at any rate.
class CNoRate : public std::runtime_error {
public:
    CNoRate() : std::runtime_error("records are lost at any rate") {}
};

// Doubles the rate until records are lost, or as far as no sender gets, then halves the gap until
// it is small or the sender gets no faster. Slow rates can be the harder ones for a sender: it
// wakes up who is measured with each record. Each rate is tried up to three times for one that the
// sender reaches without loss: a machine that looks away for a moment says nothing about who is
// measured. tryRate: loads what is measured with so many records per second. Throws CNoRate.
HighestRate FindHighestRate(const std::function<RateTry(double)>& tryRate);
