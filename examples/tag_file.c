/*
 * Shows an attribute of a file, sets it to VALUE, or removes it when VALUE is "". Each run locks
 * the file, so that no other run sees a value half replaced.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <windows.h>

#include "ox_lock.h"
#include "ox_xattr.h"

/* The length of the value; -1 when there is none. */
static ox_off value_length(const char* file, const char* name) {
  char stream[OX_MAXPATH_LEN];
  if (ox_get_stream_name(file, name, stream) != 0) {
    return -1;
  }
  int fd = ox_creat(stream, OX_O_RDONLY, 0222); /* without a value it logs nothing */
  if (fd < 0) {
    return -1;
  }
  ox_off length = ox_lseek(fd, 0, 2);
  ox_close(fd);
  return length;
}

static int show(int fd, const char* file, const char* name) {
  ox_off length = value_length(file, name);
  if (length < 0) {
    return printf("%s: none\n", name), 1;
  }
  char* value = malloc((size_t)length + 1); /* must hold the whole value */
  ox_s64 got = value != NULL ? ox_fgetxattr(fd, name, value, (size_t)length) : -1;
  if (got >= 0) {
    printf("%s: %.*s\n", name, (int)got, value);
  }
  free(value);
  return got < 0;
}

/* The old value is removed first: a shorter one would keep its tail. */
static int set(const char* file, const char* name, const char* value) {
  if (ox_removexattr(file, name) == 0 &&
      (value[0] == '\0' || ox_setxattr(file, name, value, strlen(value), 0) == 0)) {
    return 0;
  }
  return printf("%s: cannot be set\n", name), 1;
}

int main(int argc, char** argv) {
  if (argc < 3 || argc > 4) {
    return puts("usage: tag_file FILE NAME [VALUE]"), 2;
  }
  int fd = ox_open(argv[1], OX_O_RDWR);
  if (fd < 0) {
    return 1;
  }
  OVERLAPPED far_behind_the_content = {.OffsetHigh = 0x7fffffff}; /* others may read */
  if (!ox_lock_file(fd, LOCKFILE_EXCLUSIVE_LOCK, 1, 0, &far_behind_the_content)) {
    return 1;
  }
  int status = argc == 3 ? show(fd, argv[1], argv[2]) : set(argv[1], argv[2], argv[3]);
  ox_unlock_file(fd, 1, 0, &far_behind_the_content);
  ox_close(fd);
  return status;
}
