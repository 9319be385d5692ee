/*
 * Files by their path: size and kind, and removal.
 */
#include "ox_file.h"

#include <cerrno>

#include "ox_win_handle.h"

int ox_stat(const char* path, ox_stat_t* st) {
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (GetFileAttributesExA(path, GetFileExInfoStandard, &data) == 0) {
    ox_set_errno();
    return -1;
  }
  st->st_size = static_cast<ox_u64>(data.nFileSizeHigh) << 32 | data.nFileSizeLow;
  st->st_isdir = (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  return 0;
}

int ox_unlink(const char* path) {
  if (DeleteFileA(path) == 0) {
    ox_set_errno();
    return -1;
  }
  return 0;
}
