#include "cloud/directory/cloud_part.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <vector>

#include "files/windows_file.h"
#include "ox_errno.h"

namespace tarnd {
namespace {

constexpr std::wstring_view PART_LEAD = L".~tarnd-";
constexpr std::wstring_view PART_TAIL = L".part";

/* Copies the announced content into the file, all of it or an error. */
int copy_content(HANDLE file, uint64_t size, const ContentReader& content) {
  std::vector<char> buffer(static_cast<size_t>(std::min<uint64_t>(size, 1 << 20)));
  for (uint64_t offset = 0; offset < size;) {
    const size_t want = static_cast<size_t>(std::min<uint64_t>(buffer.size(), size - offset));
    size_t got = 0;
    if (const int err = content(offset, buffer.data(), want, &got)) {
      return err;
    }
    DWORD written = 0;
    if (got == 0 || got > want) {
      return OX_EIO;
    }
    if (WriteFile(file, buffer.data(), static_cast<DWORD>(got), &written, nullptr) == 0) {
      return last_error();
    }
    if (written != got) {
      return OX_ENOSPC;
    }
    offset += got;
  }
  return 0;
}

/* The new content of a file keeps its attributes and its time of creation. */
void keep_attributes(const std::wstring& target, HANDLE part) {
  WIN32_FILE_ATTRIBUTE_DATA old;
  if (GetFileAttributesExW(target.c_str(), GetFileExInfoStandard, &old) == 0) {
    return;
  }
  FILE_BASIC_INFO info = {};
  info.CreationTime.QuadPart = static_cast<LONGLONG>(
      join(old.ftCreationTime.dwHighDateTime, old.ftCreationTime.dwLowDateTime));
  info.FileAttributes = old.dwFileAttributes;
  SetFileInformationByHandle(part, FileBasicInfo, &info, sizeof info);
}

}  // namespace

bool is_part(std::wstring_view name) {
  return name.starts_with(PART_LEAD) && name.ends_with(PART_TAIL);
}

std::wstring new_part(const std::wstring& target) {
  static std::atomic<unsigned> count = 0;
  LARGE_INTEGER now;
  QueryPerformanceCounter(&now);
  return target.substr(0, target.rfind(L'\\') + 1)
      .append(PART_LEAD)
      .append(std::to_wstring(GetCurrentProcessId()) + L'-' + std::to_wstring(now.QuadPart) + L'-' +
              std::to_wstring(++count))
      .append(PART_TAIL);
}

void remove_parts(const std::wstring& folder, uint64_t min_age) {
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  const uint64_t limit = join(now.dwHighDateTime, now.dwLowDateTime) - min_age;
  WIN32_FIND_DATAW found;
  const std::wstring pattern = folder + L'\\' + std::wstring(PART_LEAD) + L'*';
  const HANDLE search = FindFirstFileW(pattern.c_str(), &found);
  if (search == INVALID_HANDLE_VALUE) {
    return;
  }
  do {
    const FILETIME& written = found.ftLastWriteTime;
    if (is_part(found.cFileName) && join(written.dwHighDateTime, written.dwLowDateTime) <= limit) {
      DeleteFileW((folder + L'\\' + found.cFileName).c_str());
    }
  } while (FindNextFileW(search, &found) != 0);
  FindClose(search);
}

int write_part(const std::wstring& part, const std::wstring& target, uint64_t size,
               const ContentReader& content) {
  const FileHandle file(CreateFileW(part.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                    CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file.valid()) {
    return last_error();
  }
  if (const int err = copy_content(file.get(), size, content)) {
    return err;
  }
  keep_attributes(target, file.get());
  return FlushFileBuffers(file.get()) != 0 ? 0 : last_error();
}

}  // namespace tarnd
