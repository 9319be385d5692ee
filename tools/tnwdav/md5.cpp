#include "md5.h"

#include <fmt/format.h>
#include <windows.h>

#include <bcrypt.h>

namespace tnwdav {

std::string md5_text(std::string text) {
  UCHAR hash[16] = {};
  BCRYPT_ALG_HANDLE algorithm = nullptr;
  BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_MD5_ALGORITHM, nullptr, 0);
  BCryptHash(algorithm, nullptr, 0, reinterpret_cast<PUCHAR>(text.data()),
             static_cast<ULONG>(text.size()), hash, sizeof hash);
  BCryptCloseAlgorithmProvider(algorithm, 0);
  std::string hex;
  for (const UCHAR byte : hash) {
    hex += fmt::format("{:02x}", byte);
  }
  return hex;
}

}  // namespace tnwdav
