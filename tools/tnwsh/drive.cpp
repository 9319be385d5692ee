#include "drive.h"

#include <windows.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "failure.h"
#include "service/wide_text.h"
#include "tnw.h"

namespace tnwsh {
namespace {

constexpr char kProcessName[] = "tnwsh";

// Native dispositions and create options of tnw_create.
constexpr ox_u32 kOpen = 1;
constexpr ox_u32 kOverwriteIf = 5;
constexpr ox_u32 kFileOnly = 0x40;
constexpr ox_u32 kAccessRead = 1;
constexpr ox_u32 kAccessWrite = 2;
constexpr ox_u32 kShareRead = 1;

Entry EntryOf(const tnw_fileinfo& info) {
  return {.name = std::string(info.fi_name, strnlen(info.fi_name, sizeof info.fi_name)),
          .folder = (info.fi_attr & FILE_ATTRIBUTE_DIRECTORY) != 0,
          .size = info.fi_size,
          .modified = info.fi_mtime};
}

// As Windows compares names: without regard to case.
int CompareNames(const std::string& a, const std::string& b) {
  std::wstring wide_a;
  std::wstring wide_b;
  tarnd::WideFromUtf8(a, &wide_a);
  tarnd::WideFromUtf8(b, &wide_b);
  return CompareStringOrdinal(wide_a.data(), static_cast<int>(wide_a.size()), wide_b.data(),
                              static_cast<int>(wide_b.size()), TRUE) -
         CSTR_EQUAL;
}

bool NameLess(const Entry& a, const Entry& b) {
  const int order = CompareNames(a.name, b.name);
  return order != 0 ? order < 0 : a.name < b.name;
}

// A service that was told to stop ends in its own time, and a start that meets it fails. It holds
// its pid file locked until then.
void WaitForServiceEnd(const std::string& cache_folder) {
  constexpr int kTries = 750;  // of 20 ms
  constexpr DWORD kPause = 20;
  std::wstring path;
  tarnd::WideFromUtf8(cache_folder + "\\tarnd_pid", &path);
  for (int tried = 0; tried < kTries; tried++) {
    const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                    OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
      return;
    }
    OVERLAPPED start = {};
    const bool free = LockFileEx(file, LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0,
                                 MAXDWORD, MAXDWORD, &start);
    CloseHandle(file);
    if (free) {
      return;
    }
    Sleep(kPause);
  }
}

LocalFile LockWorkFolder(const Options& options) {
  try {
    return LocalFile::OpenLock(options.work + "\\tnwsh.lock");
  } catch (const Failure& failure) {
    if (failure.Code() == ERROR_SHARING_VIOLATION) {
      throw Failure(options.work, "another tnwsh is using this --work folder");
    }
    throw;
  }
}

void CheckStart(const Options& options) {
  if (!IsLocalFolder(options.cloud)) {
    throw Failure(options.cloud, "is no folder that can play the cloud", ERROR_PATH_NOT_FOUND);
  }
  if (!IsLocalFile(options.service)) {
    throw Failure(options.service, "is no cache service", ERROR_FILE_NOT_FOUND);
  }
  MakeLocalFolders(options.work);
}

}  // namespace

std::string ParentOf(const std::string& path) {
  const std::string trimmed = path.substr(0, path.find_last_not_of("/\\") + 1);
  const size_t slash = trimmed.find_last_of("/\\");
  return slash == std::string::npos ? "/" : trimmed.substr(0, slash + 1);
}

std::string NameOf(const std::string& path) {
  const std::string trimmed = path.substr(0, path.find_last_not_of("/\\") + 1);
  return trimmed.substr(trimmed.find_last_of("/\\") + 1);
}

std::string JoinPath(const std::string& folder, const std::string& name) {
  const bool has_slash = !folder.empty() && (folder.back() == '/' || folder.back() == '\\');
  return folder + (has_slash ? "" : "/") + name;
}

Drive::Drive(const Options& options) : cache_folder_(CacheFolder(options)) {
  tnw_tninit init = StartRecord(options);
  CheckStart(options);
  lock_ = LockWorkFolder(options);
  WaitForServiceEnd(cache_folder_);
  int err = 0;
  handle_ = tnw_init(&init, &err);
  if (handle_ == nullptr) {
    throw Failure(options.cloud,
                  "the cache service did not start (its log and the library's are in " +
                      LogFolder(options) + ")",
                  static_cast<uint32_t>(err));
  }
}

// Without the pause of tnw_deinit, which waits for requests under way: here is none.
Drive::~Drive() {
  tnw_deinit_force(handle_);
  WaitForServiceEnd(cache_folder_);
}

// Returns a Windows code.
uint32_t Drive::ListInto(const std::string& path, std::vector<Entry>* entries) {
  tnw_fileinfo info;
  int err = 0;
  void* listing = tnw_findfirst(handle_, path.c_str(), &info, kProcessName, &err);
  if (listing == nullptr) {
    return static_cast<uint32_t>(err);
  }
  for (; err == 0; err = tnw_findnext(listing, &info)) {
    entries->push_back(EntryOf(info));
  }
  const int closed = tnw_findclose(listing);
  return static_cast<uint32_t>(err != static_cast<int>(kNoMoreFiles) ? err : closed);
}

std::vector<Entry> Drive::List(const std::string& path) {
  std::vector<Entry> entries;
  if (const uint32_t code = ListInto(path, &entries)) {
    throw Failure(path, "cannot list", code);
  }
  std::sort(entries.begin(), entries.end(), NameLess);
  return entries;
}

std::optional<Entry> Drive::Find(const std::string& path) {
  const std::string name = NameOf(path);
  if (name.empty() || name == "." || name == "..") {
    List(path);
    return Entry{.name = "", .folder = true};
  }
  std::vector<Entry> entries;
  if (const uint32_t code = ListInto(ParentOf(path), &entries)) {
    throw Failure(path, "cannot look into its folder", code);
  }
  std::optional<Entry> found;
  for (Entry& entry : entries) {
    if (entry.name == name) {
      return entry;
    }
    if (CompareNames(entry.name, name) == 0) {
      found = std::move(entry);
    }
  }
  return found;
}

Entry Drive::Get(const std::string& path) {
  std::optional<Entry> entry = Find(path);
  if (!entry) {
    throw Failure(path, "cannot open", ERROR_FILE_NOT_FOUND);
  }
  return *std::move(entry);
}

RemoteFile::RemoteFile(const Drive& drive, const std::string& path, Mode mode) : path_(path) {
  const bool read = mode == Mode::kRead;
  int err = 0;
  handle_ = tnw_create(drive.Handle(), &context_, path.c_str(), read ? kAccessRead : kAccessWrite,
                       kShareRead, read ? kOpen : kOverwriteIf, kFileOnly,
                       static_cast<int>(GetCurrentProcessId()), kProcessName, &err);
  if (handle_ == nullptr) {
    throw Failure(path, read ? "cannot open" : "cannot create", static_cast<uint32_t>(err));
  }
}

RemoteFile::~RemoteFile() {
  if (handle_ != nullptr) {
    tnw_cleanup_file(handle_);
    tnw_close(handle_, nullptr);
  }
}

size_t RemoteFile::Read(uint64_t offset, void* buffer, size_t size) {
  ox_s64 count = 0;
  const int err = tnw_read(handle_, buffer, size, static_cast<ox_off>(offset), &count, nullptr);
  if (err == static_cast<int>(kEndOfFile)) {
    return 0;
  }
  if (err == 0 && count == 0) {  // the service could not fetch the region, and says no more
    throw Failure(path_, "cannot read", ERROR_READ_FAULT);
  }
  if (err != 0) {
    throw Failure(path_, "cannot read", static_cast<uint32_t>(err));
  }
  return static_cast<size_t>(count);
}

void RemoteFile::Write(uint64_t offset, const void* data, size_t size) {
  ox_s64 count = 0;
  const int err = tnw_write(handle_, const_cast<void*>(data), size, static_cast<ox_off>(offset),
                            &count, nullptr);
  if (err != 0 || count != static_cast<ox_s64>(size)) {
    throw Failure(path_, "cannot write", err != 0 ? static_cast<uint32_t>(err) : ERROR_DISK_FULL);
  }
}

void RemoteFile::Close() {
  int err = tnw_cleanup_file(handle_);
  const int closed = tnw_close(std::exchange(handle_, nullptr), nullptr);
  err = closed != 0 ? closed : err;
  if (err != 0) {
    throw Failure(path_, "cannot be brought to the cloud", static_cast<uint32_t>(err));
  }
}

}  // namespace tnwsh
