/* What the client needs of the portability layer's sources for Windows. */
#include <windows.h>

#include <atomic>

#include "ox_dirtree.h"
#include "ox_platform.h"
#include "ox_uuid.h"

void ox_uuid_generate(ox_u8* id) {
  static std::atomic<ox_u64> last = 0;
  const ox_u64 number = ++last;
  memcpy(id, &number, sizeof number);
}
int ox_close(int fd) { return close(fd); }
int ox_close_fhdl(ox_handle handle) { return CloseHandle(handle) != FALSE ? 0 : -1; }
int ox_ftruncate(int fd, ox_off length) { return ftruncate(fd, length); }
int ox_handle2path(ox_handle, char* path, size_t, const char*) { return *strcpy(path, "?"); }
int ox_get_max_openfiles(void) { return 64; }
bool ox_is_below(const char*, const char*) { return false; }
