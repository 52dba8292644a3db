// All who take records and are compared, running: the service, the bare loops, and the log daemons
// that are there.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "bench/Bench.h"
#include "bench/Contender.h"
#include "bench/Report.h"

struct NamedDaemon {
    std::string strName;
    DaemonProgram program;
};

// The daemons that run here; why the others do not goes into the report.
std::vector<NamedDaemon> FindDaemons(const std::string& strPrefix, CReport& report);

class CField {
public:
    // Starts them all and lets them settle. Throws std::runtime_error when one does not start.
    CField(const std::string& strService, const std::vector<NamedDaemon>& daemons);

    std::size_t Size() const { return m_Contenders.size(); }
    CContender& At(std::size_t i) { return *m_Contenders[i].second; }
    const std::string& Name(std::size_t i) const { return m_Contenders[i].first; }

    // One of the values of everybody's loads.
    template <class TValue>
    std::vector<MeasuredRounds> Rounds(const Turns<Load>& loads, TValue value) const {
        std::vector<MeasuredRounds> rounds;
        for (std::size_t i = 0; i < loads.size(); ++i) {
            rounds.push_back({Name(i), Values(loads[i], value)});
        }
        return rounds;
    }

private:
    void Add(const std::string& strName, std::unique_ptr<CContender> pContender) {
        m_Contenders.emplace_back(strName, std::move(pContender));
    }

    CService m_Service;
    CBareIntake m_Bare;
    CBareIntake m_BareThreads;
    std::vector<std::unique_ptr<CLogDaemon>> m_Daemons;
    std::vector<std::pair<std::string, std::unique_ptr<CContender>>> m_Contenders;
};
