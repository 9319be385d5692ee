#include "report.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>

namespace tnwlog {
namespace {

std::string milliseconds(int64_t micros) {
  return micros < 0 ? "-" : fmt::format("{:.1f}", static_cast<double>(micros) / 1000);
}

/* "14:21:52.589" */
std::string time_text(int64_t time) {
  const std::chrono::milliseconds since{time};
  const std::chrono::hh_mm_ss day(since - std::chrono::floor<std::chrono::days>(since));
  return fmt::format("{:02}:{:02}:{:02}.{:03}", day.hours().count(), day.minutes().count(),
                     day.seconds().count(), day.subseconds().count());
}

std::string_view id_text(const Request& request) {
  return request.has_id() ? text_of(request.id) : "a call as a whole";
}

std::string unanswered_text(const Trace& trace) {
  constexpr size_t SHOWN = 5;
  const auto unanswered = trace.unanswered_requests();
  std::string text;
  for (size_t i = 0; i < std::min(unanswered.size(), SHOWN); i++) {
    const auto& [id, request] = unanswered[i];
    text += fmt::format("No answer: {} {} {}  {}\n", time_text(request.time),
                        operations()[request.operation].name, text_of(id), request.path);
  }
  if (unanswered.size() > SHOWN) {
    text += fmt::format("No answer: {} more\n", unanswered.size() - SHOWN);
  }
  return text;
}

std::string lines_text(const Trace& trace) {
  return fmt::format("{} lines, {} of which could not be read\n", trace.lines(),
                     trace.unreadable_lines());
}

}  // namespace

int64_t OperationSummary::percentile(unsigned percent) const {
  uint64_t all = 0;
  for (const auto& [micros, times_seen] : times) {
    all += times_seen;
  }
  uint64_t rank = (all * percent + 99) / 100;
  for (const auto& [micros, times_seen] : times) {
    if (rank <= times_seen) {
      return micros;
    }
    rank -= times_seen;
  }
  return -1;
}

void Report::add(const Request& request) {
  OperationSummary& summary = table_[request.operation];
  summary.count++;
  summary.errors += request.failed() ? 1 : 0;
  if (request.micros >= 0) {
    summary.times[(request.micros + 50) / 100 * 100]++;
  }
  if (most_ > 0) {
    slowest_.emplace(request.micros, request);
  }
  if (slowest_.size() > most_) {
    slowest_.erase(std::prev(slowest_.end()));
  }
}

Table Report::table(const Trace& trace) const {
  Table table = table_;
  for (const auto& [id, request] : trace.unanswered_requests()) {
    table[request.operation].unanswered++;
  }
  return table;
}

std::string table_text(const Report& report, const Trace& trace) {
  std::string text =
      fmt::format("{:<12} {:>8} {:>7} {:>9} {:>9} {:>9} {:>9} {:>9}\n", "operation", "count",
                  "errors", "no answer", "p50 ms", "p90 ms", "p99 ms", "max ms");
  for (const auto& [operation, summary] : report.table(trace)) {
    text +=
        fmt::format("{:<12} {:>8} {:>7} {:>9} {:>9} {:>9} {:>9} {:>9}\n",
                    operations()[operation].name, summary.count, summary.errors, summary.unanswered,
                    milliseconds(summary.percentile(50)), milliseconds(summary.percentile(90)),
                    milliseconds(summary.percentile(99)), milliseconds(summary.percentile(100)));
  }
  return text + unanswered_text(trace) + lines_text(trace);
}

std::string request_text(const Request& request) {
  return fmt::format("{} {:>10} {:<12} {:>5}  {:<36}  {}\n", time_text(request.time),
                     milliseconds(request.micros), operations()[request.operation].name,
                     request.error, id_text(request), request.path);
}

std::string slowest_text(const Report& report, const Trace& trace) {
  std::string text = fmt::format("{:<12} {:>10} {:<12} {:>5}  {:<36}  {}\n", "answered", "ms",
                                 "operation", "error", "request", "path");
  for (const auto& [micros, request] : report.slowest()) {
    text += request_text(request);
  }
  return text + lines_text(trace);
}

}  // namespace tnwlog
