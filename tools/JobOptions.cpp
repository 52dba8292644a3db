#include "tools/JobOptions.h"

#include <fmt/format.h>

#include <cstdint>
#include <vector>

#include "reading/Counted.h"
#include "tools/Command.h"

namespace {

constexpr int kMostDays = 366;
constexpr std::uint64_t kDefaultMostBytes = 64'000'000;

std::string CheckFileName(const std::string& strName) {
    return IsPlainFileName(strName) ? std::string()
                                    : fmt::format("'{}' is no plain file name", strName);
}

}  // namespace

void AddFileOptions(CLI::App& app, ReceiveJob& job) {
    job.nMostBytes = kDefaultMostBytes;
    app.add_option("--into", job.strInto, "directory for the files, made when it is missing")
        ->capture_default_str()
        ->type_name("DIR");
    app.add_option("--days", job.nDays,
                   fmt::format("the files of the last N days, today's included, as far as they are "
                               "kept; {} when nothing else is asked for",
                               kDefaultDays))
        ->check(WholeNumber(1, kMostDays))
        ->type_name("N");
    app.add_option("--get", job.files, "a file by its name, as YYYYMMDD.log; may be repeated")
        ->check(CLI::Validator(CheckFileName, ""))
        ->type_name("NAME")
        ->allow_extra_args(false);
    app.add_option("--max-size", job.nMostBytes, "longest file that is taken [64MB]")
        ->transform(CLI::AsSizeValue(true).description(""))
        ->check(WholeNumber(1, UINT32_MAX))
        ->type_name("SIZE");
}

std::string SummaryText(const ReceptionResult& result) {
    std::vector<std::string> parts = {Counted(result.nFiles, "file", "files") +
                                      fmt::format(" ({} bytes)", result.nBytes)};
    if (result.nHere > 0) {
        parts.push_back(fmt::format("{} here already", result.nHere));
    }
    if (result.nNotKept > 0) {
        parts.push_back(Counted(result.nNotKept, "day not kept", "days not kept"));
    }
    if (result.nRecords > 0) {
        parts.push_back(Counted(result.nRecords, "live record", "live records"));
    }
    return fmt::format("{}", fmt::join(parts, ", "));
}
