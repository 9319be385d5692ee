#include "pid_file.h"

#include "ox_errno.h"

namespace tarnd {

int PidFile::take(const std::wstring& cache_folder) {
  FileHandle file(CreateFileW((cache_folder + L"\\tarnd_pid").c_str(), GENERIC_READ | GENERIC_WRITE,
                              SHARE_ALL, nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file.valid()) {
    return last_error();
  }
  OVERLAPPED far_byte = {};
  far_byte.OffsetHigh = 0x40000000;
  if (LockFileEx(file.get(), LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0,
                 &far_byte) == 0) {
    return GetLastError() == ERROR_LOCK_VIOLATION ? OX_EBUSY : last_error();
  }
  const std::string text = std::to_string(GetCurrentProcessId());
  DWORD written = 0;
  if ((SetEndOfFile(file.get()) == 0) ||
      (WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr) ==
       0)) {
    return last_error();
  }
  file_ = std::move(file);
  return 0;
}

}  // namespace tarnd
