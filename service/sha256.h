/*
 * SHA-256 by Windows. Where that fails, which it does only without memory, the digest is one that
 * no text has twice. Not thread-safe.
 */
#ifndef SERVICE_SHA256_H
#define SERVICE_SHA256_H

#include <array>
#include <cstddef>
#include <cstdint>

namespace tarnd {

class Sha256 {
 public:
  using Digest = std::array<uint8_t, 32>;

  Sha256();
  Sha256(const Sha256&) = delete;
  Sha256& operator=(const Sha256&) = delete;
  ~Sha256();

  void add(const char* data, size_t size);
  /* Nothing can be added afterwards. */
  Digest digest();

 private:
  void* hash_ = nullptr;
  bool failed_ = false;
};

}  // namespace tarnd

#endif
