// Prints what a day's file holds, oldest record first, one line each: time, client, type, text.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>

#include "tools/DayFile.h"
#include "tools/RecordLine.h"

namespace {

void Print(const std::string& strFile, const std::string& strConfig, std::size_t nLast) {
    const CRecordLines lines(strConfig);
    const DayFile day = ReadDayFile(strFile);
    const std::size_t nSkip = day.records.size() > nLast ? day.records.size() - nLast : 0;
    for (std::size_t i = nSkip; i < day.records.size(); ++i) {
        fmt::print("{}\n", lines.Line(day.records[i]));
    }
    fmt::print("{}: {} records, counter {}\n", strFile, day.records.size(), day.header.dwCount);
}

int ParseAndPrint(int nArguments, char** szArguments) {
    std::string strFile;
    std::string strConfig;
    std::size_t nLast = static_cast<std::size_t>(-1);
    CLI::App app{"Prints the records of a day's file."};
    app.add_option("file", strFile, "the day's file")->required();
    app.add_option("--config", strConfig, "log.conf that names the clients");
    app.add_option("--last", nLast, "print only the newest records, this many");
    try {
        app.parse(nArguments, szArguments);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    Print(strFile, strConfig, nLast);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return ParseAndPrint(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tarvik-day: %s\n", error.what());
        return 1;
    }
}
