#include "cloud/path_id.h"

#include <cstring>

#include "sha256.h"

namespace tarnd {

cfs_id_t id_of_path(const std::string& path) {
  Sha256 hash;
  hash.add(path.data(), path.size());
  const Sha256::Digest digest = hash.digest();
  cfs_id_t id;
  std::memcpy(id.id, digest.data(), sizeof id.id);
  id.id[7] = static_cast<ox_u8>((id.id[7] & 0x0f) | 0x80);
  id.id[8] = static_cast<ox_u8>((id.id[8] & 0x3f) | 0x80);
  return id;
}

}  // namespace tarnd
