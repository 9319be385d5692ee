/* What a trace says, for people and for programs. */
#ifndef TNWLOG_REPORT_H
#define TNWLOG_REPORT_H

#include <string>
#include <vector>

#include "trace.h"

namespace tnwlog {

struct OperationSummary {
  OperationCode operation;
  uint64_t count = 0;
  uint64_t errors = 0;
  uint64_t unanswered = 0;
  std::vector<int64_t> micros; /* ascending; of those whose response time is known */

  /* The response time that this share of the requests did not exceed; -1 without any. */
  int64_t Percentile(unsigned percent) const;
};

/* Those operations that the log has, in the order of their codes. */
std::vector<OperationSummary> Summarize(const Trace& trace);
/* The slowest requests, the slowest first. */
std::vector<Request> Slowest(const Trace& trace, size_t count);

/* Each ends with a line end. */
std::string TableText(const Trace& trace);
std::string SlowestText(const Trace& trace, size_t count);
std::string RequestText(const Trace& trace, const Request& request);
std::string LinesText(const Trace& trace); /* how many lines, and how many could not be read */

std::string TableJson(const Trace& trace);
std::string SlowestJson(const Trace& trace, size_t count);
std::string RequestJson(const Trace& trace, const Request& request);
std::string MatchingLinesJson(const std::vector<std::string>& lines);

}  // namespace tnwlog

#endif
