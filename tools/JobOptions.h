// What "receive" and "fetch" have in common: the options that say which files are wanted, and the
// words on what came.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "transfer/Reception.h"

constexpr int kDefaultDays = 5;

// Adds --into, --days, --get and --max-size; job lives as long as app.
void AddFileOptions(CLI::App& app, ReceiveJob& job);

// "3 files (9215100 bytes), 1 here already, 2 days not kept, 5 live records": what is not 0.
std::string SummaryText(const ReceptionResult& result);
