/*
 * Shows a folder of the cloud as its list has it: sizes, names and checksums, without the service.
 */
#include <stdio.h>
#include <windows.h>

#include "ox_platform.h"
#include "tn_util.h"

/* Reads the list behind a descriptor. Null when it is no list, or when a part is missing. */
static cfs_cffl* read_list(int fd) {
  cfs_cffl* header = tn_fread_cffl(fd, 4096, false);
  if (header == NULL) {
    return NULL;
  }
  /* The reader would wait for bytes that are missing. */
  const bool whole = ox_lseek(fd, 0, 2) >= (ox_off)header->cfh_head.cf_size;
  tn_free_cffl(&header);
  return whole && ox_lseek(fd, 0, 0) == 0 ? tn_fread_cffl(fd, 4096, true) : NULL;
}

int main(int argc, char** argv) {
  if (argc != 2) {
    return puts("usage: list_folder LIST"), 2;
  }
  int fd = ox_open(argv[1], OX_O_RDONLY);
  if (fd < 0) {
    return 1;
  }
  cfs_cffl* list = read_list(fd);
  ox_close(fd);
  if (list == NULL) {
    return puts("no list, or not all of one"), 1;
  }

  printf("%.256s: %s\n", list->cfh_name, tn_print_permissions(list->cfh_head.cf_perms));
  for (cfs_path* cfp = tn_get_first_cfp(list); cfp != NULL; cfp = tn_get_next_cfp(list, cfp)) {
    tnw_fileinfo info;
    tn_cfp2fi(&info, cfp);
    const char* kind = (info.fi_attr & FILE_ATTRIBUTE_DIRECTORY) != 0 ? "folder" : "file  ";
    printf("%10llu %s %.245s %.20s\n", (unsigned long long)info.fi_size, kind, info.fi_name,
           info.fi_cksum);
  }
  tn_free_cffl(&list);
  return 0;
}
