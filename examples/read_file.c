/*
 * Writes a file of the drive to the standard output, and shows what to do when the token is no
 * longer valid (1326) and when the service is gone (1467).
 */
#include <fcntl.h>
#include <io.h>
#include <stdio.h>
#include <windows.h>

#include "tnw.h"

/* Where your program asks its login service, or the user. */
static char* new_token(void) {
  static char token[] = "a new token";
  return token;
}

/* Whether a call that returned `err` is to be made again, because the service has a new token now.
 */
static bool renewed(void* drive, int err) {
  static int renewals = 0;
  return err == ERROR_LOGON_FAILURE && renewals++ < 3 && tnw_updatetoken(drive, new_token()) == 0;
}

static void* open_file(void* drive, const char* path, void** slot, int* err) {
  void* file;
  do {
    file = tnw_create(drive, slot, path, TNW_ACC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                      TNW_DISP_OPEN, TNW_OPT_FILE, (int)GetCurrentProcessId(), "read_file", err);
  } while (renewed(drive, *err));
  return file;
}

/* Writes what is behind *done, which it moves: 0, or the code of the call that failed. */
static int write_rest(void* drive, const char* path, ox_off* done) {
  static char buffer[64 * 1024];
  void* slot = NULL; /* for the file's context: this is its only open */
  int err = 0;
  void* file = open_file(drive, path, &slot, &err);
  if (file == NULL) {
    return err;
  }
  ox_s64 count = 0;
  do {
    *done += count;
    count = 0;
    err = tnw_read(file, buffer, sizeof buffer, *done, &count, NULL);
    fwrite(buffer, 1, (size_t)count, stdout);
  } while (count > 0 || renewed(drive, err));
  while (renewed(drive, tnw_close(file, NULL))) {
  }
  return err == ERROR_HANDLE_EOF ? 0 : err;
}

int main(int argc, char** argv) {
  static tnw_tninit init = {.tnw_min_threads = 1,
                            .tnw_max_threads = 4,
                            .tnw_config_addr = "none",
                            .tnw_username = "me",
                            .tnw_domain = "example.test",
                            .tnw_da_device_id = "11111111-1111-1111-1111-111111111111",
                            .tnw_da_drive_id = "22222222-2222-2222-2222-222222222222"};
  if (argc != 6) {
    return puts("usage: read_file SERVICE CLOUD_URL WORK_DIR TOKEN PATH"), 2;
  }
  snprintf(init.tnw_binpath, sizeof init.tnw_binpath, "%s", argv[1]);
  snprintf(init.tnw_api_addr, sizeof init.tnw_api_addr, "%s", argv[2]);
  snprintf(init.tnw_workdir, sizeof init.tnw_workdir, "%s", argv[3]);
  snprintf(init.tnw_logdir, sizeof init.tnw_logdir, "%s\\log", argv[3]);
  snprintf(init.tnw_authtoken, sizeof init.tnw_authtoken, "%s", argv[4]);
  _setmode(_fileno(stdout), _O_BINARY);

  int err;
  ox_off done = 0;
  void* drive = tnw_init(&init, &err);
  if (drive != NULL) {
    err = write_rest(drive, argv[5], &done);
  }
  if (err == TNW_ERROR_NO_SERVICE) { /* it is started again, and goes on with what it had to do */
    tnw_deinit(drive, false);
    drive = tnw_init(&init, &err);
    err = drive != NULL ? write_rest(drive, argv[5], &done) : err;
  }
  if (err != 0) {
    fprintf(stderr, "%s: Windows error %d\n", argv[5], err);
  }
  if (drive != NULL) {
    tnw_deinit(drive, false);
  }
  return err == 0 ? 0 : 1;
}
