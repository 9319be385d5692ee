/*
 * Whole directory trees: removal, and moving out of the way. Wide names throughout the walk, so
 * that a name outside the process's code page is removed like any other.
 */
#include "ox_dirtree.h"

#include <windows.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "ox_errno.h"
#include "ox_logging.h"
#include "ox_platform.h"
#include "ox_time.h"

namespace {

/* The absolute form, which may be longer than 260 characters; empty when it cannot be made. */
std::wstring long_path(const char* path) {
  const int size = MultiByteToWideChar(CP_ACP, 0, path, -1, nullptr, 0);
  if (size <= 1) {
    return {};
  }
  std::wstring wide(static_cast<size_t>(size), L'\0');
  MultiByteToWideChar(CP_ACP, 0, path, -1, wide.data(), size);
  std::wstring full(32768, L'\0');
  const DWORD len =
      GetFullPathNameW(wide.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
  if (len == 0 || len >= full.size()) {
    return {};
  }
  full.resize(len);
  if (full.starts_with(L"\\\\?\\") || full.starts_with(L"\\\\.\\")) {
    return full;
  }
  return full.starts_with(L"\\\\") ? L"\\\\?\\UNC\\" + full.substr(2) : L"\\\\?\\" + full;
}

/* The first failure of a removal stays; the rest is tried all the same. */
void note(int* first, bool removed) {
  if (!removed && *first == 0) {
    *first = ox_winerr2errno(GetLastError());
  }
}

/* A read-only entry cannot be removed as it is. */
void make_writable(const std::wstring& path, DWORD attributes) {
  if ((attributes & FILE_ATTRIBUTE_READONLY) != 0) {
    SetFileAttributesW(path.c_str(), attributes & ~static_cast<DWORD>(FILE_ATTRIBUTE_READONLY));
  }
}

/* A junction is an entry like a file: what it leads to is another's. */
bool is_folder(DWORD attributes) {
  return ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) &&
         ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0);
}

int remove_entry(const std::wstring& path, DWORD attributes) {
  int err = 0;
  make_writable(path, attributes);
  note(&err, (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 ? RemoveDirectoryW(path.c_str()) != 0
                                                          : DeleteFileW(path.c_str()) != 0);
  return err;
}

/* Removes what a folder holds, but for its folders, which are added to `folders`. */
int empty_folder(const std::wstring& folder, std::vector<std::wstring>* folders) {
  WIN32_FIND_DATAW found;
  const HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &found);
  if (search == INVALID_HANDLE_VALUE) {
    return ox_winerr2errno(GetLastError());
  }
  const std::unique_ptr<void, decltype(&FindClose)> closer(search, FindClose);
  int first = 0;
  do {
    const std::wstring name = found.cFileName;
    if (name == L"." || name == L"..") {
      continue;
    }
    const std::wstring path = folder + L"\\" + name;
    if (is_folder(found.dwFileAttributes)) {
      make_writable(path, found.dwFileAttributes);
      folders->push_back(path);
      continue;
    }
    const int err = remove_entry(path, found.dwFileAttributes);
    if (first == 0) {
      first = err;
    }
  } while (FindNextFileW(search, &found) != 0);
  return first;
}

/* Not by recursion: a tree may be deeper than the caller's stack. 0, or the first error. */
int remove_tree(const std::wstring& path, DWORD attributes) {
  if (!is_folder(attributes)) {
    return remove_entry(path, attributes);
  }
  make_writable(path, attributes);
  std::vector<std::wstring> folders = {path};
  int first = 0;
  for (size_t i = 0; i < folders.size(); i++) {
    const int err = empty_folder(std::wstring(folders[i]), &folders);
    if (first == 0) {
      first = err;
    }
  }
  for (; !folders.empty();
       folders.pop_back()) { /* each folder stands behind the one that holds it */
    note(&first, RemoveDirectoryW(folders.back().c_str()) != 0);
  }
  return first;
}

/* "<temporary folder><\\name of the directory>_<seconds>.<nanoseconds>": 0 or an error number. */
int compose_moved(const char* path, char* moved, size_t size) {
  const char* name = strrchr(path, '\\');
  char temporary[OX_MAXPATH_LEN];
  const DWORD len = GetTempPathA(sizeof(temporary), temporary);
  if (name == nullptr || len == 0) {
    return OX_EINVAL;
  }
  struct timespec now = {};
  ox_clock_gettime(0, &now);
  const int n = len >= sizeof(temporary)
                    ? -1
                    : snprintf(moved, size, "%s%s_%lld.%ld", temporary, name,
                               static_cast<long long>(now.tv_sec), static_cast<long>(now.tv_nsec));
  return n >= 0 && static_cast<size_t>(n) < size ? 0 : OX_ENAMETOOLONG;
}

}  // namespace

int ox_rmrf(const char* path) {
  int err = OX_ENOMEM;
  try {
    const std::wstring wide = long_path(path);
    const DWORD attributes = GetFileAttributesW(wide.c_str());
    err = attributes == INVALID_FILE_ATTRIBUTES ? ox_winerr2errno(GetLastError())
                                                : remove_tree(wide, attributes);
  } catch (const std::bad_alloc&) {
  }
  if (err != 0) {
    errno = err;
  }
  return err;
}

int ox_movedir2tmp(const char* path, char* moved, size_t size) {
  moved[0] = '\0';
  int err = compose_moved(path, moved, size);
  if (err == 0 && MoveFileExA(path, moved,
                              MOVEFILE_REPLACE_EXISTING | MOVEFILE_COPY_ALLOWED |
                                  MOVEFILE_WRITE_THROUGH) == 0) {
    err = ox_winerr2errno(GetLastError());
  }
  if (err != 0) {
    OX_LOG(OX_ERROR_LEVEL, err, "Unable to move folder from %s to %s", path, moved);
    errno = err;
    return -1;
  }
  OX_LOG_DEBUG(2, "Folder moved successfully from %s to %s", path, moved);
  return 0;
}

bool ox_is_below(const char* path, const char* folder) {
  try {
    const std::wstring inner = long_path(path);
    std::wstring outer = long_path(folder);
    if (outer.empty()) {
      return false;
    }
    if (!outer.ends_with(L'\\')) {
      outer += L'\\';
    }
    const int length = static_cast<int>(outer.size());
    return inner.size() > outer.size() &&
           CompareStringOrdinal(inner.c_str(), length, outer.c_str(), length, TRUE) == CSTR_EQUAL;
  } catch (const std::bad_alloc&) {
    return false;
  }
}
