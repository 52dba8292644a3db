// The options of every subcommand that reads day's files: which files, which records, whose names.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "reading/ClientNames.h"
#include "reading/Complaints.h"
#include "reading/DayDirectory.h"
#include "reading/RecordFilter.h"

struct ReadOptions {
    std::vector<std::string> files;  // none: all days
    std::string strConfig;           // empty: log.conf of this machine, if there is one
    std::vector<std::string> clients;
    std::vector<std::string> types;
    std::optional<std::string> strSince;
    std::optional<std::string> strUntil;
    std::optional<std::string> strPattern;
    bool bIgnoreCase = false;
};

// Adds them to a subcommand; options must live as long as it.
void AddReadOptions(CLI::App& app, ReadOptions& options);

// What the options mean. Throws WrongUse when they make no sense.
CClientNames MakeNames(const ReadOptions& options);
CRecordFilter MakeFilter(const ReadOptions& options, const CClientNames& names);

// The type, and the clients, that a person means. Both throw WrongUse when there are none such.
std::int32_t TypeIn(const std::string& strText);
std::vector<std::int32_t> ClientsIn(const std::string& strText, const CClientNames& names);

// The files given, in that order, or all days.
std::vector<DayEntry> FilesToRead(const ReadOptions& options, CComplaints& complaints);
