#include "drive_files.h"

#include <windows.h>

#include "log_capture.h"

tnw_tninit start_record(const TestFolder& folder, const std::string& program) {
  tnw_tninit record = {};
  record.tnw_flags = TNW_INIT_NO_RETRY;
  record.tnw_min_threads = 1;
  record.tnw_max_threads = 2;
  set_field(record.tnw_username, "ada");
  set_field(record.tnw_domain, "drive.test");
  set_field(record.tnw_workdir, folder.path().string());
  set_field(record.tnw_logdir, folder / "log");
  set_field(record.tnw_sharepath, "/");
  set_field(record.tnw_binpath, program);
  set_field(record.tnw_api_addr, "file:///nowhere");
  set_field(record.tnw_config_addr, "none");
  set_field(record.tnw_da_device_id, "11111111-1111-1111-1111-111111111111");
  set_field(record.tnw_tn_device_id, "33333333-3333-3333-3333-333333333333");
  set_field(record.tnw_da_drive_id, "22222222-2222-2222-2222-222222222222");
  set_field(record.tnw_authtoken, "token");
  return record;
}

std::string cache_dir(const tnw_tninit& record) {
  return std::string(record.tnw_workdir) + "\\" + record.tnw_domain + "\\" + record.tnw_username;
}

std::string socket_path(const tnw_tninit& record) {
  std::string path = record.tnw_uds_workdir[0] != 0 ? record.tnw_uds_workdir : cache_dir(record);
  if (record.tnw_workgroup_id[0] != 0) {
    path += std::string("\\") + record.tnw_workgroup_id;
  }
  const auto id = static_cast<unsigned long long>(record.tnw_user_id);
  return path + "\\" + (id != 0 ? std::to_string(id) : "tnvfs") + ".sock";
}

std::string event_name(std::string path) {
  for (char& c : path) {
    c = c == '\\' ? '/' : static_cast<char>(tolower(c));
  }
  return path;
}

void* init_drive(tnw_tninit* record, int* error) {
  const LogCapture log;
  void* drive = tnw_init(record, error);
  const bool wine_failed =
      drive == nullptr && log.count(ERROR_INTERNAL_ERROR, "Failed to start Tarn") != 0;
  return wine_failed ? tnw_init(record, error) : drive;
}

void replace_all(std::string& text, const std::string& what, const std::string& by) {
  for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size()) {
    text.replace(at, what.size(), by);
  }
}
