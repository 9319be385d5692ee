#include "pid_file.h"

#include "ox_errno.h"

namespace tarnd {

int PidFile::Take(const std::wstring& cache_folder) {
  FileHandle file(CreateFileW((cache_folder + L"\\tarnd_pid").c_str(), GENERIC_READ | GENERIC_WRITE,
                              kShareAll, nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file.Valid()) {
    return LastError();
  }
  OVERLAPPED far_byte = {};
  far_byte.OffsetHigh = 0x40000000;
  if (LockFileEx(file.Get(), LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0,
                 &far_byte) == 0) {
    return GetLastError() == ERROR_LOCK_VIOLATION ? OX_EBUSY : LastError();
  }
  const std::string text = std::to_string(GetCurrentProcessId());
  DWORD written = 0;
  if ((SetEndOfFile(file.Get()) == 0) ||
      (WriteFile(file.Get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr) ==
       0)) {
    return LastError();
  }
  file_ = std::move(file);
  return 0;
}

}  // namespace tarnd
