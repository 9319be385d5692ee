#include "files/local_file.h"

#include <winioctl.h>

#include <algorithm>

#include "ox_errno.h"
#include "uuid_text.h"

namespace tarnd {
namespace {

constexpr size_t MAX_TRANSFER = size_t{1} << 30;

HANDLE open_shared(const std::wstring& path, DWORD disposition) {
  return CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, SHARE_ALL, nullptr, disposition,
                     FILE_ATTRIBUTE_NORMAL, nullptr);
}

/* A disk without sparse files stores the zeros. */
void make_sparse(HANDLE file) {
  DWORD bytes = 0;
  DeviceIoControl(file, FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &bytes, nullptr);
}

}  // namespace

std::string new_local_name() {
  const std::string name = text_of_id(new_id());
  return name.substr(0, 2) + '\\' + name;
}

int LocalFile::open(bool* existed) {
  file_ = FileHandle(open_shared(path_, OPEN_ALWAYS));
  if (!file_.valid() && GetLastError() == ERROR_PATH_NOT_FOUND) { /* the first one of its folder */
    CreateDirectoryW(path_.substr(0, path_.rfind(L'\\')).c_str(), nullptr);
    file_ = FileHandle(open_shared(path_, OPEN_ALWAYS));
  }
  if (!file_.valid()) {
    return last_error();
  }
  if (existed != nullptr) {
    *existed = GetLastError() == ERROR_ALREADY_EXISTS;
  }
  make_sparse(file_.get());
  return 0;
}

int LocalFile::open_empty() {
  bool existed = true;
  const int err = is_open() ? 0 : open(&existed);
  return err != 0 || !existed ? err : set_size(0);
}

int LocalFile::open_existing() {
  file_ = FileHandle(open_shared(path_, OPEN_EXISTING));
  return file_.valid() ? 0 : last_error();
}

int LocalFile::flush() const { return FlushFileBuffers(file_.get()) != 0 ? 0 : last_error(); }

void LocalFile::remove() {
  file_.close();
  DeleteFileW(path_.c_str());
}

int LocalFile::size(uint64_t* size) const {
  LARGE_INTEGER found;
  if (GetFileSizeEx(file_.get(), &found) == 0) {
    return last_error();
  }
  *size = static_cast<uint64_t>(found.QuadPart);
  return 0;
}

int LocalFile::size_on_disk(uint64_t* size) const {
  WIN32_FILE_ATTRIBUTE_DATA found;
  if (GetFileAttributesExW(path_.c_str(), GetFileExInfoStandard, &found) == 0) {
    return last_error();
  }
  *size = join(found.nFileSizeHigh, found.nFileSizeLow);
  return 0;
}

int LocalFile::set_size(uint64_t size) const {
  FILE_END_OF_FILE_INFO info = {};
  info.EndOfFile.QuadPart = static_cast<LONGLONG>(size);
  return SetFileInformationByHandle(file_.get(), FileEndOfFileInfo, &info, sizeof info) != 0
             ? 0
             : last_error();
}

int LocalFile::read(uint64_t offset, void* buffer, size_t size, size_t* got) const {
  *got = 0;
  while (*got < size) {
    OVERLAPPED position = overlapped_at(offset + *got);
    const DWORD want = static_cast<DWORD>(std::min(size - *got, MAX_TRANSFER));
    DWORD count = 0;
    if ((ReadFile(file_.get(), static_cast<char*>(buffer) + *got, want, &count, &position) == 0) &&
        GetLastError() != ERROR_HANDLE_EOF) {
      return last_error();
    }
    if (count == 0) {
      break;
    }
    *got += count;
  }
  return 0;
}

int LocalFile::write(uint64_t offset, const void* data, size_t size) const {
  for (size_t done = 0; done < size;) {
    OVERLAPPED position = overlapped_at(offset + done);
    const DWORD want = static_cast<DWORD>(std::min(size - done, MAX_TRANSFER));
    DWORD count = 0;
    if (WriteFile(file_.get(), static_cast<const char*>(data) + done, want, &count, &position) ==
        0) {
      return last_error();
    }
    if (count == 0) {
      return OX_ENOSPC;
    }
    done += count;
  }
  return 0;
}

uint64_t LocalFile::modified() const {
  FILETIME time;
  return GetFileTime(file_.get(), nullptr, nullptr, &time) != 0
             ? join(time.dwHighDateTime, time.dwLowDateTime)
             : 0;
}

int LocalFile::open_for(HANDLE process, uint64_t* handle) const {
  HANDLE theirs = nullptr;
  const HANDLE ours = open_shared(path_, OPEN_EXISTING);
  if (ours == INVALID_HANDLE_VALUE ||
      (DuplicateHandle(GetCurrentProcess(), ours, process, &theirs, 0, FALSE,
                       DUPLICATE_SAME_ACCESS | DUPLICATE_CLOSE_SOURCE) == 0)) {
    return last_error();
  }
  *handle = reinterpret_cast<uint64_t>(theirs);
  return 0;
}

void LocalFile::take_back(HANDLE process, uint64_t handle) {
  /*
   * Taken into this process and closed here: Wine closes nothing when there is no target process.
   */
  HANDLE taken = nullptr;
  if (DuplicateHandle(process, reinterpret_cast<HANDLE>(handle), GetCurrentProcess(), &taken, 0,
                      FALSE, DUPLICATE_CLOSE_SOURCE | DUPLICATE_SAME_ACCESS) != 0) {
    CloseHandle(taken);
  }
}

}  // namespace tarnd
