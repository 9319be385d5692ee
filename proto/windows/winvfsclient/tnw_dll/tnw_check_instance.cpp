/*
 * Whether a new service may be started: the pid files, the fallback event and the wait for an old
 * service.
 */

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ox_assert.h"
#include "ox_errno.h"
#include "ox_lock.h"
#include "ox_platform.h"
#include "ox_util.h"
#include "tn_text.h"
#include "tnw_log.h"
#include "tnw_start.h"

namespace {

constexpr int OLD_SERVICE_TRIES = 15;
constexpr int OLD_SERVICE_PAUSE_SECS = 5;
constexpr size_t PID_PATH_SIZE = OX_MAXPATH_LEN + 16; /* room for every cache directory */
constexpr ox_u32 MAX_EVENT_NAME = OX_MAXPATH_LEN;

/* Logs the error of the last system call and returns it: errno, which logging may change. */
int refuse_file(const char* what, const char* file) {
  const int err = errno;
  return TNW_REFUSE(err, nullptr, err, "cannot %s %s", what, file);
}

/* Nothing is cut: a cut path would name another file, and the same one for both pid files. */
void compose_pid_path(const tnw_tninstance* tni, const char* name, char (&path)[PID_PATH_SIZE]) {
  snprintf(path, sizeof path, "%.*s/%s", TN_FIELD(tni->tni_cachedir), name);
}

/* ReadFile fails with 38 when the file is empty. That is no fault: there is nothing to read. */
int read_old_pid(int fd, unsigned long* pid) {
  char text[129] = {};
  const ox_s64 n = ox_pread(fd, text, sizeof text - 1, 0);
  if (n < 0 && errno != ERROR_HANDLE_EOF) {
    return refuse_file("read", "da_pid");
  }
  *pid = n > 0 ? strtoul(text, nullptr, 10) : 0;
  return 0;
}

/*
 * Writes over the old number. The file keeps its length, so the tail of a longer old number stays
 * behind the new one; nothing but a log line ever depends on what was read.
 */
int write_own_pid(int fd) {
  char text[32];
  const int len = snprintf(text, sizeof text, "%lu", GetCurrentProcessId());
  const ox_s64 written = ox_pwrite(fd, text, static_cast<size_t>(len), 0);
  if (written == len) {
    return 0;
  }
  if (written >= 0) {
    errno = ERROR_WRITE_FAULT; /* a part was written: the system names no error for that */
  }
  return refuse_file("write DA PID to", "da_pid");
}

int update_da_pid_file(const tnw_tninstance* tni) {
  char path[PID_PATH_SIZE];
  compose_pid_path(tni, "da_pid", path);
  const int fd = ox_creat(path, OX_O_RDWR | OX_O_CREAT | OX_O_SYNC, 0644);
  if (fd < 0) {
    return refuse_file("open", path);
  }
  unsigned long old_pid = 0;
  int code = read_old_pid(fd, &old_pid);
  if (code == 0) {
    TNW_INFO(nullptr, "real DA PID: %lu, file DA PID: %lu", GetCurrentProcessId(), old_pid);
    code = write_own_pid(fd);
  }
  ox_close(fd);
  return code;
}

/*
 * Waits until an old service has let go of its pid file. Having waited fails this start attempt
 * with the last error, also when the lock was taken in the end: tnw_init then pauses and tries
 * anew, or with TNW_INIT_NO_RETRY gives 31 to its caller.
 */
int wait_for_old_service(const tnw_tninstance* tni, int fd) {
  int code = 0;
  for (int i = 0; i < OLD_SERVICE_TRIES; i++) {
    if (ox_flock(fd, LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY) == 0) {
      break;
    }
    code = errno;
    TNW_ERROR(nullptr, code, "tarnd is still running at %.*s. Sleeping for %d secs.",
              TN_FIELD(tni->tni_cachedir), OLD_SERVICE_PAUSE_SECS);
    Sleep(OLD_SERVICE_PAUSE_SECS * 1000);
  }
  return code;
}

int check_service_pid_file(const tnw_tninstance* tni, tnw_tninit* tninit) {
  char path[PID_PATH_SIZE];
  compose_pid_path(tni, "tarnd_pid", path);
  const int fd = ox_creat(path, OX_O_RDONLY, 0644); /* ox_open would log that it is missing */
  if (fd < 0 && errno == OX_ENOENT) {
    return 0;
  }
  if (fd < 0) {
    return refuse_file("open", path);
  }
  char cachedir[sizeof tni->tni_cachedir + 1] = {};
  memcpy(cachedir, tni->tni_cachedir, sizeof tni->tni_cachedir);
  int code = tnw_tfi_fallback(cachedir);
  if (code != 0) {
    tninit->tnw_flags |= TNW_INIT_NO_RETRY;
  } else {
    code = wait_for_old_service(tni, fd);
  }
  ox_close(fd);
  return code;
}

int check_filled(const tnw_tninstance* tni, tnw_tninit* tninit) {
  const int made = tnw_make_folder(tni->tni_cachedir);
  if (made != 0) {
    return TNW_REFUSE(made, nullptr, made, "Failed to create dir %.*s",
                      TN_FIELD(tni->tni_cachedir));
  }
  const int code = update_da_pid_file(tni);
  return code != 0 ? code : check_service_pid_file(tni, tninit);
}

}  // namespace

int tnw_tfi_fallback(const char* cachedir) {
  OX_ASSERT_HELD(&tnw_glock);
  char name[MAX_EVENT_NAME + 32];
  const int n = snprintf(name, sizeof name, "Global\\%s/%s", cachedir, "tfi.force_fallback");
  if (n < 0 || static_cast<ox_u32>(n) > MAX_EVENT_NAME) {
    return 0;
  }
  ox_event_name_fold(name + strlen("Global\\"));
  const HANDLE event = CreateEventA(nullptr, FALSE, FALSE, name);
  const bool existed = event != nullptr && GetLastError() == ERROR_ALREADY_EXISTS;
  const bool told = existed && SetEvent(event) != 0;
  if (event != nullptr) {
    CloseHandle(event);
  }
  if (!told) {
    return 0;
  }
  TNW_INFO(nullptr, "TFI: force fallback. Notifying event name %s", name);
  return ERROR_GEN_FAILURE;
}

int tnw_check_instance(tnw_tninit* tninit) {
  OX_ASSERT_HELD(&tnw_glock);
  tnw_tninstance* tni = tnw_alloc_tninstance();
  if (tni == nullptr) {
    return TNW_REFUSE(OX_ENOMEM, nullptr, OX_ENOMEM,
                      "Failed to allocate memory for tnw_tninstance_t");
  }
  tnw_fill_tninstance(tninit, tni); /* what it could not fill stays empty, and the start goes on */
  const int code = check_filled(tni, tninit);
  tnw_free_tninstance(tni);
  return code;
}
