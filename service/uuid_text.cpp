#include "uuid_text.h"

#include <windows.h>
/* after windows.h */
#include <rpc.h>

#include <cstring>

namespace tarnd {

static_assert(sizeof(UUID) == sizeof(cfs_id_t));

std::string text_of_id(const cfs_id_t& id) {
  UUID uuid;
  std::memcpy(&uuid, &id, sizeof uuid);
  RPC_CSTR text = nullptr;
  if (UuidToStringA(&uuid, &text) != RPC_S_OK) {
    return {};
  }
  const std::string result(reinterpret_cast<const char*>(text));
  RpcStringFreeA(&text);
  return result;
}

bool id_of_text(const std::string& text, cfs_id_t* id) {
  std::string copy = text;
  UUID uuid;
  if (copy.size() != 36 ||
      UuidFromStringA(reinterpret_cast<RPC_CSTR>(copy.data()), &uuid) != RPC_S_OK) {
    return false;
  }
  std::memcpy(id, &uuid, sizeof uuid);
  return true;
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
