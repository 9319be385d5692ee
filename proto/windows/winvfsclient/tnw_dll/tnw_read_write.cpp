/*
 * tnw_read and tnw_write: data goes straight to and from the local cache file; the service is asked
 * only about regions that the maps do not have.
 */

#include <cerrno>

#include <atomic>

#include "ox_errno.h"
#include "ox_platform.h"
#include "ox_util.h"
#include "ox_uuid.h"
#include "tn_text.h"
#include "tnw_call.h"
#include "tnw_exchange.h"
#include "tnw_open.h"
#include "vfstnw_bmap.h"

namespace {

constexpr tnw_refusal REFUSE_READ = {"Read from invalid handle.", ERROR_INVALID_HANDLE,
                                     ERROR_INVALID_HANDLE};
constexpr tnw_refusal REFUSE_WRITE = {"Write to invalid handle.", ERROR_INVALID_HANDLE,
                                      ERROR_INVALID_HANDLE};

/*
 * What the service answers for a range that it has nothing to fetch for: a read then succeeds
 * without reading, a write goes on.
 */
constexpr int NOTHING_TO_FETCH = OX_E2BIG;

/* One read or write. */
struct transfer {
  tnw_call call;
  tnvfd* fde;
  ox_off off;
  ox_u64 len;
};

int enter(transfer* t, const tnw_refusal& refusal, char* out_procname) {
  const int code = tnw_enter_file_call(t->fde, refusal, out_procname, &t->call);
  if (code != 0 || t->off >= 0) {
    return code;
  }
  /*
   * To the system -1 and -2 mean "at the end" and "at the handle's position": the data would go
   * where the service was not told of.
   */
  return TNW_REFUSE(ERROR_INVALID_PARAMETER, t->call.vh, OX_EINVAL, "Negative offset %lld",
                    static_cast<long long>(t->off));
}

/* What a failed transfer's event line shows as its count, with `err` as errno. */
ox_s64 failed(int err) {
  errno = err;
  return -1;
}

/* Runs a region job for the transfer's range: 0 or the service's error number. */
int ask_for_region(transfer* t, ox_job_func_t job) {
  tnw_note_start(&t->call);
  tnw_ioreq request = {};
  request.io_fde = t->fde;
  request.io_off = static_cast<ox_u64>(t->off);
  request.io_len = t->len;
  tnw_evwi wi = {};
  tnw_create_evtwi(&wi, nullptr, nullptr, 0);
  wi.ev_data = &request;
  const int err = tnw_run_job(t->call.tni, job, &wi);
  return err != 0 ? err : request.io_err;
}

int cache_range(transfer* t) {
  if (vfstnw_is_cached(t->fde, t->off, t->len)) {
    return 0;
  }
  return ask_for_region(t, tnw_sync_send_cache_region_msg);
}

int dirty_range(transfer* t) {
  if (vfstnw_is_dirty(t->fde, t->off, t->len)) {
    return 0;
  }
  return ask_for_region(t, tnw_sync_send_dirty_region_msg);
}

OVERLAPPED at_offset(ox_off off) {
  OVERLAPPED where = {};
  where.Offset = static_cast<DWORD>(off);
  where.OffsetHigh = static_cast<DWORD>(static_cast<ox_u64>(off) >> 32);
  return where;
}

/* The local file's path for an error line; an empty text after a warning. */
void find_local_path(const transfer& t, char (&path)[OX_MAXPATH_LEN]) {
  if (ox_handle2path(t.fde->fdt_ofd, path, sizeof path, nullptr) == 0) {
    TNW_WARN(t.call.vh, 0, "Failed to get path from handle.");
  }
}

/*
 * The whole transfer in one call, no file position is used: 0 or the Windows error, unconverted but
 * for the layer's own rule. An end of file, 38, comes with the count.
 */
int read_local(const transfer& t, void* buffer, DWORD* count) {
  OVERLAPPED where = at_offset(t.off);
  if (ReadFile(t.fde->fdt_ofd, buffer, static_cast<DWORD>(t.len), count, &where) != 0) {
    return 0;
  }
  const int code = ox_winerr2errno(GetLastError());
  if (code == ERROR_HANDLE_EOF) {
    return code;
  }
  char path[OX_MAXPATH_LEN];
  find_local_path(t, path);
  return TNW_REFUSE(code, t.call.vh, code, "Failed to read from the file %s", path);
}

int write_local(const transfer& t, const void* buffer, DWORD* count) {
  OVERLAPPED where = at_offset(t.off);
  if (WriteFile(t.fde->fdt_ofd, buffer, static_cast<DWORD>(t.len), count, &where) != 0) {
    return 0;
  }
  const int code = ox_winerr2errno(GetLastError());
  char path[OX_MAXPATH_LEN];
  find_local_path(t, path);
  return TNW_REFUSE(code, t.call.vh, code, "Failed to write to the file %s", path);
}

int local_size(const transfer& t, ox_u64* size) {
  LARGE_INTEGER now;
  if (GetFileSizeEx(t.fde->fdt_ofd, &now) != 0) {
    *size = static_cast<ox_u64>(now.QuadPart);
    return 0;
  }
  const DWORD code = GetLastError();
  return TNW_REFUSE(static_cast<int>(code), t.call.vh, static_cast<int>(winerr2unixerr(code)),
                    "Failed to get filesize for %s:%s", tn_id_text(t.fde->fdt_fso.fso_handle).text,
                    tn_id_text(t.fde->fdt_fso.fso_version).text);
}

/*
 * A write through an open that has read access only (a memory-mapped write-back) marks the file's
 * context instead of the open: the close of a writable open tells the service.
 */
void note_modified(tnvfd* fde) {
  if (((fde->fdt_oaccmode & TNW_ACC_READ) != 0) && ((fde->fdt_oaccmode & TNW_ACC_ANY_WRITE) == 0)) {
    std::atomic_ref(fde->fdt_fc->fc_rd_dirty).store(true);
  } else {
    std::atomic_ref(fde->fdt_tnflags).fetch_or(TNV_FL_MODIFIED);
  }
}

/*
 * A write past the old end sets the cached size to the OLD SIZE plus the count, deliberately not to
 * the write's end: 50 bytes at 80 of a file of 100 give 150.
 */
void note_size(const transfer& t, ox_u64 old_size, DWORD count) {
  if (static_cast<ox_u64>(t.off) + count > old_size) {
    std::atomic_ref(t.fde->fdt_stat.st_size).store(old_size + count);
  }
}

int refused_by_service(int err, ox_s64* shown) {
  *shown = failed(err);
  return static_cast<int>(unixerr2winerr(static_cast<ox_u32>(err)));
}

/* Both without their event line; `shown` is the count that it shows. */
int read_range(transfer* t, void* buffer, ox_s64* nbread, ox_s64* shown) {
  const int err = cache_range(t);
  if (err == NOTHING_TO_FETCH) {
    return 0; /* deliberately: nothing is read, nbread stays */
  }
  if (err != 0) {
    return refused_by_service(err, shown);
  }
  DWORD count = 0;
  const int code = read_local(*t, buffer, &count);
  const bool done = code == 0 || code == ERROR_HANDLE_EOF;
  *shown = done ? count : failed(code);
  if (done && nbread != nullptr) {
    *nbread = count;
  }
  return code;
}

int write_range(transfer* t, const void* buffer, ox_u64 old_size, ox_s64* nbwritten,
                ox_s64* shown) {
  int err = cache_range(t);
  if (err == 0 || err == NOTHING_TO_FETCH) {
    err = dirty_range(t); /* told before the data is written */
  }
  if (err != 0) {
    return refused_by_service(err, shown);
  }
  DWORD count = 0;
  const int code = write_local(*t, buffer, &count);
  *shown = code != 0 ? failed(code) : count;
  if (code != 0) {
    return code;
  }
  note_modified(t->fde);
  note_size(*t, old_size, count);
  if (nbwritten != nullptr) {
    *nbwritten = count;
  }
  return 0;
}

}  // namespace

int tnw_read(void* ophdl, void* buffer, ox_u64 len, ox_off off, ox_s64* nbread,
             char* out_procname) {
  transfer t = {{}, static_cast<tnvfd*>(ophdl), off, len};
  int code = enter(&t, REFUSE_READ, out_procname);
  if (code != 0) {
    return code;
  }
  ox_s64 shown = 0;
  code = read_range(&t, buffer, nbread, &shown);
  tnw_log_read_client_resp(t.call.vh, t.fde, off, len, shown, &t.call.start);
  return code;
}

int tnw_write(void* ophdl, void* buffer, ox_u64 len, ox_off off, ox_s64* nbwritten,
              char* out_procname) {
  transfer t = {{}, static_cast<tnvfd*>(ophdl), off, len};
  ox_u64 old_size = 0;
  int code = enter(&t, REFUSE_WRITE, out_procname);
  if (code == 0) {
    code = local_size(t, &old_size);
  }
  if (code != 0) {
    return code;
  }
  ox_s64 shown = 0;
  code = write_range(&t, buffer, old_size, nbwritten, &shown);
  tnw_log_write_client_resp(t.call.vh, t.fde, off, len, shown, &t.call.start);
  return code;
}
