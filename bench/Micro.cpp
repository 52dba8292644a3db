#include "bench/Micro.h"

#include <benchmark/benchmark.h>
#include <tarvik_log.h>

#include <array>
#include <cstdint>
#include <stdexcept>

#include "bench/PacedSender.h"
#include "core/Buff.h"
#include "core/CircleBuffer.h"
#include "core/MsgQueue.h"
#include "core/ThreadMsg.h"
#include "peers/PeerSocket.h"
#include "peers/Service.h"
#include "support/UniqueFd.h"

namespace {

// A socket that nobody reads: what comes there is dropped by the system.
CUniqueFd BindPort(std::uint16_t wPort) {
    CUniqueFd udp(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = LoopbackAddress(wPort);
    if (bind(udp.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        throw std::runtime_error("no port");
    }
    return udp;
}

// A handle of the client library: without a control port, with one, and with its thread.
class CLog {
public:
    explicit CLog(std::int64_t nKind) {
        const std::uint16_t wControl = nKind > 0 ? FreePort(SOCK_DGRAM) : 0;
        if (tarvik_log_open(&m_pLog, 1, m_wPort, wControl) != 0 ||
            (nKind > 1 && tarvik_log_start_thread(m_pLog) != 0)) {
            throw std::runtime_error("no log");
        }
    }
    ~CLog() { tarvik_log_close(m_pLog); }
    CLog(const CLog&) = delete;
    CLog& operator=(const CLog&) = delete;

    tarvik_log* Get() const { return m_pLog; }

private:
    const std::uint16_t m_wPort = FreePort(SOCK_DGRAM);
    const CUniqueFd m_Service = BindPort(m_wPort);
    tarvik_log* m_pLog = nullptr;
};

void ClientRealTimeOff(benchmark::State& state) {
    const CLog log(state.range(0));
    int nPacket = 0;
    while (state.KeepRunning()) {
        tarvik_log_realtime(log.Get(), "packet %d", ++nPacket);
    }
}

void ClientRecord(benchmark::State& state) {
    const CLog log(state.range(0));
    int nPacket = 0;
    while (state.KeepRunning()) {
        tarvik_log_info(log.Get(), "packet %8d from 192.168.100.101 to 192.168.100.102, ttl %d",
                        ++nPacket, 64);
    }
}

void RingWriteAndSkip(benchmark::State& state) {
    CBuff ring(204800);
    const std::array<std::uint8_t, 85> frame{};
    while (state.KeepRunning()) {
        benchmark::DoNotOptimize(ring.Write(frame.data(), frame.size()));
        ring.Skip(frame.size());
    }
}

void CircleWriteAndRead(benchmark::State& state) {
    CCircleBuffer circle;
    if (circle.Init(102400) == 0) {
        throw std::runtime_error("no memory");
    }
    LogRecord record{};
    while (state.KeepRunning()) {
        circle.Lock();
        benchmark::DoNotOptimize(
            circle.Write(reinterpret_cast<std::uint8_t*>(&record), sizeof(record)));
        benchmark::DoNotOptimize(
            circle.Read(reinterpret_cast<std::uint8_t*>(&record), sizeof(record)));
        circle.Unlock();
    }
}

}  // namespace

int RunMicro(const std::vector<std::string>& arguments) {
    std::vector<std::string> all = {"tarvik-bench"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    std::vector<char*> pointers;
    pointers.reserve(all.size());
    for (std::string& strArgument : all) {
        pointers.push_back(strArgument.data());
    }
    int nCount = static_cast<int>(pointers.size());
    benchmark::RegisterBenchmark("client: real-time call while off", ClientRealTimeOff)
        ->ArgName("control")
        ->DenseRange(0, 2);
    benchmark::RegisterBenchmark("client: record", ClientRecord)
        ->ArgName("control")
        ->DenseRange(0, 2);
    benchmark::RegisterBenchmark("ring: write and skip a frame", RingWriteAndSkip);
    benchmark::RegisterBenchmark("circle buffer: write and read a record", CircleWriteAndRead);
    benchmark::Initialize(&nCount, pointers.data());
    if (benchmark::ReportUnrecognizedArguments(nCount, pointers.data())) {
        return 2;
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
