/* SHA-512 digests, made by Windows. */
#ifndef CFFLPRINT_SHA512_H
#define CFFLPRINT_SHA512_H

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace cfflprint {

class Sha512 {
 public:
  static constexpr size_t SIZE = 64;

  /* All calls throw a std::runtime_error when Windows refuses them. */
  Sha512();
  Sha512(const Sha512&) = delete;
  Sha512& operator=(const Sha512&) = delete;
  ~Sha512();
  void add(std::string_view data);
  /* Gives the digest. Call it once, after the last byte. */
  void finish(uint8_t (&digest)[SIZE]);

 private:
  void* algorithm_ = nullptr;
  void* hash_ = nullptr;
};

}  // namespace cfflprint

#endif
