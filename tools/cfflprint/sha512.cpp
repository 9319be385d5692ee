#include "sha512.h"

#include <fmt/format.h>
#include <windows.h>

#include <bcrypt.h>

#include <stdexcept>

namespace cfflprint {
namespace {

void require(NTSTATUS status, const char* call) {
  if (status < 0) {
    throw std::runtime_error(
        fmt::format("no SHA-512 digest: {} gives {:#x}", call, static_cast<uint32_t>(status)));
  }
}

}  // namespace

Sha512::Sha512() {
  require(BCryptOpenAlgorithmProvider(&algorithm_, BCRYPT_SHA512_ALGORITHM, nullptr, 0),
          "BCryptOpenAlgorithmProvider");
  const NTSTATUS status = BCryptCreateHash(algorithm_, &hash_, nullptr, 0, nullptr, 0, 0);
  if (status < 0) {
    BCryptCloseAlgorithmProvider(algorithm_, 0);
  }
  require(status, "BCryptCreateHash");
}

Sha512::~Sha512() {
  BCryptDestroyHash(hash_);
  BCryptCloseAlgorithmProvider(algorithm_, 0);
}

void Sha512::add(std::string_view data) {
  auto* bytes = reinterpret_cast<uint8_t*>(const_cast<char*>(data.data()));
  require(BCryptHashData(hash_, bytes, static_cast<ULONG>(data.size()), 0), "BCryptHashData");
}

void Sha512::finish(uint8_t (&digest)[SIZE]) {
  require(BCryptFinishHash(hash_, digest, SIZE, 0), "BCryptFinishHash");
}

}  // namespace cfflprint
