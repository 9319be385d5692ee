/*
 * The calls of the cloud by name, and what the service counts of them: every try of a call, and the
 * bytes of contents. Any thread may count at any time.
 */
#ifndef SERVICE_CLOUD_COUNTS_H
#define SERVICE_CLOUD_COUNTS_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <numeric>

namespace tarnd {

enum class CloudCall { STATUS, LIST, READ, PUT, PATCH, RENAME, REMOVE, MAKE_FOLDER };

inline constexpr std::array<const char*, 8> CLOUD_CALL_NAMES = {
    "status", "list", "read", "put", "patch", "rename", "remove", "make_folder"};
inline constexpr size_t CLOUD_CALLS = CLOUD_CALL_NAMES.size();

struct CloudCounts {
  std::array<std::atomic<uint64_t>, CLOUD_CALLS> calls = {};
  std::atomic<uint64_t> bytes_down = 0;
  std::atomic<uint64_t> bytes_up = 0;

  void count(CloudCall call) { calls[static_cast<size_t>(call)]++; }
  uint64_t of(CloudCall call) const { return calls[static_cast<size_t>(call)]; }
  uint64_t all() const { return std::accumulate(calls.begin(), calls.end(), uint64_t{0}); }
};

}  // namespace tarnd

#endif
