#include "uuid_text.h"

#include <windows.h>
/* after windows.h */
#include <rpc.h>

#include <cstring>

#include "ox_util.h"

namespace tarnd {

static_assert(sizeof(UUID) == sizeof(cfs_id_t));

std::string text_of_id(const cfs_id_t& id) {
  char text[OX_UUID_TEXT_SIZE];
  ox_uuid_unparse(id.id, text);
  return text;
}

bool id_of_text(const std::string& text, cfs_id_t* id) {
  return text.size() == OX_UUID_TEXT_SIZE - 1 && ox_uuid_parse(text.c_str(), id->id) == 0;
}

cfs_id_t new_id() {
  UUID uuid;
  UuidCreate(&uuid);
  cfs_id_t id;
  std::memcpy(&id, &uuid, sizeof id);
  return id;
}

bool IdLess::operator()(const cfs_id_t& a, const cfs_id_t& b) const {
  return std::memcmp(&a, &b, sizeof a) < 0;
}

bool same_id(const cfs_id_t& a, const cfs_id_t& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

}  // namespace tarnd
