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

}  // namespace

int Drive::list_into(const std::string& path, std::vector<Entry>* entries) {
  tnw_fileinfo info;
  int err = 0;
  void* listing = tnw_findfirst(session_.handle(), path.c_str(), &info, PROCESS_NAME, &err);
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
  const int err = tnw_getfileinfo(session_.handle(), path.c_str(), info, PROCESS_NAME);
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
               tnw_rename(session_.handle(), from.c_str(), to.c_str(), PROCESS_NAME),
               RENAME_ANSWERS);
}

void Drive::remove(const std::string& path) {
  check_answer(path, "cannot be deleted", tnw_delete(session_.handle(), path.c_str(), PROCESS_NAME),
               DELETE_ANSWERS);
}

bool Drive::can_delete(const std::string& path) {
  bool can = false;
  check_answer(path, "cannot look it up",
               tnw_canfilebedeleted(session_.handle(), path.c_str(), &can), PATH_ANSWERS);
  return can;
}

void Drive::make_folder(const std::string& path) {
  int err = 0;
  void* context = nullptr;
  void* folder =
      tnw_create(session_.handle(), &context, path.c_str(), TNW_ACC_ATTRIBUTES, 0, TNW_DISP_CREATE,
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
  check_answer("The token", "is not taken", tnw_updatetoken(session_.handle(), token.data()),
               TOKEN_ANSWERS);
}

void Drive::set_proxy(const std::string& server, const std::string& user,
                      const std::string& password) {
  check_answer(
      "The proxy", "is not taken",
      tnw_set_http_proxy(session_.handle(), server.c_str(), user.c_str(), password.c_str()),
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
