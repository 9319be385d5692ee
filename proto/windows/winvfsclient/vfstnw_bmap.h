/**
 * @file
 * @ingroup internals
 * The region maps of an open file. One map says which regions are in the local cache file, the
 * other which regions the service knows to be dirty. Three requests keep them up to date.
 *
 * A file whose fdt_rmap is null has no maps, and every range of it counts as cached and dirty.
 * Region numbers have 64 bits here. A range that reaches past the end of a map is never wholly
 * cached or dirty, and only its bits inside the map are changed. An empty range counts as cached
 * and dirty.
 *
 * Locks: fdt_rmap_lock guards the cached map, fdt_dmap_lock the dirty map; no thread holds both at
 * the same time. The two maps are one allocation.
 *
 * The maps may be dropped while other threads test or change them through the same handle:
 *  - Who looks at a map takes its lock and then reads its pointer. A null pointer says that the
 *    maps are gone.
 *  - A drop first makes fdt_rmap null, under fdt_rmap_lock held exclusively. Then it clears
 *    fdt_dmap, fdt_rshift and the sizes, under fdt_dmap_lock held exclusively. Then it frees the
 *    memory.
 *  - So the memory, the sizes and the shift stay as they are for a thread that holds one of the
 *    locks and has seen its map: a drop waits for that lock before it goes on.
 *  - The dirty test runs under fdt_dmap_lock. A file with a cached map and without a dirty map is
 *    an internal fault. A drop cannot look like one, for it takes the cached map away first.
 * When several drops run at once, one of them finds the pointer and frees. Maps that were dropped
 * do not come back while the file is open.
 *
 * The requests run on the calling thread, which must own the connection `vh`.
 */
#ifndef VFSTNW_BMAP_H
#define VFSTNW_BMAP_H

#include "tnw_fd.h"
#include "vfs_handle.h"

OX_BEGIN_DECLS

/** Whether every region of the range is in the local cache file. */
bool vfstnw_is_cached(tnvfd* fde, ox_off off, ox_u64 sz);
/** Whether the service knows every region of the range to be dirty. */
bool vfstnw_is_dirty(tnvfd* fde, ox_off off, ox_u64 sz);

/**
 * Asks the service to fetch a range that is not cached. Gives 0, 133, or the service's answer. The
 * answer 25 says that the service will not cache the range, and counts as success: the caller reads
 * without a cache. With `truncate` the request is sent in any case, and sets no bit.
 *
 * `cur_fszp` (may be null) receives the size of the file if the answer carries one, also when the
 * answer is an error. It keeps its value when no request was needed, at the answer 25, when the
 * file has become empty, and when the answer ends before the size. `msg_sentp` (may be null) tells
 * whether a request was sent and answered.
 */
int vfstnw_cache_regions(vfs_handle* vh, tnvfd* fde, ox_off off, ox_u64 sz, bool truncate,
                         ox_u64* cur_fszp, bool* msg_sentp);
/**
 * Tells the service that a range that is not dirty will be written. Gives 0, 133, or the service's
 * answer.
 */
int vfstnw_dirty_regions(vfs_handle* vh, tnvfd* fde, ox_off off, ox_u64 sz);
/**
 * Tells the service the new size of the file, and drops the maps when that is 0. Gives 0, 133, or
 * the service's answer.
 */
int vfstnw_ftruncate(vfs_handle* vh, tnvfd* fde, ox_u64 nfsz);
/**
 * Drops both maps and clears the flags TNV_FL_MAPPED and TNV_FL_NEWER. Other threads may test and
 * change the maps at the same time. The caller holds none of the map locks, for the call takes
 * both.
 */
void vfstnw_remove_bmaps(tnvfd* fde);

/** Copies 16 bytes. Does nothing when one of the pointers is null. */
void tn_cfs_id_copy(cfs_id_t* dst, const cfs_id_t* src);

/** @cond NOT_EXPORTED */
/* ------------------------------------------------------------------- not exported */

/*
 * The largest map that OPEN may announce, in bytes: the numbers of its regions fit into 31 bits.
 * Larger maps cannot be, and break the connection. Maps up to this size for which there is no
 * memory are read and dropped, and the connection lives on.
 */
#define VFSTNW_MAX_MAP_SIZE ((ox_u64)1 << 28)

/*
 * Sets the bits of a range in both maps, or clears them: first in the cached map, then in the dirty
 * map, each under its own lock. Does nothing to a file without maps, and nothing for a range that
 * is empty or begins outside the maps.
 */
void vfstnw_mark_regions(tnvfd* fde, ox_off off, ox_u64 sz, bool clear);
/* The bytes of a region, or 1 when the maps were dropped. */
ox_u64 vfstnw_region_size(tnvfd* fde);

/** @endcond */

OX_END_DECLS

#endif
