#include "tools/ReadOptions.h"

#include <fmt/format.h>

#include "core/ServiceFiles.h"
#include "reading/RecordTime.h"
#include "reading/RecordType.h"

void AddReadOptions(CLI::App& app, RecordQuery& query) {
    app.add_option("FILE", query.files,
                   fmt::format("day's files; none: all days in {} and {}", kHistoryDirectory,
                               kLogDirectory))
        ->type_name("");
    app.add_option("--since", query.strSince,
                   fmt::format("records stamped at this time or later: {}", kTimeForms));
    app.add_option("--until", query.strUntil, "records stamped at this time or earlier");
    app.add_option("--client", query.clients, "records of this client, by name or index")
        ->allow_extra_args(false);
    app.add_option("--type", query.types,
                   fmt::format("records of this type: {}, or its number", RecordTypeNames()))
        ->allow_extra_args(false);
    app.add_option("--grep", query.strPattern,
                   "records whose text matches this extended regular expression");
    app.add_flag("-i,--ignore-case", query.bIgnoreCase, "--grep takes no notice of case");
    app.add_option("--config", query.strConfig,
                   fmt::format("log.conf that names the clients; default: {}", kConfigurationFile));
}
