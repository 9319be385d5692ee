#include "vfstnw_bmap.h"

#include <atomic>
#include <cstring>
#include <limits>

#include "ox_assert.h"
#include "ox_time.h"
#include "ox_util.h"
#include "tn_text.h"
#include "tnw_connect.h"
#include "tnw_log.h"
#include "vfstnw_bits.h"

namespace {

/* A flag from the peer may be any byte. */
bool is_flag_set(ox_u8 byte) { return (byte & 1) != 0; }

/* ------------------------------------------------------------------- maps */

/* The part of a range that lies inside the maps: `sz` bytes from the offset of the range on. */
struct Inside {
  ox_u64 sz;
  bool whole; /* the range lies inside completely */
};

/* Both maps have fdt_rmap_size bytes. The caller holds one of their locks. */
Inside inside_map(const tnvfd* fde, ox_off off, ox_u64 sz) {
  OX_ASSERT_EITHER_HELD(&fde->fdt_rmap_lock, &fde->fdt_dmap_lock);
  const ox_u64 regions = fde->fdt_rmap_size * 8;
  if (sz == 0 || off < 0 || (static_cast<ox_u64>(off) >> fde->fdt_rshift) >= regions) {
    return {0, false};
  }
  const ox_u64 first = static_cast<ox_u64>(off);
  const ox_u64 room = std::numeric_limits<ox_u64>::max() - first;
  const bool wraps = sz - 1 > room;
  const ox_u64 last = wraps ? std::numeric_limits<ox_u64>::max() : first + (sz - 1);
  if ((last >> fde->fdt_rshift) < regions) {
    return {last - first + 1, !wraps};
  }
  return {(regions << fde->fdt_rshift) - first, false};
}

bool is_set_in(const ox_u8* map, const tnvfd* fde, ox_off off, ox_u64 sz) {
  return inside_map(fde, off, sz).whole && vfstnw_is_region_set(map, fde->fdt_rshift, off, sz);
}

/* Changes the bits of a range in one map under its lock, unless the maps were dropped. */
void mark_in(tnvfd* fde, ox_u8* tnvfd::*map, ox_rwlock_t* lock, ox_off off, ox_u64 sz, bool clear) {
  ox_rwlock_excl(lock);
  if (fde->*map != nullptr) {
    const Inside in = inside_map(fde, off, sz);
    if (in.sz != 0) {
      vfstnw_set_region_bits(fde->*map, fde->fdt_rshift, off, in.sz, clear);
    }
  }
  ox_rwunlock(lock);
}

void mark_cached(tnvfd* fde, ox_off off, ox_u64 sz, bool clear) {
  mark_in(fde, &tnvfd::fdt_rmap, &fde->fdt_rmap_lock, off, sz, clear);
}

void mark_dirty(tnvfd* fde, ox_off off, ox_u64 sz, bool clear) {
  mark_in(fde, &tnvfd::fdt_dmap, &fde->fdt_dmap_lock, off, sz, clear);
}

/* The first step of a drop. Who gets the pointer, and not null, frees the memory. */
ox_u8* unhook_cached_map(tnvfd* fde) {
  ox_rwlock_excl(&fde->fdt_rmap_lock);
  ox_u8* maps = std::atomic_ref(fde->fdt_rmap).exchange(nullptr);
  ox_rwunlock(&fde->fdt_rmap_lock);
  return maps;
}

void unhook_dirty_map(tnvfd* fde) {
  ox_rwlock_excl(&fde->fdt_dmap_lock);
  fde->fdt_dmap = nullptr;
  fde->fdt_rshift = 0;
  fde->fdt_dmap_size = 0;
  fde->fdt_rmap_size = 0;
  ox_rwunlock(&fde->fdt_dmap_lock);
}

/* ------------------------------------------------------------------- requests */

tn_id_text file_id(const tnvfd* fde) { return tn_id_text(fde->fdt_fso.fso_handle); }

tnv_msg new_request(vfs_op opcode) {
  tnv_msg msg = {};
  msg.hdr.hdr_opcode = opcode;
  msg.hdr.hdr_len = TNV_MSG_FIXED;
  return msg;
}

tnv_msg cache_request(const tnvfd* fde, ox_off off, ox_u64 sz, bool truncate) {
  tnv_msg msg = new_request(TNV_OP_CACHE_REGION);
  tnv_cache_region_msg& req = msg.u.cache_region;
  req.cache_read_trunc = truncate ? 1 : 0;
  req.cache_read_off = static_cast<ox_u64>(off);
  req.cache_read_len = sz;
  tn_cfs_id_copy(&req.cache_read_omsgid, &fde->fdt_msgid);
  req.cache_read_fso = fde->fdt_fso;
  return msg;
}

tnv_msg dirty_request(const tnvfd* fde, ox_off off, ox_u64 sz) {
  tnv_msg msg = new_request(TNV_OP_DIRTY_REGION);
  tnv_dirty_region_msg& req = msg.u.dirty_region;
  req.cache_write_off = static_cast<ox_u64>(off);
  req.cache_write_len = sz;
  tn_cfs_id_copy(&req.cache_write_omsgid, &fde->fdt_msgid);
  req.cache_write_fso = fde->fdt_fso;
  return msg;
}

tnv_msg truncate_request(const tnvfd* fde, ox_u64 nfsz) {
  tnv_msg msg = new_request(TNV_OP_FTRUNCATE);
  tnv_ftruncate_msg& req = msg.u.ftruncate;
  req.cache_trunc_nfsz = nfsz;
  tn_cfs_id_copy(&req.cache_trunc_omsgid, &fde->fdt_msgid);
  req.cache_trunc_fso = fde->fdt_fso;
  return msg;
}

/* The service says that the file is empty now. */
void file_became_empty(tnvfd* fde) {
  std::atomic_ref(fde->fdt_stat.st_size).store(0);
  vfstnw_remove_bmaps(fde);
}

bool carries_file_size(const tnv_resp& resp) {
  constexpr size_t END = offsetof(tnv_cache_region_resp, cr_fsz) + sizeof(ox_u64);
  return resp.rhdr.rhdr_len >= END;
}

/* Does what the answer to a cache request says, and gives the result of the request. */
int take_cache_answer(vfs_handle* vh, tnvfd* fde, ox_off off, ox_u64 sz, bool truncate,
                      const tnv_resp& resp, ox_u64* cur_fszp) {
  const int err = static_cast<int>(resp.rhdr.rhdr_errno);
  const tnv_cache_region_resp& answer = resp.u.cache_region;
  if (err == 0 && is_flag_set(answer.cr_clear)) {
    file_became_empty(fde);
    return 0;
  }
  if (err == TNV_WILL_NOT_CACHE) {
    /* The service will not cache this range. The caller goes on as after a success. */
    TNW_LOG(vh, OX_INFO_LEVEL, err, "Uncached read(%d, %llu, %llu : %s)", fde->fdt_fd, tn_llu(off),
            tn_llu(sz), file_id(fde).text);
    return 0;
  }
  if (err != 0) {
    TNW_ERROR(vh, err, "cache_region(%d, %llu, %llu : %s) failed", fde->fdt_fd, tn_llu(off),
              tn_llu(sz), file_id(fde).text);
  } else if (!truncate) {
    mark_cached(fde, off, answer.cr_sz, false);
  }
  if (cur_fszp != nullptr && carries_file_size(resp)) {
    *cur_fszp = answer.cr_fsz;
  }
  return err;
}

}  // namespace

bool vfstnw_is_cached(tnvfd* fde, ox_off off, ox_u64 sz) {
  if (sz == 0) {
    return true;
  }
  ox_rwlock_shared(&fde->fdt_rmap_lock);
  const ox_u8* map = fde->fdt_rmap;
  const bool set = map == nullptr || is_set_in(map, fde, off, sz);
  ox_rwunlock(&fde->fdt_rmap_lock);
  return set;
}

bool vfstnw_is_dirty(tnvfd* fde, ox_off off, ox_u64 sz) {
  if (sz == 0) {
    return true;
  }
  ox_rwlock_shared(&fde->fdt_dmap_lock);
  const ox_u8* map = fde->fdt_dmap;
  /*
   * This pointer has a lock of its own, which is not held here. It may become null at any time. It
   * is null if a drop has taken the dirty map, which is the second step of a drop.
   */
  const bool mapped = std::atomic_ref(fde->fdt_rmap).load() != nullptr;
  const bool fault = mapped && map == nullptr;
  const bool set = !mapped || (!fault && is_set_in(map, fde, off, sz));
  ox_rwunlock(&fde->fdt_dmap_lock);
  if (fault) {
    ox_assert_failed("((fde->fdt_dmap != ((void*)0)))", "vfstnw_bmap", 32);
  }
  return set;
}

int vfstnw_cache_regions(vfs_handle* vh, tnvfd* fde, ox_off off, ox_u64 sz, bool truncate,
                         ox_u64* cur_fszp, bool* msg_sentp) {
  ox_clock_gettime(0, &vh->vfs_curmsg_ts);
  if (msg_sentp != nullptr) {
    *msg_sentp = false;
  }
  if (!truncate && vfstnw_is_cached(fde, off, sz)) {
    return 0;
  }
  tnv_msg msg = cache_request(fde, off, sz, truncate);
  tnv_resp resp = {};
  const int err = tnw_sync_send_msg(vh, &msg, &resp);
  if (err != 0) {
    return err;
  }
  if (msg_sentp != nullptr) {
    *msg_sentp = true;
  }
  return take_cache_answer(vh, fde, off, sz, truncate, resp, cur_fszp);
}

int vfstnw_dirty_regions(vfs_handle* vh, tnvfd* fde, ox_off off, ox_u64 sz) {
  ox_clock_gettime(0, &vh->vfs_curmsg_ts);
  if (vfstnw_is_dirty(fde, off, sz)) {
    return 0;
  }
  tnv_msg msg = dirty_request(fde, off, sz);
  tnv_resp resp = {};
  int err = tnw_sync_send_msg(vh, &msg, &resp);
  if (err != 0) {
    return err;
  }
  err = static_cast<int>(resp.rhdr.rhdr_errno);
  if (err != 0) {
    return TNW_REFUSE(err, vh, err, "dirty_region(%d, %llu, %llu : %s) failed", fde->fdt_fd,
                      tn_llu(off), tn_llu(sz), file_id(fde).text);
  }
  if (is_flag_set(resp.u.dirty_region.dr_clear)) {
    file_became_empty(fde);
    return 0;
  }
  /* A region that is written counts as cached from then on. */
  vfstnw_mark_regions(fde, off, sz, false);
  return 0;
}

int vfstnw_ftruncate(vfs_handle* vh, tnvfd* fde, ox_u64 nfsz) {
  ox_clock_gettime(0, &vh->vfs_curmsg_ts);
  tnv_msg msg = truncate_request(fde, nfsz);
  tnv_resp resp = {};
  int err = tnw_sync_send_msg(vh, &msg, &resp);
  if (err != 0) {
    return err;
  }
  err = static_cast<int>(resp.rhdr.rhdr_errno);
  if (err != 0) {
    return TNW_REFUSE(err, vh, err, "ftruncate(%d, %llu: %s) failed", fde->fdt_fd, tn_llu(nfsz),
                      file_id(fde).text);
  }
  if (nfsz == 0) {
    vfstnw_remove_bmaps(fde); /* st_size stays as it is: the caller sets it */
  }
  return 0;
}

void vfstnw_remove_bmaps(tnvfd* fde) {
  ox_u8* maps = unhook_cached_map(fde);
  unhook_dirty_map(fde);
  ox_free_safe(maps);
  std::atomic_ref(fde->fdt_tnflags).fetch_and(static_cast<ox_u16>(~(TNV_FL_MAPPED | TNV_FL_NEWER)));
}

void vfstnw_mark_regions(tnvfd* fde, ox_off off, ox_u64 sz, bool clear) {
  mark_cached(fde, off, sz, clear);
  mark_dirty(fde, off, sz, clear);
}

ox_u64 vfstnw_region_size(tnvfd* fde) {
  ox_rwlock_shared(&fde->fdt_dmap_lock);
  const int shift = fde->fdt_rshift;
  ox_rwunlock(&fde->fdt_dmap_lock);
  return static_cast<ox_u64>(1) << shift;
}

void tn_cfs_id_copy(cfs_id_t* dst, const cfs_id_t* src) {
  if (dst != nullptr && src != nullptr) {
    memcpy(dst, src, sizeof *dst);
  }
}
