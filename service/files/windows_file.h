/*
 * Windows file handles with an owner, places in a file, and the Windows errors of file calls as the
 * error numbers that travel.
 */
#ifndef SERVICE_WINDOWS_FILE_H
#define SERVICE_WINDOWS_FILE_H

#include <windows.h>

#include <cstdint>
#include <utility>

namespace tarnd {

/* Owns a handle of CreateFileW. */
class FileHandle {
 public:
  FileHandle() = default;
  explicit FileHandle(HANDLE handle) : handle_(handle) {}
  FileHandle(FileHandle&& other) noexcept
      : handle_(std::exchange(other.handle_, INVALID_HANDLE_VALUE)) {}
  FileHandle& operator=(FileHandle&& other) noexcept {
    std::swap(handle_, other.handle_);
    return *this;
  }
  ~FileHandle() { close(); }

  void close() {
    if (valid()) {
      CloseHandle(std::exchange(handle_, INVALID_HANDLE_VALUE));
    }
  }
  bool valid() const { return handle_ != INVALID_HANDLE_VALUE; }
  HANDLE get() const { return handle_; }

 private:
  HANDLE handle_ = INVALID_HANDLE_VALUE;
};

inline constexpr DWORD SHARE_ALL = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

inline uint64_t join(DWORD high, DWORD low) { return (static_cast<uint64_t>(high) << 32) | low; }

/* A place in a file, for ReadFile and WriteFile. */
OVERLAPPED overlapped_at(uint64_t offset);

/* Access denied travels as EPERM, since EACCES reaches the desktop as a sharing violation. */
int errno_of_windows(DWORD code);
/* The same of the thread's last error. */
int last_error();

}  // namespace tarnd

#endif
