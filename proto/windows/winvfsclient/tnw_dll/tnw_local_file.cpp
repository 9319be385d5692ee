#include "tnw_local_file.h"

#include <fcntl.h>
#include <io.h>
#include <winternl.h>

#include "ox_platform.h"

namespace {

/*
 * Whether a handle was opened for overlapped I/O. Yes for a handle that does not tell: the
 * transfers then take the way that is right for both kinds, and a little longer.
 */
bool is_overlapped(ox_handle file) {
  FILE_MODE_INFORMATION mode = {};
  IO_STATUS_BLOCK status;
  constexpr auto FILE_MODE = static_cast<FILE_INFORMATION_CLASS>(16); /* FileModeInformation */
  const NTSTATUS result = NtQueryInformationFile(file, &status, &mode, sizeof mode, FILE_MODE);
  constexpr ULONG SYNCHRONOUS = FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT;
  return !NT_SUCCESS(result) || (mode.Mode & SYNCHRONOUS) == 0;
}

DWORD result_of(BOOL done) { return done != 0 ? 0 : GetLastError(); }

OVERLAPPED at_offset(ox_off off) {
  OVERLAPPED where = {};
  where.Offset = static_cast<DWORD>(off);
  where.OffsetHigh = static_cast<DWORD>(static_cast<ox_u64>(off) >> 32);
  return where;
}

/*
 * Runs `transfer`, which is a ReadFile or a WriteFile. On a handle for overlapped I/O it may return
 * before the system is done with the buffer (997 ERROR_IO_PENDING), and the caller may free the
 * buffer as soon as the call returns: so this waits until the system is done. The event belongs to
 * this transfer alone, because several may run on one handle at the same time.
 */
template <class Transfer>
DWORD run_transfer(const tnvfd* fde, ox_off off, DWORD* count, Transfer transfer) {
  OVERLAPPED where = at_offset(off);
  if (!fde->fdt_overlapped) {
    return result_of(transfer(&where));
  }
  where.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  if (where.hEvent == nullptr) {
    return GetLastError();
  }
  DWORD code = result_of(transfer(&where));
  if (code == ERROR_IO_PENDING) {
    code = result_of(GetOverlappedResult(fde->fdt_ofd, &where, count, TRUE));
  }
  CloseHandle(where.hEvent);
  return code;
}

}  // namespace

void tnw_take_local_file(tnvfd* fde, ox_handle file) {
  fde->fdt_ofd = file;
  fde->fdt_overlapped = file != INVALID_HANDLE_VALUE && is_overlapped(file);
}

/*
 * A runtime descriptor that was made for the handle owns it. The descriptor must be closed in the
 * place of the handle: one that stays would name a stranger's handle later.
 */
void tnw_close_local_file(tnvfd* fde) {
  const ox_handle handle = fde->fdt_ofd;
  const int osfd = fde->fdt_osfd;
  fde->fdt_ofd = INVALID_HANDLE_VALUE;
  fde->fdt_osfd = -1;
  if (handle == INVALID_HANDLE_VALUE) {
    return;
  }
  if (osfd >= 0) {
    ox_close(osfd);
  } else {
    ox_close_fhdl(handle);
  }
}

/*
 * Goes through a runtime descriptor, which is kept and owns the handle from then on. The runtime
 * has a limited number of descriptors; when none is left, the handle itself serves.
 */
DWORD tnw_empty_local_file(tnvfd* fde) {
  if (fde->fdt_ofd == INVALID_HANDLE_VALUE) {
    return ERROR_INVALID_HANDLE;
  }
  fde->fdt_osfd = _open_osfhandle(reinterpret_cast<intptr_t>(fde->fdt_ofd), _O_RDWR);
  if (fde->fdt_osfd >= 0 && ox_ftruncate(fde->fdt_osfd, 0) == 0) {
    return 0;
  }
  return tnw_set_local_size(fde, 0);
}

DWORD tnw_set_local_size(const tnvfd* fde, ox_u64 size) {
  FILE_END_OF_FILE_INFO end;
  end.EndOfFile.QuadPart = static_cast<LONGLONG>(size);
  return result_of(SetFileInformationByHandle(fde->fdt_ofd, FileEndOfFileInfo, &end, sizeof end));
}

DWORD tnw_read_local_file(const tnvfd* fde, void* buffer, DWORD len, ox_off off, DWORD* count) {
  return run_transfer(fde, off, count, [=](OVERLAPPED* where) {
    return ReadFile(fde->fdt_ofd, buffer, len, count, where);
  });
}

DWORD tnw_write_local_file(const tnvfd* fde, const void* buffer, DWORD len, ox_off off,
                           DWORD* count) {
  return run_transfer(fde, off, count, [=](OVERLAPPED* where) {
    return WriteFile(fde->fdt_ofd, buffer, len, count, where);
  });
}
