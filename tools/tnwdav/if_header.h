/* The If header of WebDAV: conditions on lock tokens and entity tags. */
#ifndef TNWDAV_IF_HEADER_H
#define TNWDAV_IF_HEADER_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tnwdav {

struct IfCondition {
  bool negated = false;
  bool tag = false;  /* an entity tag, and not a lock's token */
  std::string value; /* the tag with its quotes, the token without brackets */
};

/* All conditions of a list must hold, on the resource that its tag names or else the request's. */
struct IfList {
  std::string resource; /* an address; empty: the request's */
  std::vector<IfCondition> conditions;
};

/* Nothing when the header cannot be read. */
std::optional<std::vector<IfList>> parse_if_header(std::string_view header);

/* The tokens that the request submits, whatever the conditions say. */
std::vector<std::string> submitted_tokens(const std::vector<IfList>& lists);

}  // namespace tnwdav

#endif
