#include <stdio.h>
#include <string.h>
#include "tnw.h"

int main(int argc, char** argv) {
  static tnw_tninit init = {.tnw_min_threads = 1, .tnw_max_threads = 4};
  if (argc != 4) {
    return puts("first_drive SERVICE CLOUD_URL WORK_DIR"), 2;
  }
  snprintf(init.tnw_binpath, sizeof init.tnw_binpath, "%s", argv[1]);
  snprintf(init.tnw_api_addr, sizeof init.tnw_api_addr, "%s", argv[2]);
  snprintf(init.tnw_workdir, sizeof init.tnw_workdir, "%s", argv[3]);
  snprintf(init.tnw_logdir, sizeof init.tnw_logdir, "%s\\log", argv[3]);
  strcpy(init.tnw_config_addr, "none");
  strcpy(init.tnw_username, "me");
  strcpy(init.tnw_domain, "example.test");
  strcpy(init.tnw_authtoken, "token");
  strcpy(init.tnw_da_device_id, "11111111-1111-1111-1111-111111111111");
  strcpy(init.tnw_da_drive_id, "22222222-2222-2222-2222-222222222222");

  int err;
  void* drive = tnw_init(&init, &err);
  if (!drive) {
    return printf("no drive: Windows error %d\n", err), 1;
  }

  tnw_fileinfo entry;
  void* list = tnw_findfirst(drive, "\\", &entry, "first_drive", &err);
  for (; list && err == 0; err = tnw_findnext(list, &entry)) {
    printf("%10llu %s %.245s\n", (unsigned long long)entry.fi_size,
           entry.fi_attr & 16 ? "folder" : "file  ", entry.fi_name);
  }
  if (list) {
    tnw_findclose(list);
  }
  printf(err == 18 ? "the end of the list\n" : "Windows error %d\n", err);
  return tnw_deinit(drive, false);
}
