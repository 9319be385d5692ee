/*
 * tnw_setfilesize: the local file gets its new end whatever the service says; the region maps
 * follow only a size that the service reported.
 */

#include <cerrno>

#include <atomic>
#include <limits>

#include "ox_errno.h"
#include "ox_time.h"
#include "tn_text.h"
#include "tnw_call.h"
#include "tnw_exchange.h"
#include "vfstnw_bmap.h"

namespace {

constexpr tnw_refusal REFUSE_SIZE = {"Invalid handle specified", OX_EINVAL, ERROR_INVALID_HANDLE};

/* The one answer to the region request that is no failure: there is nothing to fetch. */
constexpr int NOTHING_TO_FETCH = OX_E2BIG;

struct resize {
  tnw_call call;
  tnvfd* fde;
  ox_u64 nfsz;
  ox_u64 regsz; /* bytes of a region: a power of two */
};

bool has_maps(tnvfd* fde) {
  return (std::atomic_ref(fde->fdt_tnflags).load() & TNV_FL_MAPPED) != 0;
}

void set_modified(tnvfd* fde) { std::atomic_ref(fde->fdt_tnflags).fetch_or(TNV_FL_MODIFIED); }

ox_u64 region_start(const resize& r, ox_u64 off) { return off & ~(r.regsz - 1); }

ox_u64 round_up(const resize& r, ox_u64 size) {
  const ox_u64 start = region_start(r, size);
  if (start == size) {
    return size;
  }
  const ox_u64 room = std::numeric_limits<ox_u64>::max() - start;
  return room < r.regsz ? std::numeric_limits<ox_u64>::max() : start + r.regsz;
}

/* Runs a region job over `request`: a failure to run stands in *err, where the service's would. */
void run_region_job(resize& r, ox_job_func_t job, void* request, ox_s32* err) {
  tnw_evwi wi = {};
  tnw_create_evtwi(&wi, nullptr, nullptr, 0);
  wi.ev_data = request;
  const int failure = tnw_run_job(r.call.tni, job, &wi);
  if (failure != 0) {
    *err = failure;
  }
}

/*
 * Has the region of the new last byte fetched, before it is cut or grown: 0 or a Windows code.
 * `answer` tells the file's size before the change, if the service did.
 */
int fetch_last_region(resize& r, tnw_ioreq* answer) {
  answer->io_fde = r.fde;
  answer->io_off = region_start(r, r.nfsz - 1);
  answer->io_len = r.regsz;
  answer->io_trunc = true;
  run_region_job(r, tnw_sync_send_cache_region_msg, answer, &answer->io_err);
  const int err = answer->io_err;
  if (err == 0 || err == NOTHING_TO_FETCH) {
    return 0;
  }
  return TNW_REFUSE_ANSWER(r.call.vh, err,
                           "Cache regions message sent as part of setfilesize() to %llu failed.",
                           tn_llu(r.nfsz));
}

int send_truncate(resize& r) {
  tnw_truncreq request = {};
  request.t_fde = r.fde;
  request.t_nfsz = r.nfsz;
  run_region_job(r, tnw_sync_send_ftruncate_msg, &request, &request.t_err);
  return static_cast<int>(unixerr2winerr(static_cast<ox_u32>(request.t_err)));
}

/*
 * What the file gains counts as cached and dirty, for the service need not fetch it; what it loses
 * counts as neither. Without a reported size the maps stay: nothing may count as cached that was
 * never fetched.
 */
void move_map_end(const resize& r, const tnw_ioreq& answer) {
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
 * Tells the service and moves the maps: 0, or the code that the call returns in the end. A failed
 * truncate request speaks louder than a failed fetch.
 */
int reconcile_maps(resize& r) {
  tnw_ioreq answer = {};
  int result = r.nfsz != 0 ? fetch_last_region(r, &answer) : 0;
  if (r.nfsz != 0 && !has_maps(r.fde)) {
    return result; /* the fetch found the file empty */
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

/* 0, or the Windows error of the local file as it is. */
int set_local_size(const resize& r) {
  FILE_END_OF_FILE_INFO end;
  end.EndOfFile.QuadPart = static_cast<LONGLONG>(r.nfsz);
  if (SetFileInformationByHandle(r.fde->fdt_ofd, FileEndOfFileInfo, &end, sizeof end) != 0) {
    return 0;
  }
  const DWORD code = GetLastError();
  errno = static_cast<int>(winerr2unixerr(code));
  return TNW_REFUSE(static_cast<int>(code), r.call.vh, errno, "Failed to set filesize for %s:%s",
                    tn_id_text(r.fde->fdt_fso.fso_handle).text,
                    tn_id_text(r.fde->fdt_fso.fso_version).text);
}

}  // namespace

int tnw_setfilesize(void* ophdl, ox_u32 size_low, ox_u32 size_high, char* out_procname) {
  resize r = {{}, static_cast<tnvfd*>(ophdl), static_cast<ox_u64>(size_high) << 32 | size_low, 0};
  int code = tnw_enter_file_call(r.fde, REFUSE_SIZE, out_procname, &r.call);
  if (code != 0) {
    return code;
  }
  r.regsz = vfstnw_region_size(r.fde);
  const int remembered = has_maps(r.fde) ? reconcile_maps(r) : 0;
  struct timespec start; /* the event measures the local change alone */
  ox_clock_gettime(0, &start);
  code = set_local_size(r); /* deliberately also after a failure that is remembered */
  if (code != 0) {
    return code;
  }
  std::atomic_ref(r.fde->fdt_stat.st_size).store(r.nfsz);
  set_modified(r.fde);
  tnw_log_setfsize_client_resp(r.call.vh, r.fde, r.nfsz, remembered, &start);
  return remembered;
}
