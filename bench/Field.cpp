#include "bench/Field.h"

#include <fmt/format.h>

#include <filesystem>
#include <stdexcept>

#include "bench/Measure.h"
#include "bench/Rest.h"

std::vector<NamedDaemon> FindDaemons(const std::string& strPrefix, CReport& report) {
    const std::string strDirectory =
        strPrefix.empty() ? strPrefix : std::filesystem::absolute(strPrefix).string();
    std::vector<NamedDaemon> found;
    for (const std::string& strName : DaemonNames()) {
        const DaemonProgram program = FindDaemon(strName, strDirectory);
        if (program.Path().empty()) {
            report.AddAbsent(strName, "not installed; `scripts/bench --setup` fetches it");
            continue;
        }
        try {
            CLogDaemon(program).Start();
            found.push_back({strName, program});
        } catch (const std::runtime_error& error) {
            report.AddAbsent(strName, fmt::format("does not start: {}", error.what()));
        }
    }
    return found;
}

CField::CField(const std::string& strService, const std::vector<NamedDaemon>& daemons)
    : m_Service(strService),
      m_Bare(m_Service.Path("/bare.log")),
      m_BareThreads(m_Service.Path("/threads.log"), CBareIntake::Threads::kOneSleepsToo) {
    StartService(m_Service);
    Add(kService, std::make_unique<CRecordContender>(IntakeOf(m_Service)));
    Add(kBare, std::make_unique<CRecordContender>(m_Bare.Get()));
    Add(kBareThreads, std::make_unique<CRecordContender>(m_BareThreads.Get()));
    for (const NamedDaemon& daemon : daemons) {
        m_Daemons.push_back(std::make_unique<CLogDaemon>(daemon.program));
        m_Daemons.back()->Start();
        Add(daemon.strName, MakeContender(*m_Daemons.back()));
    }
    SleepNs(kSettleNs);
}
