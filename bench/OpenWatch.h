// Waits for a program that starts to take what is sent to it.
#pragma once

#include <cstdint>
#include <functional>
#include <thread>

// A probe that asks a UDP port of this machine whether it is bound: a datagram to one that is not
// is refused at once. The byte it sends is no record. Throws std::system_error without a socket.
std::function<bool()> UdpPortProbe(std::uint16_t wPort);

// Probes, on a thread of its own, until the answer is true, for at most ten seconds.
class COpenWatch {
public:
    explicit COpenWatch(std::function<bool()> probe);
    ~COpenWatch();
    COpenWatch(const COpenWatch&) = delete;
    COpenWatch& operator=(const COpenWatch&) = delete;

    // Waits for the answer. When it came, as NowNs(); 0: not within ten seconds.
    std::int64_t OpenedAt();

private:
    void Watch();

    std::function<bool()> m_Probe;
    std::int64_t m_nOpened = 0;
    std::thread m_Thread;
};

// Milliseconds from launch(), which must not wait, until the probe's answer is true. Throws
// std::runtime_error when it never is.
double MsUntilOpen(std::function<bool()> probe, const std::function<void()>& launch);
