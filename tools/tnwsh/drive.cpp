#include "drive.h"

#include <windows.h>

#include <algorithm>
#include <cstring>

#include "answers.h"
#include "service/wide_text.h"

namespace tnwsh {
namespace {

/* Native dispositions and create options of tnw_create. */
constexpr ox_u32 kCreate = 2;
constexpr ox_u32 kFolderOnly = 0x1;
constexpr ox_u32 kAttributesOnly = 0;

Entry EntryOf(const tnw_fileinfo& info) {
  return {.name = std::string(info.fi_name, strnlen(info.fi_name, sizeof info.fi_name)),
          .folder = (info.fi_attr & FILE_ATTRIBUTE_DIRECTORY) != 0,
          .size = info.fi_size,
          .modified = info.fi_mtime,
          .id = std::string(info.fi_id, strnlen(info.fi_id, sizeof info.fi_id))};
}

/* As Windows compares names: without regard to case. */
int CompareNames(const std::string& a, const std::string& b) {
  std::wstring wide_a;
  std::wstring wide_b;
  tarnd::wide_from_utf8(a, &wide_a);
  tarnd::wide_from_utf8(b, &wide_b);
  return CompareStringOrdinal(wide_a.data(), static_cast<int>(wide_a.size()), wide_b.data(),
                              static_cast<int>(wide_b.size()), TRUE) -
         CSTR_EQUAL;
}

bool NameLess(const Entry& a, const Entry& b) {
  const int order = CompareNames(a.name, b.name);
  return order != 0 ? order < 0 : a.name < b.name;
}

/*
 * A service that was told to stop ends in its own time, and a start that meets it fails. It holds
 * its pid file locked until then. False when it still runs after 15 seconds.
 */
bool WaitForServiceEnd(const std::string& cache_folder) {
  constexpr int kTries = 750; /* of 20 ms */
  constexpr DWORD kPause = 20;
  std::wstring path;
  tarnd::wide_from_utf8(cache_folder + "\\tarnd_pid", &path);
  for (int tried = 0; tried < kTries; tried++) {
    const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                    OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
      return true;
    }
    OVERLAPPED start = {};
    const bool free = LockFileEx(file, LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0,
                                 MAXDWORD, MAXDWORD, &start) != 0;
    CloseHandle(file);
    if (free) {
      return true;
    }
    Sleep(kPause);
  }
  return false;
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

std::string PathKey(const std::string& path) {
  std::wstring wide;
  tarnd::wide_from_utf8(path, &wide);
  std::wstring key;
  for (const wchar_t c : wide) {
    const wchar_t unit = c == L'\\' ? L'/' : c;
    if (unit != L'/' || (!key.empty() && key.back() != L'/')) {
      key += unit;
    }
  }
  CharUpperBuffW(key.data(), static_cast<DWORD>(key.size()));
  std::string text;
  tarnd::utf8_from_wide(key, &text);
  return text;
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

/* Without the pause of tnw_deinit, which waits for requests under way: here is none. */
Drive::~Drive() {
  tnw_deinit_force(handle_);
  WaitForServiceEnd(cache_folder_);
}

/* Returns a Windows code. */
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
    throw Failure(path, "cannot list", code, kPathAnswers);
  }
  std::sort(entries.begin(), entries.end(), NameLess);
  return entries;
}

/* An answer that never came reads as success, and leaves the record empty. */
uint32_t Drive::TryInfo(const std::string& path, tnw_fileinfo* info) {
  const int err = tnw_getfileinfo(handle_, path.c_str(), info, kProcessName);
  return err == 0 && info->fi_id[0] == '\0' ? kConnectionBroken : static_cast<uint32_t>(err);
}

tnw_fileinfo Drive::Info(const std::string& path) {
  tnw_fileinfo info;
  if (const uint32_t code = TryInfo(path, &info)) {
    throw Failure(path, "cannot look it up", code, kPathAnswers);
  }
  return info;
}

std::optional<Entry> Drive::Find(const std::string& path) {
  tnw_fileinfo info;
  const uint32_t code = TryInfo(path, &info);
  if (code == ERROR_FILE_NOT_FOUND) {
    return std::nullopt;
  }
  if (code != 0) {
    throw Failure(path, "cannot look it up", code, kPathAnswers);
  }
  return EntryOf(info);
}

Entry Drive::Get(const std::string& path) {
  std::optional<Entry> entry = Find(path);
  if (!entry) {
    throw Failure(path, "cannot open", ERROR_FILE_NOT_FOUND, kPathAnswers);
  }
  return *std::move(entry);
}

void Drive::CheckAnswer(const std::string& path, const char* what, int err, Answers answers) {
  tnw_fileinfo top;
  if (err == 0 && TryInfo("/", &top) == kConnectionBroken) {
    err = static_cast<int>(kConnectionBroken);
  }
  if (err != 0) {
    throw Failure(path, what, static_cast<uint32_t>(err), answers);
  }
}

void Drive::Rename(const std::string& from, const std::string& to) {
  CheckAnswer(from, "cannot be renamed",
              tnw_rename(handle_, from.c_str(), to.c_str(), kProcessName), kRenameAnswers);
}

void Drive::Delete(const std::string& path) {
  CheckAnswer(path, "cannot be deleted", tnw_delete(handle_, path.c_str(), kProcessName),
              kDeleteAnswers);
}

bool Drive::CanDelete(const std::string& path) {
  bool can = false;
  CheckAnswer(path, "cannot look it up", tnw_canfilebedeleted(handle_, path.c_str(), &can),
              kPathAnswers);
  return can;
}

void Drive::MakeFolder(const std::string& path) {
  int err = 0;
  void* context = nullptr;
  void* folder =
      tnw_create(handle_, &context, path.c_str(), kAttributesOnly, 0, kCreate, kFolderOnly,
                 static_cast<int>(GetCurrentProcessId()), kProcessName, &err);
  if (folder != nullptr) {
    tnw_cleanup_file(folder);
    err = tnw_close(folder, nullptr);
  }
  CheckAnswer(path, "cannot make the folder", err, kMakeFolderAnswers);
}

void Drive::EnsureFolder(const std::string& path) {
  const std::optional<Entry> entry = Find(path);
  if (!entry || !entry->folder) {
    MakeFolder(path);
  }
}

void Drive::UpdateToken(std::string token) {
  CheckAnswer("The token", "is not taken", tnw_updatetoken(handle_, token.data()), kTokenAnswers);
}

void Drive::SetProxy(const std::string& server, const std::string& user,
                     const std::string& password) {
  CheckAnswer(server, "is not taken as a proxy",
              tnw_set_http_proxy(handle_, server.c_str(), user.c_str(), password.c_str()),
              kProxyAnswers);
}

/*
 * The library sees no service of another process: another shell's is kept away by the lock on the
 * work folder, any other by its pid file.
 */
std::string PurgeCache(const Options& options) {
  const std::string folder = CacheFolder(options);
  tnw_purge_opt_t purge = PurgeRecord(options);
  if (!IsLocalFolder(folder)) {
    return folder + ": there is no cache";
  }
  const LocalFile lock = LockWorkFolder(options);
  if (!WaitForServiceEnd(folder)) {
    throw Failure(folder, "cannot be deleted", ERROR_BUSY, kPurgeAnswers);
  }
  const int err = tnw_purge_cache(&purge);
  if (err == 0) {
    return folder + ": deleted";
  }
  if (IsLocalFolder(folder)) {
    throw Failure(folder, "cannot be deleted", static_cast<uint32_t>(err), kPurgeAnswers);
  }
  return folder + ": deleted in its place";
}

}  // namespace tnwsh
