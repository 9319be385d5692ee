/* What reports as JSON are made of. */
#ifndef TNWLOG_REPORT_JSON_H
#define TNWLOG_REPORT_JSON_H

#include <nlohmann/json.hpp>

#include "report.h"

namespace tnwlog {

using Json = nlohmann::ordered_json;

/* What is not UTF-8 in a log is shown by the replacement character. */
std::string dump(const Json& json, int indent);

/* The table, the requests without an answer, and the number of lines. */
Json json_of(const Report& report, const Trace& trace);

}  // namespace tnwlog

#endif
