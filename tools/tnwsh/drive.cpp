#include "drive.h"

#include <windows.h>

#include <algorithm>
#include <cstring>

#include "answers.h"
#include "service/wide_text.h"

namespace tnwsh {
namespace {

/* Native dispositions and create options of tnw_create. */
constexpr ox_u32 CREATE = 2;
constexpr ox_u32 FOLDER_ONLY = 0x1;
constexpr ox_u32 ATTRIBUTES_ONLY = 0;

Entry entry_of(const tnw_fileinfo& info) {
  return {.name = std::string(info.fi_name, strnlen(info.fi_name, sizeof info.fi_name)),
          .folder = (info.fi_attr & FILE_ATTRIBUTE_DIRECTORY) != 0,
          .size = info.fi_size,
          .modified = info.fi_mtime,
          .id = std::string(info.fi_id, strnlen(info.fi_id, sizeof info.fi_id))};
}

/* As Windows compares names: without regard to case. */
int compare_names(const std::string& a, const std::string& b) {
  std::wstring wide_a;
  std::wstring wide_b;
  tarnd::wide_from_utf8(a, &wide_a);
  tarnd::wide_from_utf8(b, &wide_b);
  return CompareStringOrdinal(wide_a.data(), static_cast<int>(wide_a.size()), wide_b.data(),
                              static_cast<int>(wide_b.size()), TRUE) -
         CSTR_EQUAL;
}

bool name_less(const Entry& a, const Entry& b) {
  const int order = compare_names(a.name, b.name);
  return order != 0 ? order < 0 : a.name < b.name;
}

/*
 * A service that was told to stop ends in its own time, and a start that meets it fails. It holds
 * its pid file locked until then. False when it still runs after 15 seconds.
 */
bool wait_for_service_end(const std::string& cache_folder) {
  constexpr int TRIES = 750; /* of 20 ms */
  constexpr DWORD PAUSE = 20;
  std::wstring path;
  tarnd::wide_from_utf8(cache_folder + "\\tarnd_pid", &path);
<<<<<<< HEAD
  for (int tried = 0; tried < kTries; tried++) {
=======
  for (int tried = 0; tried < TRIES; tried++) {
>>>>>>> dcdaab9 (WIP tools: one dialect, PCRE2)
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
    Sleep(PAUSE);
  }
  return false;
}

LocalFile lock_work_folder(const Options& options) {
  try {
    return LocalFile::open_lock(options.work + "\\tnwsh.lock");
  } catch (const Failure& failure) {
    if (failure.code() == ERROR_SHARING_VIOLATION) {
      throw Failure(options.work, "another tnwsh is using this --work folder");
    }
    throw;
  }
}

void check_start(const Options& options) {
  if (!is_local_folder(options.cloud)) {
    throw Failure(options.cloud, "is no folder that can play the cloud", ERROR_PATH_NOT_FOUND);
  }
  if (!is_local_file(options.service)) {
    throw Failure(options.service, "is no cache service", ERROR_FILE_NOT_FOUND);
  }
  make_local_folders(options.work);
}

}  // namespace

std::string parent_of(const std::string& path) {
  const std::string trimmed = path.substr(0, path.find_last_not_of("/\\") + 1);
  const size_t slash = trimmed.find_last_of("/\\");
  return slash == std::string::npos ? "/" : trimmed.substr(0, slash + 1);
}

std::string name_of(const std::string& path) {
  const std::string trimmed = path.substr(0, path.find_last_not_of("/\\") + 1);
  return trimmed.substr(trimmed.find_last_of("/\\") + 1);
}

std::string join_path(const std::string& folder, const std::string& name) {
  const bool has_slash = !folder.empty() && (folder.back() == '/' || folder.back() == '\\');
  return folder + (has_slash ? "" : "/") + name;
}

std::string path_key(const std::string& path) {
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

Drive::Drive(const Options& options) : cache_folder_(cache_folder(options)) {
  tnw_tninit init = start_record(options);
  check_start(options);
  lock_ = lock_work_folder(options);
  wait_for_service_end(cache_folder_);
  int err = 0;
  handle_ = tnw_init(&init, &err);
  if (handle_ == nullptr) {
    throw Failure(options.cloud,
                  "the cache service did not start (its log and the library's are in " +
                      log_folder(options) + ")",
                  static_cast<uint32_t>(err));
  }
}

/* Without the pause of tnw_deinit, which waits for requests under way: here is none. */
Drive::~Drive() {
  tnw_deinit_force(handle_);
  wait_for_service_end(cache_folder_);
}

/* Returns a Windows code. */
uint32_t Drive::list_into(const std::string& path, std::vector<Entry>* entries) {
  tnw_fileinfo info;
  int err = 0;
  void* listing = tnw_findfirst(handle_, path.c_str(), &info, PROCESS_NAME, &err);
  if (listing == nullptr) {
    return static_cast<uint32_t>(err);
  }
  for (; err == 0; err = tnw_findnext(listing, &info)) {
    entries->push_back(entry_of(info));
  }
  const int closed = tnw_findclose(listing);
  return static_cast<uint32_t>(err != static_cast<int>(NO_MORE_FILES) ? err : closed);
}

std::vector<Entry> Drive::list(const std::string& path) {
  std::vector<Entry> entries;
  if (const uint32_t code = list_into(path, &entries)) {
    throw Failure(path, "cannot list", code, PATH_ANSWERS);
  }
  std::sort(entries.begin(), entries.end(), name_less);
  return entries;
}

/* An answer that never came reads as success, and leaves the record empty. */
uint32_t Drive::try_info(const std::string& path, tnw_fileinfo* info) {
  const int err = tnw_getfileinfo(handle_, path.c_str(), info, PROCESS_NAME);
  return err == 0 && info->fi_id[0] == '\0' ? CONNECTION_BROKEN : static_cast<uint32_t>(err);
}

tnw_fileinfo Drive::info(const std::string& path) {
  tnw_fileinfo info;
  if (const uint32_t code = try_info(path, &info)) {
    throw Failure(path, "cannot look it up", code, PATH_ANSWERS);
  }
  return info;
}

std::optional<Entry> Drive::find(const std::string& path) {
  tnw_fileinfo info;
  const uint32_t code = try_info(path, &info);
  if (code == ERROR_FILE_NOT_FOUND) {
    return std::nullopt;
  }
  if (code != 0) {
    throw Failure(path, "cannot look it up", code, PATH_ANSWERS);
  }
  return entry_of(info);
}

Entry Drive::get(const std::string& path) {
  std::optional<Entry> entry = find(path);
  if (!entry) {
    throw Failure(path, "cannot open", ERROR_FILE_NOT_FOUND, PATH_ANSWERS);
  }
  return *std::move(entry);
}

void Drive::check_answer(const std::string& path, const char* what, int err, Answers answers) {
  tnw_fileinfo top;
  if (err == 0 && try_info("/", &top) == CONNECTION_BROKEN) {
    err = static_cast<int>(CONNECTION_BROKEN);
  }
  if (err != 0) {
    throw Failure(path, what, static_cast<uint32_t>(err), answers);
  }
}

void Drive::rename(const std::string& from, const std::string& to) {
  check_answer(from, "cannot be renamed",
               tnw_rename(handle_, from.c_str(), to.c_str(), PROCESS_NAME), RENAME_ANSWERS);
}

void Drive::remove(const std::string& path) {
  check_answer(path, "cannot be deleted", tnw_delete(handle_, path.c_str(), PROCESS_NAME),
               DELETE_ANSWERS);
}

bool Drive::can_delete(const std::string& path) {
  bool can = false;
  check_answer(path, "cannot look it up", tnw_canfilebedeleted(handle_, path.c_str(), &can),
               PATH_ANSWERS);
  return can;
}

void Drive::make_folder(const std::string& path) {
  int err = 0;
  void* context = nullptr;
  void* folder =
      tnw_create(handle_, &context, path.c_str(), ATTRIBUTES_ONLY, 0, CREATE, FOLDER_ONLY,
                 static_cast<int>(GetCurrentProcessId()), PROCESS_NAME, &err);
  if (folder != nullptr) {
    tnw_cleanup_file(folder);
    err = tnw_close(folder, nullptr);
  }
  check_answer(path, "cannot make the folder", err, MAKE_FOLDER_ANSWERS);
}

void Drive::ensure_folder(const std::string& path) {
  const std::optional<Entry> entry = find(path);
  if (!entry || !entry->folder) {
    make_folder(path);
  }
}

void Drive::update_token(std::string token) {
  check_answer("The token", "is not taken", tnw_updatetoken(handle_, token.data()), TOKEN_ANSWERS);
}

void Drive::set_proxy(const std::string& server, const std::string& user,
                      const std::string& password) {
  check_answer(server, "is not taken as a proxy",
               tnw_set_http_proxy(handle_, server.c_str(), user.c_str(), password.c_str()),
               PROXY_ANSWERS);
}

/*
 * The library sees no service of another process: another shell's is kept away by the lock on the
 * work folder, any other by its pid file.
 */
std::string purge_cache(const Options& options) {
  const std::string folder = cache_folder(options);
  tnw_purge_opt_t purge = purge_record(options);
  if (!is_local_folder(folder)) {
    return folder + ": there is no cache";
  }
  const LocalFile lock = lock_work_folder(options);
  if (!wait_for_service_end(folder)) {
    throw Failure(folder, "cannot be deleted", ERROR_BUSY, PURGE_ANSWERS);
  }
  const int err = tnw_purge_cache(&purge);
  if (err == 0) {
    return folder + ": deleted";
  }
  if (is_local_folder(folder)) {
    throw Failure(folder, "cannot be deleted", static_cast<uint32_t>(err), PURGE_ANSWERS);
  }
  return folder + ": deleted in its place";
}

}  // namespace tnwsh
