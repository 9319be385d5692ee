/*
 * The jobs: what a worker of the pool does with one request on its own connection. A job sets the
 * event last of all, because the caller may then free the work item and all that it points to.
 */
#include <windows.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <limits>

#include "ox_errno.h"
#include "ox_time.h"
#include "ox_util.h"
#include "tnv_connio_win.h"
#include "tnw_connect.h"
#include "tnw_fd.h"
#include "tnw_log.h"
#include "vfstnw_bmap.h"

namespace {

/* The Windows code. Callers see it where they would see a Unix number: they get 8, and not 12. */
constexpr int NOT_ENOUGH_MEMORY = 8;
constexpr int MAX_REGION_SHIFT = 62;

int exchange(vfs_handle* vh, const tnw_evwi* ev) {
  ox_clock_gettime(0, &vh->vfs_curmsg_ts);
  return tnw_sync_send_msg(vh, ev->ev_msg, ev->ev_resp);
}

void* done(const tnw_evwi* ev) {
  SetEvent(ev->ev_hdl);
  return nullptr;
}

/* The same with an error, which the caller finds where it would find the service's. */
void* done_with(const tnw_evwi* ev, int err) {
  if (err != 0) {
    ev->ev_resp->rhdr.rhdr_errno = static_cast<ox_u32>(err);
  }
  return done(ev);
}

/* ------------------------------------------------------------------- what follows an answer */

/*
 * Maps or a listing that follow an answer: `count` pieces of `piece` bytes. `most` is the largest
 * count that can be. `no_memory` is the line when there is no memory for them.
 */
struct Bulk {
  ox_u64 count;
  ox_u64 most;
  size_t piece;
  const char* no_memory;

  size_t size() const { return static_cast<size_t>(count) * piece; }
};

/* Reads `size` bytes and forgets them, so that the next answer begins behind them: 0 or 133. */
int drop_bytes(vfs_handle* vh, size_t size) {
  char buffer[16 * 1024];
  while (size > 0) {
    const size_t part = std::min(size, sizeof buffer);
    if (tnv_conn_recv(vh, buffer, part) != 0) {
      return errno;
    }
    size -= part;
  }
  return 0;
}

/*
 * Receives `bulk` into new memory: 0, 8 or 133. Where there is no memory, the bytes are read and
 * dropped, and *ev tells the caller that the service has granted the request. A count that cannot
 * be breaks the connection: nobody knows where the next answer would begin.
 */
int recv_bulk(vfs_handle* vh, tnw_evwi* ev, const Bulk& bulk, void** memory) {
  const bool can_be = bulk.count <= bulk.most;
  *memory = can_be ? ox_zalloc(bulk.size()) : nullptr;
  if (*memory == nullptr) {
    TNW_ERROR(vh, OX_ENOMEM, "%s", bulk.no_memory);
    if (!can_be) {
      tnv_conn_break(vh);
      return NOT_ENOUGH_MEMORY;
    }
    const int err = drop_bytes(vh, bulk.size());
    ev->ev_granted = err == 0;
    return err != 0 ? err : NOT_ENOUGH_MEMORY;
  }
  if (tnv_conn_recv(vh, *memory, bulk.size()) != 0) {
    const int err = errno;
    ox_free_safe(*memory);
    *memory = nullptr;
    return err;
  }
  return 0;
}

/* ------------------------------------------------------------------- OPEN */

bool opened(const tnv_resp* resp) {
  return resp->rhdr.rhdr_errno == 0 || resp->rhdr.rhdr_errno == TNV_OPEN_EXISTED;
}

/* Without this, the file of an open that fails on our side would stay open for ever. */
void close_carried_handle(tnv_wopen_resp* open) {
  const HANDLE handle = reinterpret_cast<HANDLE>(open->wopen_resp_handle);
  if (open->wopen_resp_fso.fso_isdir == 0 && handle != nullptr && handle != INVALID_HANDLE_VALUE) {
    CloseHandle(handle);
  }
  open->wopen_resp_handle = 0;
}

bool is_usable_shift(ox_s32 shift) { return shift >= 0 && shift <= MAX_REGION_SHIFT; }

/* No lock is held: until the open has succeeded, only the waiting caller knows the entry. */
void set_maps(tnvfd* fde, const tnv_wopen_resp& open, ox_u8* maps) {
  const ox_s32 shift = open.wopen_resp_region_shift;
  fde->fdt_rmap = maps;
  fde->fdt_rmap_size = open.wopen_resp_rmap_size;
  fde->fdt_dmap = maps == nullptr ? nullptr : maps + open.wopen_resp_rmap_size;
  fde->fdt_dmap_size = open.wopen_resp_dmap_size;
  fde->fdt_rshift = is_usable_shift(shift) ? shift : 0;
}

/*
 * Receives both maps into the entry: 0, 8, or 133. Each has the size of the cached map, whatever
 * the answer says of the dirty map.
 */
int recv_maps(vfs_handle* vh, tnw_evwi* ev, tnvfd* fde) {
  const tnv_wopen_resp& open = ev->ev_resp->u.wopen;
  if (open.wopen_resp_rmap_size == 0) {
    set_maps(fde, open, nullptr);
    return 0;
  }
  if (!is_usable_shift(open.wopen_resp_region_shift)) {
    TNW_ERROR(vh, OX_EINVAL, "Unusable region shift %d.", open.wopen_resp_region_shift);
    tnv_conn_break(vh);
    return OX_EOWNERDEAD;
  }
  const Bulk both = {open.wopen_resp_rmap_size, VFSTNW_MAX_MAP_SIZE, 2,
                     "Failed to allocate memory to rmap/dmap."};
  void* maps = nullptr;
  const int err = recv_bulk(vh, ev, both, &maps);
  if (err == 0) {
    set_maps(fde, open, static_cast<ox_u8*>(maps));
  }
  return err;
}

/* The maps of an unauthorised answer arrive, too; the caller frees them. */
int take_open_answer(vfs_handle* vh, tnw_evwi* ev) {
  if (!opened(ev->ev_resp)) {
    return 0;
  }
  const int err = recv_maps(vh, ev, static_cast<tnvfd*>(ev->ev_data));
  if (err != 0) {
    close_carried_handle(&ev->ev_resp->u.wopen);
  }
  return err;
}

/* ------------------------------------------------------------------- DENUM */

/* Receives the listing into the entry: 0, 8 or 133. */
int take_listing(vfs_handle* vh, tnw_evwi* ev) {
  const tnv_wdenum_resp& answer = ev->ev_resp->u.wdenum;
  if (ev->ev_resp->rhdr.rhdr_errno != 0) {
    return 0;
  }
  auto* fde = static_cast<tnvfd*>(ev->ev_data);
  fde->fdt_fso = answer.wde_fso;
  fde->fdt_oaccmode = TNW_ACC_READ;
  if (answer.wde_fi_len == 0) {
    return 0;
  }
  const Bulk entries = {answer.wde_fi_len, TNW_MAX_LISTING, sizeof(tnw_fileinfo),
                        "Failed to allocate memory to cffl."};
  void* listing = nullptr;
  const int err = recv_bulk(vh, ev, entries, &listing);
  fde->fdt_dir.dir_fi = static_cast<tnw_fileinfo*>(listing);
  return err;
}

}  // namespace

/*
 * The result of the exchange is dropped. A failed exchange leaves the response all zero, and so the
 * caller of a plain request sees a success with an empty answer, as tnw.h tells.
 */
void* tnw_async_send_msg(void* args, void*, void* priv) {
  const auto* ev = static_cast<tnw_evwi*>(args);
  exchange(static_cast<vfs_handle*>(priv), ev);
  return done(ev);
}

void* tnw_sync_send_open_msg(void* args, void*, void* priv) {
  auto* ev = static_cast<tnw_evwi*>(args);
  auto* vh = static_cast<vfs_handle*>(priv);
  int err = exchange(vh, ev);
  if (err != 0) {
    TNW_ERROR(vh, err, "Failed to send open message.");
  } else {
    err = take_open_answer(vh, ev);
  }
  return done_with(ev, err);
}

void* tnw_sync_send_denum_msg(void* args, void*, void* priv) {
  auto* ev = static_cast<tnw_evwi*>(args);
  auto* vh = static_cast<vfs_handle*>(priv);
  int err = exchange(vh, ev);
  if (err != 0) {
    TNW_ERROR(vh, errno, "Failed to send directory enumeration message.");
  } else {
    err = take_listing(vh, ev);
  }
  return done_with(ev, err);
}

void* tnw_sync_send_cache_region_msg(void* args, void*, void* priv) {
  const auto* ev = static_cast<tnw_evwi*>(args);
  auto* vh = static_cast<vfs_handle*>(priv);
  auto* req = static_cast<tnw_ioreq*>(ev->ev_data);
  /* No file has this size: if it stays, the answer carried none. */
  constexpr ox_u64 NO_SIZE = std::numeric_limits<ox_u64>::max();
  ox_u64 cur_fsz = NO_SIZE;
  req->io_err = vfstnw_cache_regions(vh, req->io_fde, static_cast<ox_off>(req->io_off), req->io_len,
                                     req->io_trunc, &cur_fsz, nullptr);
  if (req->io_err != 0) {
    TNW_ERROR(vh, req->io_err, "Failed to cache regions off:%ju, len:%llu, trunc: %d",
              static_cast<uintmax_t>(req->io_off), static_cast<unsigned long long>(req->io_len),
              req->io_trunc);
  }
  req->io_has_curfsz = cur_fsz != NO_SIZE;
  if (req->io_has_curfsz) {
    req->io_curfsz = cur_fsz;
  }
  return done(ev);
}

void* tnw_sync_send_dirty_region_msg(void* args, void*, void* priv) {
  const auto* ev = static_cast<tnw_evwi*>(args);
  auto* vh = static_cast<vfs_handle*>(priv);
  auto* req = static_cast<tnw_ioreq*>(ev->ev_data);
  req->io_err =
      vfstnw_dirty_regions(vh, req->io_fde, static_cast<ox_off>(req->io_off), req->io_len);
  if (req->io_err != 0) {
    TNW_ERROR(vh, req->io_err, "Failed to dirty off:len %jd:%jd",
              static_cast<intmax_t>(req->io_off), static_cast<intmax_t>(req->io_len));
  }
  return done(ev);
}

void* tnw_sync_send_ftruncate_msg(void* args, void*, void* priv) {
  const auto* ev = static_cast<tnw_evwi*>(args);
  auto* vh = static_cast<vfs_handle*>(priv);
  auto* req = static_cast<tnw_truncreq*>(ev->ev_data);
  req->t_err = vfstnw_ftruncate(vh, req->t_fde, req->t_nfsz);
  if (req->t_err != 0) {
    TNW_ERROR(vh, req->t_err, "Failed to truncate to new size: %jd",
              static_cast<intmax_t>(req->t_nfsz));
  }
  return done(ev);
}
