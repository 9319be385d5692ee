/**
 * @file
 * @ingroup internals
 * Tests and changes the bits of a byte range in a region map. A region has 2^rshift bytes. Region r
 * is bit r mod 8 of byte r / 8; bit 0 is the least significant one. The byte range [off, off + sz)
 * stands for all regions that it overlaps.
 *
 * Nothing is checked here: the range must not be empty, must lie within the map, and the numbers of
 * its regions must fit into 31 bits. An empty range at offset 0 changes the byte in front of the
 * map. The caller holds the lock of the map, shared for a test and exclusively for a change.
 */
#ifndef VFSTNW_BITS_H
#define VFSTNW_BITS_H

#include "ox_types.h"

OX_BEGIN_DECLS

/** Whether all regions of the range are set. */
bool vfstnw_is_region_set(const ox_u8* bitmap, ox_s32 rshift, ox_s64 off, ox_u64 sz);
/** Sets the bits of all regions of the range, or clears them. */
void vfstnw_set_region_bits(ox_u8* bitmap, ox_s32 rshift, ox_s64 off, ox_u64 sz, bool clear);

OX_END_DECLS

#endif
