/*
 * Appending in Windows builds.
 */
#include "ox_native_append.h"

#include <fcntl.h>
#include <io.h>

#include "ox_win_handle.h"

int ox_native_append_to(FILE* stream) {
  const HANDLE self = GetCurrentProcess();
  HANDLE appender = nullptr;
  if (DuplicateHandle(self, ox_fd_handle(_fileno(stream)), self, &appender,
                      FILE_APPEND_DATA | SYNCHRONIZE, FALSE, 0) == 0) {
    ox_set_errno();
    return -1;
  }
  const int fd =
      _open_osfhandle(reinterpret_cast<intptr_t>(appender), _O_BINARY | _O_WRONLY | _O_NOINHERIT);
  if (fd < 0) {
    CloseHandle(appender);
  }
  return fd;
}
