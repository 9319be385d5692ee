/* One line of a log, taken apart. */
#ifndef TNWLOG_LOG_LINE_H
#define TNWLOG_LOG_LINE_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "operations.h"

namespace tnwlog {

enum class LineKind {
  kEmpty,
  kRequest,    /* "Message: open(...)" */
  kHeader,     /* "id ..., opcode ..., len ..., errno ...": an answer has come */
  kEvent,      /* an answered request, or a call that the client answered itself */
  kText,       /* anything else behind a prefix that is known */
  kDump,       /* bytes of a message */
  kUnreadable, /* torn, or of another program */
};

struct LogLine {
  LineKind kind = LineKind::kUnreadable;
  OperationCode operation = kNoOperation;
  Pieces pieces;         /* of the line up to its text, or for an event to its vfs_errno */
  std::string_view text; /* behind them; of a client's line without its last quote and brace */
  bool is_cut = false;   /* as long as a line can be */
};

/* The line stays the owner of all text. Reuses the memory of `parsed`. */
void ParseLine(std::string_view line, LogLine* parsed);

/* Milliseconds on the log's clock, which has no time zone; -1 when the pieces have no time. */
int64_t TimeOf(const Pieces& pieces);
std::optional<uint64_t> NumberOf(const Pieces& pieces, std::string_view name);

/* A UUID, as text in lower case. */
using RequestId = std::array<char, 36>;
RequestId RequestIdOf(std::string_view text); /* 36 characters */
inline std::string_view TextOf(const RequestId& id) { return {id.data(), id.size()}; }

/* Dumps of messages: a line at the begin, rows of bytes and of characters, a line at the end. */
inline constexpr std::string_view kDumpBegin =
    "00000000000000000000 --- Begin --- 00000000000000000000";
inline constexpr std::string_view kDumpEnd =
    "00000000000000000000 --- End --- 00000000000000000000";

/* The begin of a request, as the first row of its dump shows it. */
struct DumpedRequest {
  OperationCode operation;
  uint32_t length;
  RequestId id;
};
/* Nothing when the row does not begin a request. */
std::optional<DumpedRequest> DumpedRequestOf(std::string_view row);
/* A row that holds this and nothing else. */
std::string DumpRowOf(const DumpedRequest& request);

}  // namespace tnwlog

#endif
