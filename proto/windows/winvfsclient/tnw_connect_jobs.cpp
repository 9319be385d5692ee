/*
 * The jobs: what a pool worker does with one request on its own connection. Setting the event is
 * each job's very last act, because the caller may then free the work item and all it points at.
 */
#include <windows.h>

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

/* Deliberately the Windows code in the place of a Unix one. */
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

/* As done, with an error that the caller finds where the service's would stand. */
void* done_with(const tnw_evwi* ev, int err) {
  if (err != 0) {
    ev->ev_resp->rhdr.rhdr_errno = static_cast<ox_u32>(err);
  }
  return done(ev);
}

/* ------------------------------------------------------------------- OPEN */

bool opened(const tnv_resp* resp) {
  return resp->rhdr.rhdr_errno == 0 || resp->rhdr.rhdr_errno == TNV_OPEN_EXISTED;
}

/* The file of an open that fails on our side would stay open for ever. */
void close_carried_handle(tnv_wopen_resp* open) {
  const HANDLE handle = reinterpret_cast<HANDLE>(open->wopen_resp_handle);
  if (open->wopen_resp_fso.fso_isdir == 0 && handle != nullptr && handle != INVALID_HANDLE_VALUE) {
    CloseHandle(handle);
  }
  open->wopen_resp_handle = 0;
}

/* The entry is the waiting caller's alone until its open has succeeded, so no lock is held. */
void set_maps(tnvfd* fde, const tnv_wopen_resp& open, ox_u8* maps) {
  fde->fdt_rmap = maps;
  fde->fdt_rmap_size = open.wopen_resp_rmap_size;
  fde->fdt_dmap = maps == nullptr ? nullptr : maps + open.wopen_resp_rmap_size;
  fde->fdt_dmap_size = open.wopen_resp_dmap_size;
  fde->fdt_rshift = open.wopen_resp_region_shift;
}

/* Receives both maps into `fde`: 0, 8, or 133. The reported dirty-map size has no say. */
int recv_maps(vfs_handle* vh, tnvfd* fde, const tnv_wopen_resp& open) {
  if (open.wopen_resp_region_shift < 0 || open.wopen_resp_region_shift > MAX_REGION_SHIFT) {
    return TNW_REFUSE(OX_EOWNERDEAD, vh, OX_EINVAL, "Unusable region shift %d.",
                      open.wopen_resp_region_shift);
  }
  if (open.wopen_resp_rmap_size == 0) {
    set_maps(fde, open, nullptr);
    return 0;
  }
  const size_t size = 2 * static_cast<size_t>(open.wopen_resp_rmap_size);
  const bool usable = open.wopen_resp_rmap_size <= VFSTNW_MAX_MAP_SIZE;
  auto* maps = usable ? static_cast<ox_u8*>(ox_zalloc(size)) : nullptr;
  if (maps == nullptr) {
    return TNW_REFUSE(NOT_ENOUGH_MEMORY, vh, OX_ENOMEM, "Failed to allocate memory to rmap/dmap.");
  }
  if (tnv_conn_recv(vh, maps, size) != 0) {
    const int err = errno;
    ox_free_safe(maps);
    return err;
  }
  set_maps(fde, open, maps);
  return 0;
}

/*
 * An answer that is refused breaks the connection: its maps would be read as the next answer. The
 * maps of an unauthorised answer arrive too, and are the caller's to free.
 */
int take_open_answer(vfs_handle* vh, tnvfd* fde, tnv_resp* resp) {
  if (!opened(resp)) {
    return 0;
  }
  const int err = recv_maps(vh, fde, resp->u.wopen);
  if (err != 0) {
    tnv_conn_break(vh);
    close_carried_handle(&resp->u.wopen);
  }
  return err;
}

/* ------------------------------------------------------------------- DENUM */

/* Receives `count` records into the entry's listing, which is freed on failure: 0, 8 or 133. */
int recv_listing(vfs_handle* vh, tnvdir* dir, ox_u64 count) {
  if (count == 0) {
    return 0;
  }
  constexpr ox_u64 most = std::numeric_limits<ox_s32>::max();
  const size_t size = static_cast<size_t>(count) * sizeof(tnw_fileinfo);
  auto* listing = count <= most ? static_cast<tnw_fileinfo*>(ox_zalloc(size)) : nullptr;
  if (listing == nullptr) {
    return TNW_REFUSE(NOT_ENOUGH_MEMORY, vh, OX_ENOMEM, "Failed to allocate memory to cffl.");
  }
  if (tnv_conn_recv(vh, listing, size) != 0) {
    const int err = errno;
    ox_free_safe(listing);
    return err;
  }
  dir->dir_fi = listing;
  return 0;
}

int take_listing(vfs_handle* vh, tnvfd* fde, const tnv_resp* resp) {
  if (resp->rhdr.rhdr_errno != 0) {
    return 0;
  }
  fde->fdt_fso = resp->u.wdenum.wde_fso;
  fde->fdt_oaccmode = 1;
  const int err = recv_listing(vh, &fde->fdt_dir, resp->u.wdenum.wde_fi_len);
  if (err != 0) {
    tnv_conn_break(vh);
  }
  return err;
}

}  // namespace

/*
 * The exchange's own result is deliberately dropped: a failed exchange leaves the response clear,
 * which the caller reads as success with an empty answer.
 */
void* tnw_async_send_msg(void* args, void*, void* priv) {
  const auto* ev = static_cast<tnw_evwi*>(args);
  exchange(static_cast<vfs_handle*>(priv), ev);
  return done(ev);
}

void* tnw_sync_send_open_msg(void* args, void*, void* priv) {
  const auto* ev = static_cast<tnw_evwi*>(args);
  auto* vh = static_cast<vfs_handle*>(priv);
  int err = exchange(vh, ev);
  if (err != 0) {
    TNW_ERROR(vh, err, "Failed to send open message.");
  } else {
    err = take_open_answer(vh, static_cast<tnvfd*>(ev->ev_data), ev->ev_resp);
  }
  return done_with(ev, err);
}

void* tnw_sync_send_denum_msg(void* args, void*, void* priv) {
  const auto* ev = static_cast<tnw_evwi*>(args);
  auto* vh = static_cast<vfs_handle*>(priv);
  int err = exchange(vh, ev);
  if (err != 0) {
    TNW_ERROR(vh, errno, "Failed to send directory enumeration message.");
  } else {
    err = take_listing(vh, static_cast<tnvfd*>(ev->ev_data), ev->ev_resp);
  }
  return done_with(ev, err);
}

void* tnw_sync_send_cache_region_msg(void* args, void*, void* priv) {
  const auto* ev = static_cast<tnw_evwi*>(args);
  auto* vh = static_cast<vfs_handle*>(priv);
  auto* req = static_cast<tnw_ioreq*>(ev->ev_data);
  /* No file has this size, so it tells whether the answer carried one. */
  constexpr ox_u64 no_size = std::numeric_limits<ox_u64>::max();
  ox_u64 cur_fsz = no_size;
  req->io_err = vfstnw_cache_regions(vh, req->io_fde, static_cast<ox_off>(req->io_off), req->io_len,
                                     req->io_trunc, &cur_fsz, nullptr);
  if (req->io_err != 0) {
    TNW_ERROR(vh, req->io_err, "Failed to cache regions off:%ju, len:%llu, trunc: %d",
              static_cast<uintmax_t>(req->io_off), static_cast<unsigned long long>(req->io_len),
              req->io_trunc);
  }
  req->io_has_curfsz = cur_fsz != no_size;
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
