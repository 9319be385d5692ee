/*
 * Sees whether an open is read from front to back, and how far ahead to fetch. No I/O; guarded by
 * its owner.
 */
#ifndef SERVICE_READ_AHEAD_H
#define SERVICE_READ_AHEAD_H

#include <cstdint>

#include "cloud/cloud.h"

namespace tarnd {

class ReadAhead {
 public:
  /*
   * What to fetch ahead with a request for this range of a file of `size` bytes; empty unless it
   * and the one before began where the answer before ended. The window doubles each time.
   */
  ByteRange next(uint64_t offset, uint64_t length, uint64_t size);
  /* The client has everything up to here. */
  void answered(uint64_t end) { expected_ = end; }

 private:
  uint64_t expected_ = 0;
  unsigned in_a_row_ = 0; /* requests that began where the answer before ended */
  uint64_t window_ = 0;
};

} /* namespace tarnd */

#endif
