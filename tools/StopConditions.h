// What ends a program that serves until it is told to stop: SIGINT, SIGTERM, or a time.
//
// Threads: everything runs in the thread of the io_context.
#pragma once

#include <asio.hpp>

class CStopConditions {
public:
    // Stops the context's run at the first of them. dSeconds 0: no time.
    CStopConditions(asio::io_context& context, double dSeconds);

private:
    asio::signal_set m_Signals;
    asio::steady_timer m_Timer;
};
