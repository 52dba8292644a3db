#include "tools/StopConditions.h"

#include <chrono>
#include <csignal>

CStopConditions::CStopConditions(asio::io_context& context, double dSeconds)
    : m_Signals(context, SIGINT, SIGTERM), m_Timer(context) {
    m_Signals.async_wait([&context](const std::error_code& error, int) {
        if (!error) {
            context.stop();
        }
    });
    if (dSeconds > 0) {
        m_Timer.expires_after(std::chrono::duration_cast<asio::steady_timer::duration>(
            std::chrono::duration<double>(dSeconds)));
        m_Timer.async_wait([&context](const std::error_code& error) {
            if (!error) {
                context.stop();
            }
        });
    }
}
