#include "tools/drive/drive_session.h"

#include <windows.h>

#include "tools/common/failure.h"
#include "tools/common/wide_text.h"

namespace tools {
namespace {

void check_start(const DriveOptions& options) {
  if (!is_web_address(options.cloud) && !is_local_folder(options.cloud)) {
    throw Failure(options.cloud, "is no folder that can play the cloud", ERROR_PATH_NOT_FOUND);
  }
  if (!is_local_file(options.service)) {
    throw Failure(options.service, "is no cache service", ERROR_FILE_NOT_FOUND);
  }
  make_local_folders(options.work);
}

}  // namespace

bool wait_for_service_end(const std::string& cache_folder) {
  constexpr int TRIES = 750; /* each takes 20 ms */
  constexpr DWORD PAUSE = 20;
  const std::wstring path = wide_from_utf8(cache_folder + "\\tarnd_pid");
  for (int tried = 0; tried < TRIES; tried++) {
    const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                    OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
      return true;
    }
    OVERLAPPED start = {};
    const bool free = LockFileEx(file, LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0,
                                 MAXDWORD, MAXDWORD, &start) != 0;
    CloseHandle(file);
    if (free) {
      return true;
    }
    Sleep(PAUSE);
  }
  return false;
}

LocalFile lock_work_folder(const DriveOptions& options) {
  try {
    return LocalFile::open_lock(options.work + "\\drive.lock");
  } catch (const Failure& failure) {
    if (failure.code() == ERROR_SHARING_VIOLATION) {
      throw Failure(options.work, "another program is using this --work folder");
    }
    throw;
  }
}

DriveSession::DriveSession(const DriveOptions& options) : cache_folder_(cache_folder(options)) {
  tnw_tninit init = start_record(options);
  check_start(options);
  lock_ = lock_work_folder(options);
  wait_for_service_end(cache_folder_);
  int err = 0;
  handle_ = tnw_init(&init, &err);
  if (handle_ == nullptr) {
    throw Failure(options.cloud,
                  "the cache service did not start (its log and the library's are in " +
                      log_folder(options) + ")",
                  static_cast<uint32_t>(err));
  }
}

/* tnw_deinit would pause for requests that are under way. Here there are none. */
DriveSession::~DriveSession() {
  tnw_deinit_force(handle_);
  wait_for_service_end(cache_folder_);
}

}  // namespace tools
