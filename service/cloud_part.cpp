#include "cloud_part.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <vector>

#include "ox_errno.h"
#include "windows_file.h"

namespace tarnd {
namespace {

constexpr std::wstring_view kPartLead = L".~tarnd-";
constexpr std::wstring_view kPartTail = L".part";

/* Copies the announced content into the file, all of it or an error. */
int CopyContent(HANDLE file, uint64_t size, const ContentReader& content) {
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
      return LastError();
    }
    if (written != got) {
      return OX_ENOSPC;
    }
    offset += got;
  }
  return 0;
}

/* The new content of a file keeps its attributes and its time of creation. */
void KeepAttributes(const std::wstring& target, HANDLE part) {
  WIN32_FILE_ATTRIBUTE_DATA old;
  if (GetFileAttributesExW(target.c_str(), GetFileExInfoStandard, &old) == 0) {
    return;
  }
  FILE_BASIC_INFO info = {};
  info.CreationTime.QuadPart = static_cast<LONGLONG>(
      Join(old.ftCreationTime.dwHighDateTime, old.ftCreationTime.dwLowDateTime));
  info.FileAttributes = old.dwFileAttributes;
  SetFileInformationByHandle(part, FileBasicInfo, &info, sizeof info);
}

}  // namespace

bool IsPart(std::wstring_view name) {
  return name.starts_with(kPartLead) && name.ends_with(kPartTail);
}

std::wstring NewPart(const std::wstring& target) {
  static std::atomic<unsigned> count = 0;
  LARGE_INTEGER now;
  QueryPerformanceCounter(&now);
  return target.substr(0, target.rfind(L'\\') + 1)
      .append(kPartLead)
      .append(std::to_wstring(GetCurrentProcessId()) + L'-' + std::to_wstring(now.QuadPart) + L'-' +
              std::to_wstring(++count))
      .append(kPartTail);
}

void RemoveParts(const std::wstring& folder, uint64_t min_age) {
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  const uint64_t limit = Join(now.dwHighDateTime, now.dwLowDateTime) - min_age;
  WIN32_FIND_DATAW found;
  const std::wstring pattern = folder + L'\\' + std::wstring(kPartLead) + L'*';
  const HANDLE search = FindFirstFileW(pattern.c_str(), &found);
  if (search == INVALID_HANDLE_VALUE) {
    return;
  }
  do {
    const FILETIME& written = found.ftLastWriteTime;
    if (IsPart(found.cFileName) && Join(written.dwHighDateTime, written.dwLowDateTime) <= limit) {
      DeleteFileW((folder + L'\\' + found.cFileName).c_str());
    }
  } while (FindNextFileW(search, &found) != 0);
  FindClose(search);
}

int WritePart(const std::wstring& part, const std::wstring& target, uint64_t size,
              const ContentReader& content) {
  const FileHandle file(CreateFileW(part.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                    CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file.Valid()) {
    return LastError();
  }
  if (const int err = CopyContent(file.Get(), size, content)) {
    return err;
  }
  KeepAttributes(target, file.Get());
  return FlushFileBuffers(file.Get()) != 0 ? 0 : LastError();
}

}  // namespace tarnd
