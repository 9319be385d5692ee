/*
 * tnw_setfilesize. The local file gets its new size whatever the service answers. The region maps
 * follow only if the service told the old size.
 */
#include <atomic>
#include <cerrno>
#include <limits>

#include "ox_time.h"
#include "tn_text.h"
#include "tnw_call.h"
#include "tnw_exchange.h"
#include "tnw_local_file.h"
#include "vfstnw_bmap.h"

namespace {

constexpr tnw_refusal REFUSE_SIZE = {"Invalid handle specified", ERROR_INVALID_HANDLE,
                                     ERROR_INVALID_HANDLE, true};

/* One call. */
struct Resize {
  tnw_call call;
  tnvfd* fde;
  ox_u64 nfsz;  /* the new size */
  ox_u64 regsz; /* bytes of a region: a power of two */
};

bool has_maps(tnvfd* fde) {
  return (std::atomic_ref(fde->fdt_tnflags).load() & TNV_FL_MAPPED) != 0;
}

void set_modified(tnvfd* fde) { std::atomic_ref(fde->fdt_tnflags).fetch_or(TNV_FL_MODIFIED); }

ox_u64 region_start(const Resize& r, ox_u64 off) { return off & ~(r.regsz - 1); }

/* The end of the region in which `size` bytes end. Sizes that do not fit end at the last number. */
ox_u64 round_up(const Resize& r, ox_u64 size) {
  const ox_u64 start = region_start(r, size);
  if (start == size) {
    return size;
  }
  const ox_u64 room = std::numeric_limits<ox_u64>::max() - start;
  return room < r.regsz ? std::numeric_limits<ox_u64>::max() : start + r.regsz;
}

/*
 * Has the region of the new last byte fetched before the file is cut or grows: 0 or a Windows code
 * after its line. `answer` then has the size of the file before the change, if the service told it.
 */
int fetch_last_region(const Resize& r, tnw_ioreq* answer) {
  answer->io_fde = r.fde;
  answer->io_off = region_start(r, r.nfsz - 1);
  answer->io_len = r.regsz;
  answer->io_trunc = true;
  tnw_run_region_job(r.call.tni, tnw_sync_send_cache_region_msg, answer, &answer->io_err);
  const int err = answer->io_err;
  if (err == 0 || err == TNV_NOTHING_TO_FETCH) {
    return 0;
  }
  return TNW_REFUSE_ANSWER(r.call.vh, err,
                           "Cache regions message sent as part of setfilesize() to %llu failed.",
                           tn_llu(r.nfsz));
}

int send_truncate(const Resize& r) {
  tnw_truncreq request = {0, r.fde, r.nfsz};
  tnw_run_region_job(r.call.tni, tnw_sync_send_ftruncate_msg, &request, &request.t_err);
  return static_cast<int>(unixerr2winerr(static_cast<ox_u32>(request.t_err)));
}

/*
 * The regions that the file gains count as cached and dirty, for there is nothing to fetch; those
 * that it loses count as neither. If the service did not tell the old size, the maps stay as they
 * are: a region that was never fetched must not count as cached.
 */
void move_map_end(const Resize& r, const tnw_ioreq& answer) {
  if (!answer.io_has_curfsz) {
    return;
  }
  const ox_u64 old_end = round_up(r, answer.io_curfsz);
  const ox_u64 new_end = round_up(r, r.nfsz);
  if (old_end < new_end) {
    vfstnw_mark_regions(r.fde, static_cast<ox_off>(old_end), new_end - old_end, false);
    set_modified(r.fde);
  } else if (old_end > new_end) {
    vfstnw_mark_regions(r.fde, static_cast<ox_off>(new_end), old_end - new_end, true);
  }
}

/*
 * Tells the service and changes the maps: 0, or the code that the call returns in the end. If both
 * requests fail, it is that of the truncate request. The fetch drops the maps when it finds the
 * file empty; then nothing is left to do.
 */
int reconcile_maps(const Resize& r) {
  tnw_ioreq answer = {};
  int result = r.nfsz != 0 ? fetch_last_region(r, &answer) : 0;
  if (r.nfsz != 0 && !has_maps(r.fde)) {
    return result;
  }
  const int code = send_truncate(r);
  if (code != 0) {
    result = code;
  }
  if (has_maps(r.fde)) {
    move_map_end(r, answer);
  }
  return result;
}

/* Sets the size of the local file: 0, or its Windows error as it is, after the line. */
int change_local_size(const Resize& r) {
  const DWORD code = tnw_set_local_size(r.fde, r.nfsz);
  if (code == 0) {
    return 0;
  }
  errno = static_cast<int>(winerr2unixerr(code));
  return TNW_REFUSE(static_cast<int>(code), r.call.vh, errno, "Failed to set filesize for %s:%s",
                    tn_id_text(r.fde->fdt_fso.fso_handle).text,
                    tn_id_text(r.fde->fdt_fso.fso_version).text);
}

}  // namespace

/* The start for the event line is noted behind the requests: it measures the local change alone. */
int tnw_setfilesize(void* ophdl, ox_u32 size_low, ox_u32 size_high, char* out_procname) {
  Resize r = {{}, static_cast<tnvfd*>(ophdl), static_cast<ox_u64>(size_high) << 32 | size_low, 0};
  int code = tnw_enter_file_call(r.fde, REFUSE_SIZE, out_procname, &r.call);
  if (code != 0) {
    return code;
  }
  r.regsz = vfstnw_region_size(r.fde);
  const int remembered = has_maps(r.fde) ? reconcile_maps(r) : 0;
  struct timespec start;
  ox_clock_gettime(0, &start);
  code = change_local_size(r);
  if (code != 0) {
    return code;
  }
  std::atomic_ref(r.fde->fdt_stat.st_size).store(r.nfsz);
  set_modified(r.fde);
  tnw_log_setfsize_client_resp(r.call.vh, r.fde, r.nfsz, remembered, &start);
  return remembered;
}
