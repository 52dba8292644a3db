#include "bench/Bench.h"

#include <fmt/format.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

std::string NextToThisProgram(const std::string& strFile) {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path() / strFile;
}

void StartService(CService& service) {
    if (!service.Start(true)) {
        throw std::runtime_error("the service does not start");
    }
}

void Say(const std::string& strText) {
    static const bool bTerminal = isatty(STDERR_FILENO) == 1;
    if (bTerminal) {
        fmt::print(stderr, "{}\n", strText);
    }
}

void SayRound(const std::string& strWhat, int nRound, int nRounds) {
    Say(fmt::format("{}: round {} of {}", strWhat, nRound, nRounds));
}
