#include "vfstnw_bits.h"

#include <cstring>

#include "ox_logging.h"

namespace {

/* The map bytes that a byte range touches, and the masks of its first and last one. */
struct Span {
  ox_s32 sbyte;
  ox_s32 ebyte;
  ox_u8 sval;
  ox_u8 eval; /* 0 when the range lies in one byte */
};

ox_s32 region_of(ox_u64 byte, ox_s32 rshift) { return static_cast<ox_s32>(byte >> rshift); }

Span span_of(const ox_u8* bitmap, ox_s32 rshift, ox_s64 off, ox_u64 sz) {
  const ox_u64 soff = static_cast<ox_u64>(off);
  const ox_s32 sbit = region_of(soff, rshift);
  const ox_s32 ebit = region_of(soff + sz - 1, rshift);
  const ox_s32 ssbit = sbit & 7;
  const ox_s32 eebit = ebit & 7;
  Span s{sbit >> 3, ebit >> 3, static_cast<ox_u8>(0xFF << ssbit),
         static_cast<ox_u8>(0xFF >> (7 - eebit))};
  if (s.sbyte == s.ebyte) {
    s.sval &= s.eval;
    s.eval = 0;
  }
  OX_LOG_DEBUG(2,
               "sbit 0x%x, ebit 0x%x, sbyte 0x%x, ebyte 0x%x, ssbit 0x%x, eebit 0x%x, sval 0x%x, "
               "eval 0x%x, bitmap[sbyte] = 0x%x, bitmap[ebyte] = 0x%x",
               sbit, ebit, s.sbyte, s.ebyte, ssbit, eebit, s.sval, s.eval, bitmap[s.sbyte],
               bitmap[s.ebyte]);
  return s;
}

/* Every byte equals the one after it: the fastest comparison that the runtime has. */
bool all_ones(const ox_u8* bytes, size_t count) {
  return bytes[0] == 0xFF && memcmp(bytes, bytes + 1, count - 1) == 0;
}

bool is_span_set(const ox_u8* bitmap, const Span& s) {
  if ((bitmap[s.sbyte] & s.sval) != s.sval) {
    return false;
  }
  const ox_s32 between = s.ebyte - s.sbyte - 1;
  return (between <= 0 || all_ones(bitmap + s.sbyte + 1, static_cast<size_t>(between))) &&
         (bitmap[s.ebyte] & s.eval) == s.eval;
}

void change_byte(ox_u8& byte, ox_u8 mask, bool clear) {
  byte = static_cast<ox_u8>(clear ? byte & ~mask : byte | mask);
}

}  // namespace

bool vfstnw_is_region_set(const ox_u8* bitmap, ox_s32 rshift, ox_s64 off, ox_u64 sz) {
  OX_LOG_DEBUG(2, "Checking bits for off:%llu, len:%llu in %p",
               static_cast<unsigned long long>(off), static_cast<unsigned long long>(sz),
               static_cast<const void*>(bitmap));
  const bool set = is_span_set(bitmap, span_of(bitmap, rshift, off, sz));
  OX_LOG_DEBUG(2, "bits %s for off:%llu, len:%llu in %p", set ? "are set" : "not set",
               static_cast<unsigned long long>(off), static_cast<unsigned long long>(sz),
               static_cast<const void*>(bitmap));
  return set;
}

void vfstnw_set_region_bits(ox_u8* bitmap, ox_s32 rshift, ox_s64 off, ox_u64 sz, bool clear) {
  OX_LOG_DEBUG(2, "%s bits for off:%llu, len:%llu in %p", clear ? "Clearing" : "Setting",
               static_cast<unsigned long long>(off), static_cast<unsigned long long>(sz),
               static_cast<void*>(bitmap));
  const Span s = span_of(bitmap, rshift, off, sz);
  change_byte(bitmap[s.sbyte], s.sval, clear);
  if (s.ebyte - s.sbyte > 1) {
    memset(bitmap + s.sbyte + 1, clear ? 0x00 : 0xFF, static_cast<size_t>(s.ebyte - s.sbyte - 1));
  }
  change_byte(bitmap[s.ebyte], s.eval, clear);
  OX_LOG_DEBUG(2, "bitmap[sbyte] = 0x%x, bitmap[ebyte] = 0x%x", bitmap[s.sbyte], bitmap[s.ebyte]);
}
