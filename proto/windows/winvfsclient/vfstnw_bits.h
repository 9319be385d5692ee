/*
 * Bit-range test and set on a region bitmap: region r is bit r mod 8, least significant first, of
 * byte r / 8; the byte range [off, off + sz) touches the regions of 2^rshift bytes that it
 * overlaps.
 *
 * Exact and unguarded: the range must not be empty, must lie within the map, and its region numbers
 * must fit in 31 bits. The caller holds the map's lock (shared to test, exclusive to change).
 */
#ifndef VFSTNW_BITS_H
#define VFSTNW_BITS_H

#include "ox_types.h"

OX_BEGIN_DECLS

bool vfstnw_is_region_set(const ox_u8* bitmap, ox_s32 rshift, ox_s64 off, ox_u64 sz);
void vfstnw_set_region_bits(ox_u8* bitmap, ox_s32 rshift, ox_s64 off, ox_u64 sz, bool clear);

OX_END_DECLS

#endif
