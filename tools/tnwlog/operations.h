/* What the library logs of each operation. */
#ifndef TNWLOG_OPERATIONS_H
#define TNWLOG_OPERATIONS_H

#include <string_view>
#include <vector>

#include "text_pattern.h"

namespace tnwlog {

/*
 * An index into Operations(): an operation's code, or behind those a call that the client answers
 * without the service.
 */
using OperationCode = unsigned;

struct Operation {
  std::string_view name;          /* "OPEN" */
  std::string_view event;         /* "TNV_OP_WIN_OPEN" */
  std::string_view request_start; /* "Message: open("; empty: leaves no such line */
  TextPattern request;
  TextPattern event_arguments; /* all of an event line behind its vfs_errno */
};

const std::vector<Operation>& Operations();

inline constexpr OperationCode kOpen = 2;
inline constexpr OperationCode kServiceOperations = 18;
inline constexpr OperationCode kNoOperation = ~0u;

OperationCode OperationOfEvent(std::string_view event);
OperationCode OperationOfRequest(std::string_view text);

/* The texts of all other lines. */
const std::vector<TextPattern>& OtherTexts();

}  // namespace tnwlog

#endif
