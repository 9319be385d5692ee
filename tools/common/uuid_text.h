/* Identifiers as text. */
#ifndef TOOLS_COMMON_UUID_TEXT_H
#define TOOLS_COMMON_UUID_TEXT_H

#include <string>

#include "ox_uuid.h"

namespace tools {

/* 36 lower-case characters for the 16 bytes of a UUID in the Windows layout. */
inline std::string uuid_text(const ox_u8* id) {
  char text[OX_UUID_TEXT_SIZE];
  ox_uuid_unparse(id, text);
  return text;
}

}  // namespace tools

#endif
