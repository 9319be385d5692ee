/*
 * What the service counts: requests of each operation, and the traffic with the cloud. Any thread
 * may count at any time.
 */
#ifndef SERVICE_COUNTERS_H
#define SERVICE_COUNTERS_H

#include <array>
#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "cloud/cloud_counts.h"
#include "tnv_proto.h"

namespace tarnd {

class Counters {
 public:
  /* TNV_OP_MAX when no operation has the name. */
  static uint32_t operation_of_name(const std::string& name);

  void count_request(uint32_t opcode);

  std::atomic<uint64_t> malformed = 0;
  std::atomic<uint64_t> regions_fetched = 0;
  std::atomic<uint64_t> bytes_fetched = 0;
  std::atomic<uint64_t> files_written_back = 0;
  std::atomic<uint64_t> bytes_written_back = 0;

  /*
   * "name value", one a line: every operation, then "requests" (their sum, the malformed ones
   * included), then the fields above.
   */
  std::string text() const;

 private:
  std::array<std::atomic<uint64_t>, TNV_OP_MAX + 1> requests_ = {}; /* last: unknown codes */
};

/* The same for the cloud: "cloud_put" and so on, then "cloud_calls" (their sum) and the bytes. */
std::string text_of(const CloudCounts& counts);

}  // namespace tarnd

#endif
