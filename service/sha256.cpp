#include "sha256.h"

#include <windows.h>
/* after windows.h */
#include <bcrypt.h>

namespace tarnd {
namespace {

/* The algorithm providers that need no opening; MinGW's headers do not have them. */
const BCRYPT_ALG_HANDLE SHA256 = reinterpret_cast<BCRYPT_ALG_HANDLE>(0x41);
const BCRYPT_ALG_HANDLE RANDOM = reinterpret_cast<BCRYPT_ALG_HANDLE>(0x81);

}  // namespace

Sha256::Sha256() { failed_ = BCryptCreateHash(SHA256, &hash_, nullptr, 0, nullptr, 0, 0) != 0; }

Sha256::~Sha256() {
  if (hash_ != nullptr) {
    BCryptDestroyHash(hash_);
  }
}

void Sha256::add(const char* data, size_t size) {
  const auto bytes = reinterpret_cast<PUCHAR>(const_cast<char*>(data));
  failed_ = failed_ || BCryptHashData(hash_, bytes, static_cast<ULONG>(size), 0) != 0;
}

Sha256::Digest Sha256::digest() {
  Digest digest = {};
  const auto size = static_cast<ULONG>(digest.size());
  failed_ = failed_ || BCryptFinishHash(hash_, digest.data(), size, 0) != 0;
  if (failed_) {
    BCryptGenRandom(RANDOM, digest.data(), size, 0);
  }
  return digest;
}

}  // namespace tarnd
