/* The requests of a log, put together from its lines. */
#ifndef TNWLOG_TRACE_H
#define TNWLOG_TRACE_H

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "log_line.h"

namespace tnwlog {

/* A request that was answered, or a call that the client answered itself. */
struct Request {
  OperationCode operation;
  uint32_t error; /* as in the log: an errno of the service's */
  int64_t time;   /* when it was answered (TimeOf) */
  int64_t micros; /* the response time; -1 when the log does not tell */
  uint64_t utxid; /* 0: none */
  RequestId id;   /* all zero characters: the client answered */
  uint32_t path;  /* an index for PathOf */
  uint64_t line;  /* the number of the line that tells that it is sent, from 1; 0: none */
  bool has_id() const { return id[0] != '\0'; }
  /* An OPEN that found an existing file says so by this number. */
  bool failed() const { return error != 0 && !(operation == kOpen && error == 183); }
};

/* A request that was sent and has no answer in the log. */
struct Unanswered {
  OperationCode operation;
  int64_t time;
  uint32_t path;
  uint64_t line; /* as in Request */
};

/*
 * Adds up lines, in the order in which they were logged.
 *
 * An event tells all of a request. Without events (a service that gives no transaction ids) the
 * response headers of debug level 3 serve, whose response time is the distance of two lines: a
 * request's line carries no id, but the dump that follows it does. Where several threads send the
 * same operation at the same moment, their request lines may be taken for each other.
 */
class Trace {
 public:
  void Add(std::string_view line);

  const std::vector<Request>& Requests() const { return requests_; }
  /* By id. Empty unless the log shows that answers are logged. */
  std::vector<std::pair<RequestId, Unanswered>> UnansweredRequests() const;
  std::string_view PathOf(uint32_t path) const { return paths_[path]; }

  uint64_t Lines() const { return lines_; }
  uint64_t UnreadableLines() const { return unreadable_lines_; }

 private:
  struct IdHash {
    size_t operator()(const RequestId& id) const {
      return std::hash<std::string_view>()(TextOf(id));
    }
  };

  void AddRequest(const LogLine& line);
  void AddDump(std::string_view row);
  void AddHeader(const LogLine& line);
  void AddEvent(const LogLine& line);
  uint32_t PathOfEvent(const LogLine& line);
  uint32_t PathIndex(std::string_view path);

  uint64_t lines_ = 0;
  uint64_t unreadable_lines_ = 0;
  bool has_headers_ = false;
  LogLine line_;
  Pieces pieces_;
  std::vector<std::deque<Unanswered>> texts_{kServiceOperations}; /* whose dump has not come */
  std::unordered_map<RequestId, Unanswered, IdHash> sent_;
  std::unordered_map<RequestId, size_t, IdHash> from_headers_; /* whose event has not come */
  std::vector<Request> requests_;
  std::vector<std::string> paths_{""};
  std::unordered_map<std::string, uint32_t> path_indexes_{{"", 0}};
  std::unordered_map<std::string, uint32_t> paths_of_files_; /* by the file's id */
};

}  // namespace tnwlog

#endif
