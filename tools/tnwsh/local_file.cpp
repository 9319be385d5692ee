#include "local_file.h"

#include <windows.h>

#include <shlobj.h>

#include <utility>

#include "failure.h"
#include "service/wide_text.h"

namespace tnwsh {
namespace {

std::wstring FullPath(const std::string& path) {
  std::wstring wide;
  if (!tarnd::wide_from_utf8(path, &wide) || wide.empty() ||
      wide.find(L'\0') != std::wstring::npos) {
    throw Failure(path, "is no path");
  }
  std::wstring full(32768, L'\0');
  full.resize(GetFullPathNameW(wide.c_str(), 32768, full.data(), nullptr));
  if (full.empty()) {
    throw Failure(path, "is no path", GetLastError());
  }
  return full;
}

/* For calls that would otherwise end at 260 characters. */
std::wstring VerbatimPath(const std::string& path) {
  const std::wstring full = FullPath(path);
  if (full.starts_with(L"\\\\?\\") || full.starts_with(L"\\\\.\\")) {
    return full;
  }
  return full.starts_with(L"\\\\") ? L"\\\\?\\UNC" + full.substr(1) : L"\\\\?\\" + full;
}

DWORD AttributesOf(const std::string& path) {
  return GetFileAttributesW(VerbatimPath(path).c_str());
}

void* Open(const std::string& path, const std::wstring& place, const char* what, DWORD access,
           DWORD share, DWORD disposition, DWORD flags) {
  void* file = CreateFileW(place.c_str(), access, share, nullptr, disposition, flags, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    throw Failure(path, what, GetLastError());
  }
  return file;
}

}  // namespace

std::string AbsolutePath(const std::string& path) {
  std::string absolute;
  if (!tarnd::utf8_from_wide(FullPath(path), &absolute)) {
    throw Failure(path, "leads to a name that is no Unicode text");
  }
  return absolute;
}

bool IsLocalFolder(const std::string& path) {
  const DWORD attributes = AttributesOf(path);
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool IsLocalFile(const std::string& path) {
  return (AttributesOf(path) & FILE_ATTRIBUTE_DIRECTORY) ==
         0; /* set in the value for "not there" */
}

void MakeLocalFolders(const std::string& path) {
  const int code = SHCreateDirectoryExW(nullptr, FullPath(path).c_str(), nullptr);
  if (code != ERROR_SUCCESS && code != ERROR_ALREADY_EXISTS) {
    throw Failure(path, "cannot make the folder", static_cast<uint32_t>(code));
  }
}

void MakeLocalFolder(const std::string& path) {
  if (!IsLocalFolder(path) && (CreateDirectoryW(VerbatimPath(path).c_str(), nullptr) == 0)) {
    throw Failure(path, "cannot make the folder", GetLastError());
  }
}

std::vector<LocalEntry> ListLocal(const std::string& path) {
  std::vector<LocalEntry> entries;
  WIN32_FIND_DATAW found;
  std::wstring pattern = VerbatimPath(path);
  pattern += pattern.ends_with(L'\\') ? L"*" : L"\\*";
  const HANDLE search = FindFirstFileW(pattern.c_str(), &found);
  if (search == INVALID_HANDLE_VALUE) {
    throw Failure(path, "cannot list", GetLastError());
  }
  bool unicode = true;
  do {
    LocalEntry entry;
    unicode = tarnd::utf8_from_wide(found.cFileName, &entry.name);
    entry.folder = (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    entry.link = entry.folder && (found.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
    if (entry.name != "." && entry.name != "..") {
      entries.push_back(std::move(entry));
    }
  } while (unicode && FindNextFileW(search, &found) != 0);
  const DWORD end = GetLastError();
  FindClose(search);
  if (!unicode) {
    throw Failure(path, "holds a name that is no Unicode text");
  }
  if (end != ERROR_NO_MORE_FILES) {
    throw Failure(path, "cannot list", end);
  }
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
  Close();
  if (!part_.empty()) {
    DeleteFileW(part_.c_str());
  }
}

void LocalFile::Close() {
  if (file_ != nullptr) {
    CloseHandle(std::exchange(file_, nullptr));
  }
}

LocalFile LocalFile::OpenToRead(const std::string& path) {
  LocalFile file;
  file.path_ = path;
  file.target_ = VerbatimPath(path);
  if (IsLocalFolder(path)) {
    throw Failure(path, "is a folder, not a file");
  }
  file.file_ = Open(path, file.target_, "cannot open", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING,
                    FILE_FLAG_SEQUENTIAL_SCAN);
  return file;
}

LocalFile LocalFile::OpenToReplace(const std::string& path) {
  LocalFile file;
  file.path_ = path;
  file.target_ = VerbatimPath(path);
  std::wstring part = file.target_ + L".tnwsh-" + std::to_wstring(GetCurrentProcessId());
  file.file_ = Open(path, part, "cannot write", GENERIC_WRITE, 0, CREATE_ALWAYS, 0);
  file.part_ = std::move(part);
  return file;
}

LocalFile LocalFile::OpenLock(const std::string& path) {
  LocalFile file;
  file.path_ = path;
  file.target_ = VerbatimPath(path);
  file.file_ = Open(path, file.target_, "cannot be locked", GENERIC_WRITE, 0, CREATE_ALWAYS,
                    FILE_FLAG_DELETE_ON_CLOSE);
  return file;
}

uint64_t LocalFile::Size() const {
  LARGE_INTEGER size;
  if (GetFileSizeEx(file_, &size) == 0) {
    throw Failure(path_, "has no size", GetLastError());
  }
  return static_cast<uint64_t>(size.QuadPart);
}

size_t LocalFile::Read(void* buffer, size_t size) {
  DWORD count = 0;
  if (ReadFile(file_, buffer, static_cast<DWORD>(size), &count, nullptr) == 0) {
    throw Failure(path_, "cannot read", GetLastError());
  }
  return count;
}

void LocalFile::Write(const void* data, size_t size) {
  DWORD count = 0;
  if (WriteFile(file_, data, static_cast<DWORD>(size), &count, nullptr) == 0) {
    throw Failure(path_, "cannot write", GetLastError());
  }
  if (count != size) {
    throw Failure(path_, "cannot write", ERROR_DISK_FULL);
  }
}

void LocalFile::Commit() {
  if (FlushFileBuffers(file_) == 0) {
    throw Failure(path_, "cannot write", GetLastError());
  }
  Close();
  if (MoveFileExW(part_.c_str(), target_.c_str(), MOVEFILE_REPLACE_EXISTING) == 0) {
    throw Failure(path_, "cannot replace", GetLastError());
  }
  part_.clear();
}

}  // namespace tnwsh
