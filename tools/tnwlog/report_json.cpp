#include "report_json.h"

namespace tnwlog {
namespace {

Json milliseconds(int64_t micros) {
  return micros < 0 ? Json() : Json(static_cast<double>(micros) / 1000);
}

Json json_of(OperationCode operation, const OperationSummary& summary) {
  return {{"operation", operations()[operation].name},
          {"count", summary.count},
          {"errors", summary.errors},
          {"no_answer", summary.unanswered},
          {"p50_ms", milliseconds(summary.percentile(50))},
          {"p90_ms", milliseconds(summary.percentile(90))},
          {"p99_ms", milliseconds(summary.percentile(99))},
          {"max_ms", milliseconds(summary.percentile(100))}};
}

/* Times are milliseconds since 1970 on the clock of the log, which tells no time zone. */
Json json_of(const Request& request) {
  return {{"time", request.time},
          {"operation", operations()[request.operation].name},
          {"ms", milliseconds(request.micros)},
          {"error", request.error},
          {"request", request.has_id() ? Json(text_of(request.id)) : Json()},
          {"utxid", request.utxid},
          {"path", request.path}};
}

Json with_lines(const Trace& trace, const char* name, Json values) {
  return {{name, std::move(values)},
          {"lines", trace.lines()},
          {"unreadable_lines", trace.unreadable_lines()}};
}

}  // namespace

std::string dump(const Json& json, int indent) {
  return json.dump(indent, ' ', false, Json::error_handler_t::replace) + '\n';
}

Json json_of(const Report& report, const Trace& trace) {
  Json rows = Json::array();
  for (const auto& [operation, summary] : report.table(trace)) {
    rows.push_back(json_of(operation, summary));
  }
  Json unanswered = Json::array();
  for (const auto& [id, request] : trace.unanswered_requests()) {
    unanswered.push_back({{"time", request.time},
                          {"operation", operations()[request.operation].name},
                          {"request", text_of(id)},
                          {"path", request.path}});
  }
  Json table = with_lines(trace, "operations", std::move(rows));
  table["no_answer"] = std::move(unanswered);
  return table;
}

std::string table_json(const Report& report, const Trace& trace) {
  return dump(json_of(report, trace), 2);
}

std::string slowest_json(const Report& report, const Trace& trace) {
  Json requests = Json::array();
  for (const auto& [micros, request] : report.slowest()) {
    requests.push_back(json_of(request));
  }
  return dump(with_lines(trace, "slowest", std::move(requests)), 2);
}

std::string request_json(const Request& request) { return dump(json_of(request), -1); }

std::string matching_lines_json(const std::vector<std::string>& lines) {
  return dump({{"lines", lines}}, 2);
}

}  // namespace tnwlog
