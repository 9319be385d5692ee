/*
 * tnw_read and tnw_write. The data goes directly from and to the local cache file; the service is
 * asked only about regions that are not in the maps of the file.
 */
#include <atomic>
#include <cerrno>

#include "ox_errno.h"
#include "ox_platform.h"
#include "tn_text.h"
#include "tnw_call.h"
#include "tnw_exchange.h"
#include "tnw_local_file.h"
#include "vfstnw_bmap.h"

namespace {

constexpr tnw_refusal REFUSE_READ = {"Read from invalid handle.", ERROR_INVALID_HANDLE,
                                     ERROR_INVALID_HANDLE};
constexpr tnw_refusal REFUSE_WRITE = {"Write to invalid handle.", ERROR_INVALID_HANDLE,
                                      ERROR_INVALID_HANDLE};

/* One call. */
struct Transfer {
  tnw_call call;
  tnvfd* fde;
  ox_off off;
  ox_u64 len;
};

/*
 * All checks of the call. A negative offset is refused: -1 and -2 mean "at the end" and "at the
 * handle's position" to the system, and the service would be asked about another range.
 */
int enter(Transfer* t, const tnw_refusal& refusal, char* out_procname) {
  const int code = tnw_enter_file_call(t->fde, refusal, out_procname, &t->call);
  if (code != 0 || t->off >= 0) {
    return code;
  }
  return TNW_REFUSE(ERROR_INVALID_PARAMETER, t->call.vh, OX_EINVAL, "Negative offset %lld",
                    static_cast<long long>(t->off));
}

/* ------------------------------------------------------------------- regions */

/* Runs a region job for the range of the transfer: 0 or an error number. */
int ask_for_region(Transfer* t, ox_job_func_t job) {
  tnw_note_start(&t->call);
  tnw_ioreq request = {};
  request.io_fde = t->fde;
  request.io_off = static_cast<ox_u64>(t->off);
  request.io_len = t->len;
  tnw_run_region_job(t->call.tni, job, &request, &request.io_err);
  return request.io_err;
}

int cache_range(Transfer* t) {
  if (vfstnw_is_cached(t->fde, t->off, t->len)) {
    return 0;
  }
  return ask_for_region(t, tnw_sync_send_cache_region_msg);
}

int dirty_range(Transfer* t) {
  if (vfstnw_is_dirty(t->fde, t->off, t->len)) {
    return 0;
  }
  return ask_for_region(t, tnw_sync_send_dirty_region_msg);
}

/* ------------------------------------------------------------------- the local file */

/* The path of the local file for an error line, or an empty text after a warning. */
void find_local_path(const Transfer& t, char (&path)[OX_MAXPATH_LEN]) {
  if (ox_handle2path(t.fde->fdt_ofd, path, sizeof path, nullptr) == 0) {
    TNW_WARN(t.call.vh, 0, "Failed to get path from handle.");
  }
}

/*
 * Both give 0, or the Windows error after its line. The error is not converted, except that the
 * portability layer's rule (ox_winerr2errno) applies. The end of the file, 38, has no line.
 */
int read_local(const Transfer& t, void* buffer, DWORD* count) {
  const DWORD len = static_cast<DWORD>(t.len);
  const int code = ox_winerr2errno(tnw_read_local_file(t.fde, buffer, len, t.off, count));
  if (code == 0 || code == ERROR_HANDLE_EOF) {
    return code;
  }
  char path[OX_MAXPATH_LEN];
  find_local_path(t, path);
  return TNW_REFUSE(code, t.call.vh, code, "Failed to read from the file %s", path);
}

int write_local(const Transfer& t, const void* buffer, DWORD* count) {
  const DWORD len = static_cast<DWORD>(t.len);
  const int code = ox_winerr2errno(tnw_write_local_file(t.fde, buffer, len, t.off, count));
  if (code == 0) {
    return 0;
  }
  char path[OX_MAXPATH_LEN];
  find_local_path(t, path);
  return TNW_REFUSE(code, t.call.vh, code, "Failed to write to the file %s", path);
}

int local_size(const Transfer& t, ox_u64* size) {
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

/* ------------------------------------------------------------------- reading and writing */

/* What the event line of a failed transfer shows as its count; it shows `err` from errno. */
ox_s64 failed(int err) {
  errno = err;
  return -1;
}

int refused_by_service(int err, ox_s64* shown) {
  *shown = failed(err);
  return static_cast<int>(unixerr2winerr(static_cast<ox_u32>(err)));
}

/*
 * A read without its event line; `shown` is the count for that line. Where the service has nothing
 * to fetch, the read succeeds, reads nothing and leaves `nbread` as it is.
 */
int read_range(Transfer* t, void* buffer, ox_s64* nbread, ox_s64* shown) {
  const int err = cache_range(t);
  if (err == TNV_NOTHING_TO_FETCH) {
    return 0;
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

/*
 * Notes that the file was modified: in the open, or, when the open may only read (a memory-mapped
 * file is written so), in the context of the file. The close of an open that may write then tells
 * the service.
 */
void note_modified(tnvfd* fde) {
  const bool reads_only = (fde->fdt_oaccmode & (TNW_ACC_READ | TNW_ACC_ANY_WRITE)) == TNW_ACC_READ;
  if (reads_only) {
    std::atomic_ref(fde->fdt_fc->fc_rd_dirty).store(true);
  } else {
    std::atomic_ref(fde->fdt_tnflags).fetch_or(TNV_FL_MODIFIED);
  }
}

/*
 * A write over the end of the file makes the noted size the OLD SIZE plus the count, and not the
 * end of the write: 50 bytes at offset 80 of a file of 100 bytes give 150.
 */
void note_size(const Transfer& t, ox_u64 old_size, DWORD count) {
  if (static_cast<ox_u64>(t.off) + count > old_size) {
    std::atomic_ref(t.fde->fdt_stat.st_size).store(old_size + count);
  }
}

/* A write without its event line. The service hears of the range before the data is written. */
int write_range(Transfer* t, const void* buffer, ox_u64 old_size, ox_s64* nbwritten,
                ox_s64* shown) {
  int err = cache_range(t);
  if (err == 0 || err == TNV_NOTHING_TO_FETCH) {
    err = dirty_range(t);
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
  Transfer t = {{}, static_cast<tnvfd*>(ophdl), off, len};
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
  Transfer t = {{}, static_cast<tnvfd*>(ophdl), off, len};
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
