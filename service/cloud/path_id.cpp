#include "cloud/path_id.h"

#include <windows.h>

#include <bcrypt.h>

#include <array>
#include <cstring>

namespace tarnd {
namespace {

/* The algorithm provider that needs no opening; MinGW's headers do not have it. */
const BCRYPT_ALG_HANDLE SHA256 = reinterpret_cast<BCRYPT_ALG_HANDLE>(0x41);

}  // namespace

cfs_id_t id_of_path(const std::string& path) {
  std::array<UCHAR, 32> digest = {};
  std::string input = path;
  BCryptHash(SHA256, nullptr, 0, reinterpret_cast<PUCHAR>(input.data()),
             static_cast<ULONG>(input.size()), digest.data(), static_cast<ULONG>(digest.size()));
  cfs_id_t id;
  std::memcpy(id.id, digest.data(), sizeof id.id);
  id.id[7] = static_cast<ox_u8>((id.id[7] & 0x0f) | 0x80);
  id.id[8] = static_cast<ox_u8>((id.id[8] & 0x3f) | 0x80);
  return id;
}

}  // namespace tarnd
