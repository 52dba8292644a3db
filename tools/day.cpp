// Prints what a day's file holds, oldest record first, one line each: time, client, type, text.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>

#include "support/IniFile.h"
#include "tools/DayFile.h"

namespace {

std::string ClientName(CIniFile& config, std::int32_t nIndex) {
    const std::string strName = config.GetValue(std::to_string(nIndex), "APP");
    return strName.empty() ? fmt::format("client {}", nIndex) : strName;
}

// Control characters of a text would act on the reader's terminal.
std::string Printable(std::string strText) {
    for (char& c : strText) {
        if (static_cast<unsigned char>(c) < ' ' || c == 0x7F) {
            c = '.';
        }
    }
    return strText;
}

void Print(const std::string& strFile, const std::string& strConfig, std::size_t nLast) {
    CIniFile config;
    if (!strConfig.empty() && !config.Load(strConfig)) {
        throw std::runtime_error(fmt::format("{}: cannot be read", strConfig));
    }
    const DayFile day = ReadDayFile(strFile);
    const std::size_t nSkip = day.records.size() > nLast ? day.records.size() - nLast : 0;
    for (std::size_t i = nSkip; i < day.records.size(); ++i) {
        const LogRecord& r = day.records[i];
        fmt::print("{:04}-{:02}-{:02} {:02}:{:02}:{:02}  {:<12} {:>2}  {}\n", r.wYear, r.byMonth,
                   r.byDay, r.byHour, r.byMinute, r.bySecond, ClientName(config, r.nIndex), r.nType,
                   Printable(RecordText(r)));
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
