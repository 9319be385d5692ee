#include "drive.h"

#include <windows.h>

#include <algorithm>
#include <cstring>

namespace tnwsh {
namespace {

Entry entry_of(const tnw_fileinfo& info) {
  return {.name = field_text(info.fi_name),
          .folder = (info.fi_attr & FILE_ATTRIBUTE_DIRECTORY) != 0,
          .size = info.fi_size,
          .modified = info.fi_mtime,
          .id = field_text(info.fi_id)};
}

/* Compares names as Windows does, without regard to case. */
int compare_names(const std::string& a, const std::string& b) {
  const std::wstring wide_a = wide_from_utf8(a);
  const std::wstring wide_b = wide_from_utf8(b);
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
  constexpr int TRIES = 750; /* each takes 20 ms */
  constexpr DWORD PAUSE = 20;
  const std::wstring path = wide_from_utf8(cache_folder + "\\tarnd_pid");
  for (int tried = 0; tried < TRIES; tried++) {
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
  if (!is_web_address(options.cloud) && !is_local_folder(options.cloud)) {
    throw Failure(options.cloud, "is no folder that can play the cloud", ERROR_PATH_NOT_FOUND);
  }
  if (!is_local_file(options.service)) {
    throw Failure(options.service, "is no cache service", ERROR_FILE_NOT_FOUND);
  }
  make_local_folders(options.work);
}

}  // namespace

std::string name_of(const std::string& path) {
  const std::string trimmed = path.substr(0, path.find_last_not_of("/\\") + 1);
  return trimmed.substr(trimmed.find_last_of("/\\") + 1);
}

std::string join_path(const std::string& folder, const std::string& name) {
  const bool has_slash = !folder.empty() && (folder.back() == '/' || folder.back() == '\\');
  return folder + (has_slash ? "" : "/") + name;
}

std::string path_key(const std::string& path) {
  std::wstring key;
  for (const wchar_t c : wide_from_utf8(path)) {
    const wchar_t unit = c == L'\\' ? L'/' : c;
    if (unit != L'/' || (!key.empty() && key.back() != L'/')) {
      key += unit;
    }
  }
  CharUpperBuffW(key.data(), static_cast<DWORD>(key.size()));
  return utf8_from_wide(key);
}

Drive::Drive(const Options& options) : cache_folder_(cache_folder(options)) {
  tnw_tninit init = start_record(options);
  check_start(options);
  lock_ = lock_work_folder(options);
  wait_for_service_end(cache_folder_);
  int err = 0;
  handle_ = tnw_init(&init, &err);
  if (handle_ == nullptr) {
    throw drive_failure(options.cloud,
                        "the cache service did not start (its log and the library's are in " +
                            log_folder(options) + ")",
                        err);
  }
}

/* tnw_deinit would pause for requests that are under way. Here there are none. */
Drive::~Drive() {
  tnw_deinit_force(handle_);
  wait_for_service_end(cache_folder_);
}

int Drive::list_into(const std::string& path, std::vector<Entry>* entries) {
  tnw_fileinfo info;
  int err = 0;
  void* listing = tnw_findfirst(handle_, path.c_str(), &info, PROCESS_NAME, &err);
  if (listing == nullptr) {
    return err;
  }
  for (; err == 0; err = tnw_findnext(listing, &info)) {
    entries->push_back(entry_of(info));
  }
  const int closed = tnw_findclose(listing);
  return err != ERROR_NO_MORE_FILES ? err : closed;
}

std::vector<Entry> Drive::list(const std::string& path) {
  std::vector<Entry> entries;
  if (const int code = list_into(path, &entries); code != 0) {
    throw drive_failure(path, "cannot list", code, PATH_ANSWERS);
  }
  std::sort(entries.begin(), entries.end(), name_less);
  return entries;
}

/* When the answer never came, the call reports success and leaves the record empty. */
int Drive::try_info(const std::string& path, tnw_fileinfo* info) {
  const int err = tnw_getfileinfo(handle_, path.c_str(), info, PROCESS_NAME);
  return err == 0 && info->fi_id[0] == '\0' ? TNW_ERROR_NO_SERVICE : err;
}

tnw_fileinfo Drive::info(const std::string& path) {
  tnw_fileinfo info;
  if (const int code = try_info(path, &info)) {
    throw drive_failure(path, "cannot look it up", code, PATH_ANSWERS);
  }
  return info;
}

std::optional<Entry> Drive::find(const std::string& path) {
  tnw_fileinfo info;
  const int code = try_info(path, &info);
  if (code == ERROR_FILE_NOT_FOUND) {
    return std::nullopt;
  }
  if (code != 0) {
    throw drive_failure(path, "cannot look it up", code, PATH_ANSWERS);
  }
  return entry_of(info);
}

Entry Drive::get(const std::string& path) {
  std::optional<Entry> entry = find(path);
  if (!entry) {
    throw drive_failure(path, "cannot open", ERROR_FILE_NOT_FOUND, PATH_ANSWERS);
  }
  return *std::move(entry);
}

void Drive::check_answer(const std::string& path, const char* what, int err, Answers answers) {
  tnw_fileinfo top;
  if (err == 0 && try_info("/", &top) == TNW_ERROR_NO_SERVICE) {
    err = TNW_ERROR_NO_SERVICE;
  }
  if (err != 0) {
    throw drive_failure(path, what, err, answers);
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
      tnw_create(handle_, &context, path.c_str(), TNW_ACC_ATTRIBUTES, 0, TNW_DISP_CREATE,
                 TNW_OPT_FOLDER, static_cast<int>(GetCurrentProcessId()), PROCESS_NAME, &err);
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
  check_answer("The proxy", "is not taken",
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
    throw drive_failure(folder, "cannot be deleted", ERROR_BUSY, PURGE_ANSWERS);
  }
  const int err = tnw_purge_cache(&purge);
  if (err == 0) {
    return folder + ": deleted";
  }
  if (is_local_folder(folder)) {
    throw drive_failure(folder, "cannot be deleted", err, PURGE_ANSWERS);
  }
  return folder + ": deleted in its place";
}

}  // namespace tnwsh
