// The options of every subcommand that reads day's files, as a command line says a RecordQuery.
#pragma once

#include <CLI/CLI.hpp>

#include "reading/RecordQuery.h"

// Adds them to a subcommand; query must live as long as it.
void AddReadOptions(CLI::App& app, RecordQuery& query);
