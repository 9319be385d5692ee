/* The Range header of a GET. */
#ifndef TNWDAV_BYTE_RANGE_H
#define TNWDAV_BYTE_RANGE_H

#include <cstdint>
#include <string_view>

namespace tnwdav {

struct ByteRange {
  uint64_t offset = 0;
  uint64_t length = 0;
};

enum class RangeAnswer {
  WHOLE,   /* there is no range, or none that has to be understood: all of the file is sent */
  PART,    /* "bytes=2-5", "bytes=2-" or "bytes=-5" */
  NOTHING, /* the range begins behind the end */
};

/* Fills in `range` for WHOLE and PART. Several ranges at once are answered with the whole file. */
RangeAnswer judge_range(std::string_view header, uint64_t size, ByteRange* range);

}  // namespace tnwdav

#endif
