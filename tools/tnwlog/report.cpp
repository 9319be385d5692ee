#include "report.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>

namespace tnwlog {
namespace {

std::string Milliseconds(int64_t micros) {
  return micros < 0 ? "-" : fmt::format("{:.1f}", static_cast<double>(micros) / 1000);
}

std::string TimeText(int64_t time) {
  const int64_t seconds = time / 1000 % 86400;
  return fmt::format("{:02}:{:02}:{:02}.{:03}", seconds / 3600, seconds / 60 % 60, seconds % 60,
                     time % 1000);
}

std::string_view IdText(const Request& request) {
  return request.has_id() ? TextOf(request.id) : "a call as a whole";
}

std::string UnansweredText(const Trace& trace) {
  constexpr size_t kShown = 5;
  const auto unanswered = trace.UnansweredRequests();
  std::string text;
  for (size_t i = 0; i < std::min(unanswered.size(), kShown); i++) {
    const Unanswered& request = unanswered[i].second;
    text += fmt::format("No answer: {} {} {}  {}\n", TimeText(request.time),
                        Operations()[request.operation].name, TextOf(unanswered[i].first),
                        trace.PathOf(request.path));
  }
  if (unanswered.size() > kShown) {
    text += fmt::format("No answer: {} more\n", unanswered.size() - kShown);
  }
  return text;
}

}  // namespace

int64_t OperationSummary::Percentile(unsigned percent) const {
  return micros.empty() ? -1 : micros[(micros.size() * percent + 99) / 100 - 1];
}

std::vector<OperationSummary> Summarize(const Trace& trace) {
  std::map<OperationCode, OperationSummary> summaries;
  for (const Request& request : trace.Requests()) {
    OperationSummary& summary = summaries[request.operation];
    summary.count++;
    summary.errors += request.failed() ? 1 : 0;
    if (request.micros >= 0) {
      summary.micros.push_back(request.micros);
    }
  }
  for (const auto& [id, request] : trace.UnansweredRequests()) {
    summaries[request.operation].unanswered++;
  }
  std::vector<OperationSummary> all;
  for (auto& [operation, summary] : summaries) {
    summary.operation = operation;
    std::sort(summary.micros.begin(), summary.micros.end());
    all.push_back(std::move(summary));
  }
  return all;
}

std::vector<Request> Slowest(const Trace& trace, size_t count) {
  std::vector<Request> slowest(std::min(count, trace.Requests().size()));
  std::partial_sort_copy(trace.Requests().begin(), trace.Requests().end(), slowest.begin(),
                         slowest.end(),
                         [](const Request& a, const Request& b) { return a.micros > b.micros; });
  return slowest;
}

std::string LinesText(const Trace& trace) {
  return fmt::format("{} lines, {} of which could not be read\n", trace.Lines(),
                     trace.UnreadableLines());
}

std::string TableText(const Trace& trace) {
  std::string text =
      fmt::format("{:<12} {:>8} {:>7} {:>9} {:>9} {:>9} {:>9} {:>9}\n", "operation", "count",
                  "errors", "no answer", "p50 ms", "p90 ms", "p99 ms", "max ms");
  for (const OperationSummary& summary : Summarize(trace)) {
    text += fmt::format("{:<12} {:>8} {:>7} {:>9} {:>9} {:>9} {:>9} {:>9}\n",
                        Operations()[summary.operation].name, summary.count, summary.errors,
                        summary.unanswered, Milliseconds(summary.Percentile(50)),
                        Milliseconds(summary.Percentile(90)), Milliseconds(summary.Percentile(99)),
                        Milliseconds(summary.Percentile(100)));
  }
  return text + UnansweredText(trace) + LinesText(trace);
}

std::string RequestText(const Trace& trace, const Request& request) {
  return fmt::format("{} {:>10} {:<12} {:>5}  {:<36}  {}\n", TimeText(request.time),
                     Milliseconds(request.micros), Operations()[request.operation].name,
                     request.error, IdText(request), trace.PathOf(request.path));
}

std::string SlowestText(const Trace& trace, size_t count) {
  std::string text = fmt::format("{:<12} {:>10} {:<12} {:>5}  {:<36}  {}\n", "answered", "ms",
                                 "operation", "error", "request", "path");
  for (const Request& request : Slowest(trace, count)) {
    text += RequestText(trace, request);
  }
  return text + LinesText(trace);
}

}  // namespace tnwlog
