#include "sha512.h"

#include <fmt/format.h>
#include <windows.h>

#include <bcrypt.h>

#include <stdexcept>

namespace cfflprint {
namespace {

void Require(NTSTATUS status, const char* call) {
  if (status < 0) {
    throw std::runtime_error(
        fmt::format("no SHA-512 digest: {} gives {:#x}", call, static_cast<uint32_t>(status)));
  }
}

}  // namespace

Sha512::Sha512() {
  Require(BCryptOpenAlgorithmProvider(&algorithm_, BCRYPT_SHA512_ALGORITHM, nullptr, 0),
          "BCryptOpenAlgorithmProvider");
  const NTSTATUS status = BCryptCreateHash(algorithm_, &hash_, nullptr, 0, nullptr, 0, 0);
  if (status < 0) {
    BCryptCloseAlgorithmProvider(algorithm_, 0);
  }
  Require(status, "BCryptCreateHash");
}

Sha512::~Sha512() {
  BCryptDestroyHash(hash_);
  BCryptCloseAlgorithmProvider(algorithm_, 0);
}

void Sha512::Add(std::string_view data) {
  auto* bytes = reinterpret_cast<uint8_t*>(const_cast<char*>(data.data()));
  Require(BCryptHashData(hash_, bytes, static_cast<ULONG>(data.size()), 0), "BCryptHashData");
}

void Sha512::Finish(uint8_t (&digest)[kSize]) {
  Require(BCryptFinishHash(hash_, digest, kSize, 0), "BCryptFinishHash");
}

}  // namespace cfflprint
