/* What the library logs of each operation. */
#ifndef TNWLOG_OPERATIONS_H
#define TNWLOG_OPERATIONS_H

#include <string_view>
#include <vector>

#include "text_pattern.h"
#include "tnv_proto.h"

namespace tnwlog {

/*
 * An index into operations(): a vfs_op, or behind those a call that the client answers
 * without the service.
 */
using OperationCode = unsigned;

struct Operation {
  std::string_view name;          /* "OPEN" */
  std::string_view event;         /* "TNV_OP_WIN_OPEN" */
  std::string_view request_start; /* "Message: open(clfd "; empty: it has no such line */
  TextPattern request;
  TextPattern event_arguments; /* the rest of an event line behind vfs_errno */
};

const std::vector<Operation>& operations();

inline constexpr OperationCode NO_OPERATION = ~0u;

OperationCode operation_of_event(std::string_view event);
OperationCode operation_of_request(std::string_view text);

}  // namespace tnwlog

#endif
