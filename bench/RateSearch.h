// Search for the highest rate at which nothing is lost.
#pragma once

#include <functional>

struct RateTry {
    double dRate = 0;       // reached by the sender, records per second
    bool bKeptAll = false;  // nothing was lost
};

struct HighestRate {
    double dRate = 0;              // reached without loss
    bool bSenderWasLimit = false;  // the sender could not send faster
};

// Doubles the rate until records are lost, then halves the gap until it is small. A rate counts as
// lossless when one of three tries is: a machine that looks away for a moment says nothing about
// who is measured. tryRate: loads what is measured with so many records per second. Throws
// std::runtime_error when records are lost at any rate.
HighestRate FindHighestRate(const std::function<RateTry(double)>& tryRate);
