/* One line of a log, taken apart. */
#ifndef TNWLOG_LOG_LINE_H
#define TNWLOG_LOG_LINE_H

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

#include "operations.h"

namespace tnwlog {

enum class LineKind {
  EMPTY,
  REQUEST,        /* "Message: open(...)" */
  HEADER,         /* "id ..., opcode ..., len ..., errno ...": an answer has come */
  EVENT,          /* an answered request, or a call that the client answered itself */
  OTHER_TEXT,     /* anything else behind a prefix that is known */
  DUMPED_REQUEST, /* the first row of a dump, when it begins a request */
  DUMP,           /* other bytes of a message */
  UNREADABLE,     /* torn, or of another program */
};

/* A UUID, as text in lower case. */
using RequestId = std::array<char, 36>;
RequestId request_id_of(std::string_view text); /* 36 characters */
inline std::string_view text_of(const RequestId& id) { return {id.data(), id.size()}; }

struct LogLine {
  LineKind kind = LineKind::UNREADABLE;
  OperationCode operation = NO_OPERATION;
  Match prefix;          /* the whole line; its value "text" is what `text` shows */
  std::string_view text; /* the text behind the prefix; in an event, the text behind vfs_errno */
  bool is_cut = false;   /* as long as a line can be */
  RequestId id = {};     /* of a dumped request */
  std::string_view row;  /* operation, length and id of a dumped request, as they were dumped */
};

/* Takes lines apart, in the order in which they were logged. */
class LineParser {
 public:
  /* The line stays the owner of all text. The result is good until the next call. */
  const LogLine& parse(std::string_view line);

 private:
  void parse_client_line(std::string_view line);
  void parse_layer_line(std::string_view line);
  void parse_dump(std::string_view line, bool is_first_row);
  bool parse_event(std::string_view line);
  LineKind kind_of_text();

  LogLine line_;
  Match header_;
  bool is_behind_begin_ = false;
};

/* What an answer's line says, with the values id, opcode and errno. */
const TextPattern& header_pattern();

/* Milliseconds on the log's clock, which has no time zone; -1 when there is no value "time". */
int64_t time_of(const Match& prefix);
std::optional<uint64_t> number_of(const Match& match, std::string_view name);

/* Dumps of messages: a line at the begin, rows of bytes and of characters, a line at the end. */
inline constexpr std::string_view DUMP_BEGIN =
    "00000000000000000000 --- Begin --- 00000000000000000000";
inline constexpr std::string_view DUMP_END =
    "00000000000000000000 --- End --- 00000000000000000000";

}  // namespace tnwlog

#endif
