#include <nlohmann/json.hpp>

#include "report.h"

namespace tnwlog {
namespace {

using Json = nlohmann::ordered_json;

/* What is not UTF-8 in a log is shown by the replacement character. */
std::string Dump(const Json& json, int indent) {
  return json.dump(indent, ' ', false, Json::error_handler_t::replace) + '\n';
}

Json Milliseconds(int64_t micros) {
  return micros < 0 ? Json() : Json(static_cast<double>(micros) / 1000);
}

Json JsonOf(const OperationSummary& summary) {
  return {{"operation", Operations()[summary.operation].name},
          {"count", summary.count},
          {"errors", summary.errors},
          {"no_answer", summary.unanswered},
          {"p50_ms", Milliseconds(summary.Percentile(50))},
          {"p90_ms", Milliseconds(summary.Percentile(90))},
          {"p99_ms", Milliseconds(summary.Percentile(99))},
          {"max_ms", Milliseconds(summary.Percentile(100))}};
}

/* Times are milliseconds since 1970 on the clock of the log, which tells no time zone. */
Json JsonOf(const Trace& trace, const Request& request) {
  return {{"time", request.time},
          {"operation", Operations()[request.operation].name},
          {"ms", Milliseconds(request.micros)},
          {"error", request.error},
          {"request", request.has_id() ? Json(TextOf(request.id)) : Json()},
          {"utxid", request.utxid},
          {"path", trace.PathOf(request.path)}};
}

Json WithLines(const Trace& trace, const char* name, Json values) {
  return {{name, std::move(values)},
          {"lines", trace.Lines()},
          {"unreadable_lines", trace.UnreadableLines()}};
}

}  // namespace

std::string TableJson(const Trace& trace) {
  Json operations = Json::array();
  for (const OperationSummary& summary : Summarize(trace)) {
    operations.push_back(JsonOf(summary));
  }
  Json unanswered = Json::array();
  for (const auto& [id, request] : trace.UnansweredRequests()) {
    unanswered.push_back({{"time", request.time},
                          {"operation", Operations()[request.operation].name},
                          {"request", TextOf(id)},
                          {"path", trace.PathOf(request.path)}});
  }
  Json table = WithLines(trace, "operations", std::move(operations));
  table["no_answer"] = std::move(unanswered);
  return Dump(table, 2);
}

std::string SlowestJson(const Trace& trace, size_t count) {
  Json slowest = Json::array();
  for (const Request& request : Slowest(trace, count)) {
    slowest.push_back(JsonOf(trace, request));
  }
  return Dump(WithLines(trace, "slowest", std::move(slowest)), 2);
}

std::string RequestJson(const Trace& trace, const Request& request) {
  return Dump(JsonOf(trace, request), -1);
}

std::string MatchingLinesJson(const std::vector<std::string>& lines) {
  return Dump({{"lines", lines}}, 2);
}

}  // namespace tnwlog
