/*
 * Region bitmaps of an open file: which regions are in the local cache file, and which the service
 * knows to be dirty; and the three requests that keep them up to date.
 *
 * A file whose fdt_rmap is null has no maps: every range counts as cached and dirty. Regions are
 * counted in 64 bits and cut at the map's end: a range that reaches past the map is never wholly
 * cached or dirty, and only bits inside are changed; an empty range counts as set.
 *
 * Locks: fdt_rmap_lock, then fdt_dmap_lock, never both together. The maps are one allocation.
 *
 * Dropping the maps is safe while other threads test or change them on the same handle:
 *  - who looks at a map takes that map's one lock and reads its pointer under it: null means that
 *    the map is gone;
 *  - a drop takes fdt_rmap away under fdt_rmap_lock, exclusively; then fdt_dmap, fdt_rshift and the
 *    sizes under fdt_dmap_lock, exclusively; then frees. So whoever holds either lock and has seen
 *    its map keeps live memory until the lock is released, and shift and size with it: under
 *    fdt_rmap_lock because a drop changes them only after the pointer is gone, under fdt_dmap_lock
 *    because that is the lock they are changed under;
 *  - the dirty test decides under fdt_dmap_lock. A missing dirty map is a fault only if the cached
 *    map is there, and a drop takes that one away first.
 * Of several drops at once one finds the pointer and frees. Once dropped, maps never come back
 * while the file is open.
 *
 * The requests run on the calling thread, which owns the connection `vh`.
 */
#ifndef VFSTNW_BMAP_H
#define VFSTNW_BMAP_H

#include "tnw_fd.h"
#include "vfs_handle.h"

OX_BEGIN_DECLS

bool vfstnw_is_cached(tnvfd* fde, ox_off off, ox_u64 sz);
bool vfstnw_is_dirty(tnvfd* fde, ox_off off, ox_u64 sz);

/*
 * Asks the service to fetch a range. 0, 133, or the service's answer; its 25 (it will not cache
 * the range) counts as success. `cur_fszp` receives the file's size when the answer carries one,
 * with an error too; it is left alone when no request was needed, by the 25, by an answer that
 * says the file is empty and by one that ends before the size. `msg_sentp` tells whether a request
 * was answered. Both may be null. With `truncate` the request is always sent and sets no bit.
 */
int vfstnw_cache_regions(vfs_handle* vh, tnvfd* fde, ox_off off, ox_u64 sz, bool truncate,
                         ox_u64* cur_fszp, bool* msg_sentp);
/* Tells the service that a range is about to be written. 0, 133, or the service's answer. */
int vfstnw_dirty_regions(vfs_handle* vh, tnvfd* fde, ox_off off, ox_u64 sz);
/* Tells the service the file's new size; 0 drops the maps. 0, 133, or the service's answer. */
int vfstnw_ftruncate(vfs_handle* vh, tnvfd* fde, ox_u64 nfsz);
/* Frees both maps and clears the flags that stand for them. Safe against tests on other threads. */
void vfstnw_remove_bmaps(tnvfd* fde);

/* Copies 16 bytes when both are given. */
void tn_cfs_id_copy(cfs_id_t* dst, const cfs_id_t* src);

/* ------------------------------------------------------------------- not exported */

/*
 * The largest map that is taken from the service: its region numbers fit in 31 bits. Whoever hooks
 * maps into an entry has checked their size against it, and the shift to be 0 to 62.
 */
#define VFSTNW_MAX_MAP_SIZE ((ox_u64)1 << 28)

/*
 * Sets (or clears) the bits of a range in both maps, cached first, each under its own exclusive
 * lock; does nothing to a file without maps, nor for an empty range or one that begins outside.
 */
void vfstnw_mark_regions(tnvfd* fde, ox_off off, ox_u64 sz, bool clear);
/* Bytes of a region of the entry's maps; 1 once they were dropped. */
ox_u64 vfstnw_region_size(tnvfd* fde);

OX_END_DECLS

#endif
