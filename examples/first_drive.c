#include <stdio.h>
#include <windows.h>

#include "tnw.h"

int main(int argc, char** argv) {
  static tnw_tninit init = {.tnw_min_threads = 1,
                            .tnw_max_threads = 4,
                            .tnw_config_addr = "none",
                            .tnw_username = "me",
                            .tnw_domain = "example.test",
                            .tnw_authtoken = "token",
                            .tnw_da_device_id = "11111111-1111-1111-1111-111111111111",
                            .tnw_da_drive_id = "22222222-2222-2222-2222-222222222222"};
  if (argc != 4) {
    return puts("usage: first_drive SERVICE CLOUD_URL WORK_DIR"), 2;
  }
  snprintf(init.tnw_binpath, sizeof init.tnw_binpath, "%s", argv[1]);
  snprintf(init.tnw_api_addr, sizeof init.tnw_api_addr, "%s", argv[2]);
  snprintf(init.tnw_workdir, sizeof init.tnw_workdir, "%s", argv[3]);
  snprintf(init.tnw_logdir, sizeof init.tnw_logdir, "%s\\log", argv[3]);

  int err;
  void* drive = tnw_init(&init, &err);
  if (drive == NULL) {
    return printf("no drive: Windows error %d\n", err), 1;
  }
  tnw_fileinfo entry;
  void* list = tnw_findfirst(drive, "\\", &entry, "first_drive", &err);
  for (; list != NULL && err == 0; err = tnw_findnext(list, &entry)) {
    const char* kind = (entry.fi_attr & FILE_ATTRIBUTE_DIRECTORY) != 0 ? "folder" : "file  ";
    printf("%10llu %s %.245s\n", (unsigned long long)entry.fi_size, kind, entry.fi_name);
  }
  if (list != NULL) {
    tnw_findclose(list);
  }
  printf(err == ERROR_NO_MORE_FILES ? "the end of the list\n" : "Windows error %d\n", err);
  return tnw_deinit(drive, false);
}
