// What log.conf has to say (docs/configuration.md): sections and keys as the service reads them,
// and what becomes of it without those that it needs. Constants only.
//
// Threads: any.
#pragma once

#include <array>
#include <cstdint>

constexpr int kStatusNoConfiguration = 50;  // exit status: log.conf cannot be read
constexpr int kStatusNoTimeoutSet = 53;     // it has no TimeoutSet

// Ports and what concerns all clients.
constexpr const char* kPortSection = "PORT_CONFIG";
constexpr const char* kViewerPortKey = "PortFromViewer";  // TCP, the console
constexpr const char* kClientPortKey = "PortFromClient";  // UDP, log records
constexpr const char* kAgentPortKey = "nSTPort";          // TCP, the management agent
constexpr const char* kTimeoutKey = "TimeoutSet";         // seconds, of the console
constexpr const char* kPidCountKey = "PidCount";          // client sections are 0 to this - 1

// Of a client, whose section is its number.
constexpr const char* kListenPortKey = "ListenPort";  // UDP, control frames
constexpr const char* kAppNameKey = "APP";

// The display language.
constexpr const char* kLocalSection = "local";
constexpr const char* kLanguageKey = "LANGUAGE";

// The console's port where the configured one is not above 0.
constexpr std::int32_t kDefaultConsolePort = 1981;

// A key of kPortSection without which the service does not start.
struct RequiredKey {
    const char* szKey;
    int nStatus;           // exit status without it
    const char* szTrace;   // and what is traced then
    const char* szSample;  // a value, as in docs/log.conf
};

// In the order in which the service reads them.
inline constexpr std::array<RequiredKey, 5> kRequiredKeys = {{
    {kViewerPortKey, 52, "mainservice failed to load PortFromViewer  from file log.conf\n", "1981"},
    {kClientPortKey, 55, "mainservice failed to load PortFromClient  from file log.conf\n", "1982"},
    {kAgentPortKey, 56, "mainservice failed to load nSTPort  from file log.conf.\n", "1983"},
    {kTimeoutKey, kStatusNoTimeoutSet,
     "mainservice failed to load TimeoutSet from file log.conf.\n", "120"},
    {kPidCountKey, 60, "mainservice failed to load PidCount from file log.conf\n", "0"},
}};
