#include "uuid_text.h"

#include <cstring>

#include "ox_uuid.h"

namespace tarnd {

static_assert(sizeof(cfs_id_t) == OX_UUID_SIZE);

std::string text_of_id(const cfs_id_t& id) {
  char text[OX_UUID_TEXT_SIZE];
  ox_uuid_unparse(id.id, text);
  return text;
}

cfs_id_t new_id() {
  cfs_id_t id;
  ox_uuid_generate(id.id);
  return id;
}

bool IdLess::operator()(const cfs_id_t& a, const cfs_id_t& b) const {
  return std::memcmp(&a, &b, sizeof a) < 0;
}

bool same_id(const cfs_id_t& a, const cfs_id_t& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

}  // namespace tarnd
