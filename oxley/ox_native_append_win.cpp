/*
 * Appending in Windows builds: a second handle of the stream's file, which has no other right.
 */
#include "ox_native_append.h"

#include "ox_win_handle.h"

void* ox_native_append_open(FILE* stream) {
  const HANDLE self = GetCurrentProcess();
  HANDLE appender = nullptr;
  if (DuplicateHandle(self, ox_fd_handle(_fileno(stream)), self, &appender,
                      FILE_APPEND_DATA | SYNCHRONIZE, FALSE, 0) == 0) {
    ox_set_errno();
    return nullptr;
  }
  return appender;
}

void ox_native_append_close(void* appender) {
  if (appender != nullptr) {
    CloseHandle(appender);
  }
}

bool ox_native_append(void* appender, const char* data, size_t size) {
  DWORD written = 0;
  if (WriteFile(appender, data, static_cast<DWORD>(size), &written, nullptr) == 0) {
    ox_set_errno();
    return false;
  }
  return written == size;
}
