/*
 * Windows file handles with an owner, and the Windows errors of file calls as the error numbers
 * that travel.
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
  ~FileHandle() { Close(); }

  void Close() {
    if (Valid()) {
      CloseHandle(std::exchange(handle_, INVALID_HANDLE_VALUE));
    }
  }
  bool Valid() const { return handle_ != INVALID_HANDLE_VALUE; }
  HANDLE Get() const { return handle_; }

 private:
  HANDLE handle_ = INVALID_HANDLE_VALUE;
};

inline constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

inline uint64_t Join(DWORD high, DWORD low) { return (static_cast<uint64_t>(high) << 32) | low; }

/* Access denied travels as EPERM, since EACCES reaches the desktop as a sharing violation. */
int ErrnoOfWindows(DWORD code);
/* The same of the thread's last error. */
int LastError();

}  // namespace tarnd

#endif
