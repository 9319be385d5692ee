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
   * What to fetch ahead after a request for this range of a file of `size` bytes; empty when it
   * does not follow the one before. The window doubles with each request that does.
   */
  ByteRange next(uint64_t offset, uint64_t length, uint64_t size);

 private:
  uint64_t expected_ = 0;
  uint64_t window_ = 0;
};

} /* namespace tarnd */

#endif
