#include "tools/drive/drive_file.h"

#include <windows.h>

#include "tnw.h"

namespace tools {

int read_at(void* file, uint64_t offset, void* buffer, size_t size, size_t* count) {
  ox_s64 got = 0;
  int err = tnw_read(file, buffer, size, static_cast<ox_off>(offset), &got, nullptr);
  *count = static_cast<size_t>(got);
  if (err == ERROR_HANDLE_EOF) {
    return 0;
  }
  return err == 0 && got == 0 ? ERROR_READ_FAULT : err; /* the service gives no reason */
}

int write_at(void* file, uint64_t offset, const void* data, size_t size) {
  ox_s64 count = 0;
  const int err =
      tnw_write(file, const_cast<void*>(data), size, static_cast<ox_off>(offset), &count, nullptr);
  return err == 0 && count != static_cast<ox_s64>(size) ? ERROR_DISK_FULL : err;
}

}  // namespace tools
