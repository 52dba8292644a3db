// tarvik-abuse: hostile peers at all ports of the service and its tools (scripts/abuse).
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>
#include <utility>

#include "abuse/Abuse.h"

int main(int argc, char** argv) {
    CLI::App app{"Abuses the service and its tools, and says what they cost meanwhile."};
    AbuseScale scale;
    std::uint64_t nSeed = 1;
    bool bLong = false;
    std::string strOnly;
    app.add_flag("--long", bLong, "all of it: hours");
    app.add_option("--seed", nSeed, "of what is made up")->capture_default_str();
    app.add_option("--only", strOnly, "one of them")
        ->check(CLI::IsMember({"service", "receive", "agent"}));
    CLI11_PARSE(app, argc, argv);
    scale.nDivisor = bLong ? 1 : scale.nDivisor;
    bool bGood = true;
    const std::pair<const char*, bool (*)(const AbuseScale&, std::uint64_t)> parts[] = {
        {"service", AbuseService}, {"receive", AbuseReceive}, {"agent", AbuseAgent}};
    for (const auto& [szPart, pfnPhase] : parts) {
        if (!strOnly.empty() && strOnly != szPart) {
            continue;
        }
        try {
            bGood = pfnPhase(scale, nSeed) && bGood;
        } catch (const std::exception& error) {
            fmt::print(stderr, "tarvik-abuse: {}\n", error.what());
            bGood = false;
        }
    }
    fmt::print("{}\n", bGood ? "all held" : "NOT all held");
    return bGood ? 0 : 1;
}
