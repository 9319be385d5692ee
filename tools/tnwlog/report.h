/* What the requests of a log add up to, for people and for programs. */
#ifndef TNWLOG_REPORT_H
#define TNWLOG_REPORT_H

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "trace.h"

namespace tnwlog {

/* A row of the table. */
struct OperationSummary {
  uint64_t count = 0;
  uint64_t errors = 0;
  uint64_t unanswered = 0;
  /* How often each response time came up, in microseconds, rounded to tenths of a millisecond: a
   * log of any length has few of them. */
  std::map<int64_t, uint64_t> times;

  /* The response time that this share of the requests did not exceed; -1 without any. */
  int64_t percentile(unsigned percent) const;
};
using Table = std::map<OperationCode, OperationSummary>;

class Report {
 public:
  /* Keeps this number of the slowest requests beside the table. */
  explicit Report(size_t slowest = 0) : most_(slowest) {}

  void add(const Request& request);

  /* The operations that stand in the log, in the order of their codes. */
  Table table(const Trace& trace) const;
  /* Sorted by microseconds; the slowest request comes first. */
  const std::multimap<int64_t, Request, std::greater<>>& slowest() const { return slowest_; }

 private:
  const size_t most_;
  Table table_; /* without the unanswered requests */
  std::multimap<int64_t, Request, std::greater<>> slowest_;
};

/* Each ends with a line end. The trace tells of unanswered requests and of lines. */
std::string table_text(const Report& report, const Trace& trace);
std::string slowest_text(const Report& report, const Trace& trace);
std::string request_text(const Request& request);

std::string table_json(const Report& report, const Trace& trace);
std::string slowest_json(const Report& report, const Trace& trace);
std::string request_json(const Request& request);
std::string matching_lines_json(const std::vector<std::string>& lines);

}  // namespace tnwlog

#endif
