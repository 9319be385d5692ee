/*
 * Finds out whether an open is read from front to back, and what to fetch before it is asked for.
 * Arithmetic only: no I/O, no clock. Guarded by its owner.
 *
 * The client asks only for what it was not told to be cached. So a reader in order is told of no
 * more than half of what was fetched ahead: it comes back while the rest is still in front of it,
 * and the next bytes are on their way before it needs them.
 */
#ifndef SERVICE_READ_AHEAD_H
#define SERVICE_READ_AHEAD_H

#include <cstdint>

#include "cloud/cloud.h"

namespace tarnd {

class ReadAhead {
 public:
  static constexpr uint64_t FIRST_WINDOW = uint64_t{16} << 20;
  static constexpr uint64_t LARGEST_WINDOW = uint64_t{32} << 20;

  /*
   * What to fetch ahead with a request for this range of a file of `size` bytes; empty unless it
   * goes on where the answer before ended. The window grows with each such request.
   */
  ByteRange next(ByteRange asked, uint64_t size);
  /* How far the answer may tell of cached bytes behind those that were asked for. */
  uint64_t tell_until() const { return tell_until_; }
  /* The client knows that it has everything up to here, and is expected to ask there next. */
  void told(uint64_t end);

 private:
  bool goes_on(ByteRange asked) const;

  uint64_t told_ = 0;   /* 0: not asked yet */
  uint64_t ahead_ = 0;  /* all before it is there or on its way */
  uint64_t window_ = 0; /* 0: not read in order so far */
  uint64_t tell_until_ = UINT64_MAX;
};

}  // namespace tarnd

#endif
