#include "drive_files.h"

#include <windows.h>

#include <atomic>
#include <fstream>
#include <iterator>

#include "log_capture.h"

namespace fs = std::filesystem;

TestFolder::TestFolder() {
  static std::atomic<int> next{0};
  char temp[MAX_PATH];
  GetTempPathA(sizeof temp, temp);
  path_ = std::string(temp) + "t" + std::to_string(GetCurrentProcessId()) + "-" +
          std::to_string(next++);
  fs::remove_all(path_); /* of a killed test with the same process id */
  fs::create_directories(path_);
}

/* A service that still writes back may hold a file for a moment. */
TestFolder::~TestFolder() {
  std::error_code failed;
  for (int i = 0; i < 20; i++) {
    fs::remove_all(path_, failed);
    if (!failed) {
      return;
    }
    Sleep(100);
  }
}

void write_file(const fs::path& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

std::string read_file(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

bool file_exists(const fs::path& path) { return fs::exists(path); }

std::string beside_test(const std::string& program) {
  char path[MAX_PATH];
  GetModuleFileNameA(nullptr, path, sizeof path);
  return fs::path(path).replace_filename(program).string();
}

tnw_tninit start_record(const TestFolder& folder, const std::string& program) {
  tnw_tninit record = {};
  record.tnw_flags = TNW_INIT_NO_RETRY;
  record.tnw_min_threads = 1;
  record.tnw_max_threads = 2;
  set_field(record.tnw_username, "ada");
  set_field(record.tnw_domain, "drive.test");
  set_field(record.tnw_workdir, folder.path());
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

void* init_drive(tnw_tninit* record, int* error) {
  const LogCapture log;
  void* drive = tnw_init(record, error);
  const bool wine_failed =
      drive == nullptr && log.count(ERROR_INTERNAL_ERROR, "Failed to start Tarn") != 0;
  return wine_failed ? tnw_init(record, error) : drive;
}
