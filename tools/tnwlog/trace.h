/* The requests of a log, put together from its lines. */
#ifndef TNWLOG_TRACE_H
#define TNWLOG_TRACE_H

#include <compare>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "log_line.h"

namespace tnwlog {

/* A connection to the service, as the log names it. */
struct Connection {
  std::string handle; /* the client's record of it: an address, with digits only */
  std::string socket; /* a number, which a later connection may have again */

  auto operator<=>(const Connection&) const = default;
};

inline constexpr size_t NO_CONNECTION = ~size_t{0};

/* A request that was answered, or a call that the client answered itself. */
struct Request {
  OperationCode operation;
  uint32_t error;    /* as in the log: an errno of the service's */
  int64_t time;      /* when it was answered (time_of) */
  int64_t micros;    /* the response time; -1 when the log does not tell */
  uint64_t utxid;    /* 0: none */
  RequestId id;      /* only zeros when the client answered by itself */
  std::string path;  /* empty when the log does not tell it */
  size_t connection; /* in Trace::connections(); NO_CONNECTION when the log does not tell it */
  /* The numbers of its lines, from 1; 0: none. */
  uint64_t line;        /* that it is sent */
  uint64_t header_line; /* that an answer has come */
  uint64_t event_line;  /* the event */

  bool has_id() const { return id[0] != '\0'; }
  /* An OPEN that found an existing file says so by this number. */
  bool failed() const { return error != 0 && !(operation == TNV_OP_WIN_OPEN && error == 183); }
};

/* A request that was sent and has no answer in the log. */
struct Unanswered {
  OperationCode operation;
  int64_t time;
  std::string path;
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
  void add(std::string_view line);

  /* Hands out the answered requests, the first one first, and forgets them. */
  std::vector<Request> take_all();
  /* The same for those that were there at the last call: what came since may be half read, since an
   * answer has up to two lines. */
  std::vector<Request> take_settled();

  /* The unanswered requests, by their id. Empty unless the log has answers at all. */
  std::vector<std::pair<RequestId, Unanswered>> unanswered_requests() const;

  /* In the order in which events named them first. */
  const std::vector<Connection>& connections() const { return connections_; }

  uint64_t lines() const { return lines_; }
  uint64_t unreadable_lines() const { return unreadable_lines_; }

 private:
  struct IdHash {
    size_t operator()(const RequestId& id) const {
      return std::hash<std::string_view>()(text_of(id));
    }
  };

  void add_request(const LogLine& line);
  void add_dumped_request(const LogLine& line);
  void add_header(const LogLine& line);
  void add_event(const LogLine& line);
  std::string path_of_event(const LogLine& line);
  size_t connection_of_event(const LogLine& line);
  std::vector<Request> take(size_t count);

  uint64_t lines_ = 0;
  uint64_t unreadable_lines_ = 0;
  bool has_headers_ = false;
  LineParser parser_;
  Match match_;
  std::vector<std::deque<Unanswered>> texts_{TNV_OP_MAX}; /* the dump of these has not come yet */
  std::unordered_map<RequestId, Unanswered, IdHash> sent_;
  std::deque<Request> answered_;
  size_t settled_ = 0; /* of these, the first */
  uint64_t taken_ = 0; /* before these */
  /* Those whose event has not come, by their number from the first one ever. */
  std::unordered_map<RequestId, uint64_t, IdHash> from_headers_;
  std::unordered_map<std::string, std::string> paths_of_files_; /* paths by the id of the file */
  std::vector<Connection> connections_;
  std::map<Connection, size_t> connection_numbers_; /* in connections_ */
};

}  // namespace tnwlog

#endif
