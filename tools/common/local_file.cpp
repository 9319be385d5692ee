#include "tools/common/local_file.h"

#include <windows.h>

#include <shlobj.h>

#include <utility>

#include "tools/common/failure.h"
#include "tools/common/wide_text.h"

namespace tools {
namespace {

std::wstring full_path(const std::string& path) {
  const std::wstring wide = wide_from_utf8(path);
  if (wide.empty() || wide.find(L'\0') != std::wstring::npos) {
    throw Failure(path, "is no path");
  }
  std::wstring full(32768, L'\0');
  full.resize(GetFullPathNameW(wide.c_str(), 32768, full.data(), nullptr));
  if (full.empty()) {
    throw Failure(path, "is no path", GetLastError());
  }
  return full;
}

DWORD attributes_of(const std::string& path) {
  return GetFileAttributesW(verbatim_path(path).c_str());
}

uint64_t number_of(const FILETIME& time) {
  return uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime;
}

/* `found` is one of the two records that Windows has for this. */
template <typename Found>
LocalEntry entry_of(const std::string& name, const Found& found) {
  const bool folder = (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  return {.name = name,
          .folder = folder,
          .link = folder && (found.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0,
          .created = number_of(found.ftCreationTime),
          .modified = number_of(found.ftLastWriteTime),
          .accessed = number_of(found.ftLastAccessTime)};
}

}  // namespace

std::string absolute_path(const std::string& path) {
  std::string absolute = utf8_from_wide(full_path(path));
  if (absolute.empty()) {
    throw Failure(path, "leads to a name that is no Unicode text");
  }
  return absolute;
}

std::wstring verbatim_path(const std::string& path) {
  std::wstring full = full_path(path);
  if (full.starts_with(L"\\\\?\\") || full.starts_with(L"\\\\.\\")) {
    return full;
  }
  return full.starts_with(L"\\\\") ? L"\\\\?\\UNC" + full.substr(1) : L"\\\\?\\" + full;
}

std::string code_page_path(const std::string& path) {
  const std::wstring full = full_path(path);
  const int units = static_cast<int>(full.size());
  std::string narrow(full.size() * 4, '\0');
  narrow.resize(static_cast<size_t>(WideCharToMultiByte(
      CP_ACP, 0, full.data(), units, narrow.data(), units * 4, nullptr, nullptr)));
  std::wstring back(full.size(), L'\0');
  back.resize(static_cast<size_t>(MultiByteToWideChar(
      CP_ACP, 0, narrow.data(), static_cast<int>(narrow.size()), back.data(), units)));
  if (back != full) {
    throw Failure(path, "has characters that this system's code page " + std::to_string(GetACP()) +
                            " has not");
  }
  return narrow;
}

bool is_local_folder(const std::string& path) {
  const DWORD attributes = attributes_of(path);
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

/* The value that says "there is nothing" has the bit of a folder, too. */
bool is_local_file(const std::string& path) {
  return (attributes_of(path) & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

void make_local_folders(const std::string& path) {
  const int code = SHCreateDirectoryExW(nullptr, full_path(path).c_str(), nullptr);
  if (code != ERROR_SUCCESS && code != ERROR_ALREADY_EXISTS) {
    throw Failure(path, "cannot make the folder", static_cast<uint32_t>(code));
  }
}

void make_local_folder(const std::string& path) {
  if (!is_local_folder(path) && (CreateDirectoryW(verbatim_path(path).c_str(), nullptr) == 0)) {
    throw Failure(path, "cannot make the folder", GetLastError());
  }
}

LocalEntry local_entry(const std::string& path) {
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (GetFileAttributesExW(verbatim_path(path).c_str(), GetFileExInfoStandard, &data) == 0) {
    throw Failure(path, "cannot be looked at", GetLastError());
  }
  return entry_of(path, data);
}

std::vector<LocalEntry> list_local(const std::string& path) {
  std::vector<LocalEntry> entries;
  WIN32_FIND_DATAW found;
  std::wstring pattern = verbatim_path(path);
  pattern += pattern.ends_with(L'\\') ? L"*" : L"\\*";
  const HANDLE search = FindFirstFileW(pattern.c_str(), &found);
  if (search == INVALID_HANDLE_VALUE) {
    throw Failure(path, "cannot list", GetLastError());
  }
  do {
    entries.push_back(entry_of(utf8_from_wide(found.cFileName), found));
  } while (!entries.back().name.empty() && FindNextFileW(search, &found) != 0);
  const DWORD end = GetLastError();
  FindClose(search);
  if (entries.back().name.empty()) {
    throw Failure(path, "holds a name that is no Unicode text");
  }
  if (end != ERROR_NO_MORE_FILES) {
    throw Failure(path, "cannot list", end);
  }
  std::erase_if(entries,
                [](const LocalEntry& entry) { return entry.name == "." || entry.name == ".."; });
  return entries;
}

LocalFile& LocalFile::operator=(LocalFile&& other) noexcept {
  path_.swap(other.path_);
  target_.swap(other.target_);
  part_.swap(other.part_);
  std::swap(file_, other.file_);
  return *this;
}

LocalFile::~LocalFile() {
  close();
  if (!part_.empty()) {
    DeleteFileW(part_.c_str());
  }
}

void LocalFile::close() {
  if (file_ != nullptr) {
    CloseHandle(std::exchange(file_, nullptr));
  }
}

LocalFile LocalFile::open(const std::string& path, const char* what, uint32_t access,
                          uint32_t share, uint32_t disposition, uint32_t flags,
                          const std::wstring& suffix) {
  LocalFile file;
  file.path_ = path;
  file.target_ = verbatim_path(path);
  if (access == GENERIC_READ && is_local_folder(path)) {
    throw Failure(path, "is a folder, not a file");
  }
  const std::wstring place = file.target_ + suffix;
  file.file_ = CreateFileW(place.c_str(), access, share, nullptr, disposition, flags, nullptr);
  if (file.file_ == INVALID_HANDLE_VALUE) {
    file.file_ = nullptr;
    throw Failure(path, what, GetLastError());
  }
  return file;
}

LocalFile LocalFile::open_to_read(const std::string& path) {
  return open(path, "cannot open", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING,
              FILE_FLAG_SEQUENTIAL_SCAN);
}

LocalFile LocalFile::open_shared(const std::string& path) {
  return open(path, "cannot open", GENERIC_READ,
              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, OPEN_EXISTING,
              FILE_FLAG_SEQUENTIAL_SCAN);
}

LocalFile LocalFile::open_to_replace(const std::string& path) {
  const std::wstring suffix = L".part-" + std::to_wstring(GetCurrentProcessId());
  LocalFile file = open(path, "cannot write", GENERIC_WRITE, 0, CREATE_ALWAYS, 0, suffix);
  file.part_ = file.target_ + suffix;
  return file;
}

LocalFile LocalFile::open_lock(const std::string& path) {
  return open(path, "cannot be locked", GENERIC_WRITE, 0, CREATE_ALWAYS, FILE_FLAG_DELETE_ON_CLOSE);
}

uint64_t LocalFile::size() const {
  LARGE_INTEGER size;
  if (GetFileSizeEx(file_, &size) == 0) {
    throw Failure(path_, "has no size", GetLastError());
  }
  return static_cast<uint64_t>(size.QuadPart);
}

size_t LocalFile::read(void* buffer, size_t size) {
  DWORD count = 0;
  if (ReadFile(file_, buffer, static_cast<DWORD>(size), &count, nullptr) == 0) {
    throw Failure(path_, "cannot read", GetLastError());
  }
  return count;
}

void LocalFile::write(const void* data, size_t size) {
  DWORD count = 0;
  if (WriteFile(file_, data, static_cast<DWORD>(size), &count, nullptr) == 0) {
    throw Failure(path_, "cannot write", GetLastError());
  }
  if (count != size) {
    throw Failure(path_, "cannot write", ERROR_DISK_FULL);
  }
}

void LocalFile::commit() {
  if (FlushFileBuffers(file_) == 0) {
    throw Failure(path_, "cannot write", GetLastError());
  }
  close();
  if (MoveFileExW(part_.c_str(), target_.c_str(), MOVEFILE_REPLACE_EXISTING) == 0) {
    throw Failure(path_, "cannot replace", GetLastError());
  }
  part_.clear();
}

}  // namespace tools
