#include "drive.h"

#include <windows.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "bench.h"

namespace {

template <size_t N>
void set(char (&field)[N], const std::string& text) {
  must(text.size() < N, "a text that fits its field");
  text.copy(field, N - 1);
}

std::string program_folder() {
  char path[MAX_PATH];
  GetModuleFileNameA(nullptr, path, sizeof path);
  return std::filesystem::path(path).parent_path().string();
}

std::string file_address(std::string path) {
  for (char& c : path) {
    c = c == '\\' ? '/' : c;
  }
  return "file:///" + path;
}

/* A UUID text that ends with this number. */
std::string numbered_id(int number) {
  char text[37];
  snprintf(text, sizeof text, "22222222-2222-2222-2222-%012d", number);
  return text;
}

tnw_tninit start_record(const std::string& folder, const std::string& user, int drive_number) {
  tnw_tninit record = {};
  record.tnw_flags = TNW_INIT_NO_RETRY;
  record.tnw_min_threads = 8;
  record.tnw_max_threads = 8;
  set(record.tnw_username, user);
  set(record.tnw_domain, "bench.test");
  set(record.tnw_workdir, folder + "\\work");
  set(record.tnw_logdir, folder + "\\log");
  set(record.tnw_sharepath, "/");
  set(record.tnw_binpath, program_folder() + "\\tarnd.exe");
  set(record.tnw_api_addr, file_address(folder + "\\cloud"));
  set(record.tnw_config_addr, "none");
  set(record.tnw_da_device_id, "11111111-1111-1111-1111-111111111111");
  set(record.tnw_tn_device_id, "33333333-3333-3333-3333-333333333333");
  set(record.tnw_da_drive_id, numbered_id(drive_number));
  set(record.tnw_authtoken, "token");
  return record;
}

}  // namespace

Drive::Drive(const std::string& folder, const std::string& user, int drive_number)
    : folder_(folder), only_(drive_number == 0) {
  for (const char* name : {"\\work", "\\log", "\\cloud"}) {
    std::filesystem::create_directories(folder + name);
  }
  tnw_tninit record = start_record(folder, user, drive_number);
  int err = 0;
  handle_ = tnw_init(&record, &err);
  must(handle_ != nullptr, "tnw_init");
}

void Drive::end() {
  if (handle_ != nullptr) {
    must((only_ ? tnw_deinit_force(handle_) : tnw_deinit(handle_, false)) == 0,
         "the end of a drive");
    handle_ = nullptr;
  }
}

std::string Drive::service_log() const {
  std::string text;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder_ + "\\log")) {
    std::ifstream file(entry.path(), std::ios::binary);
    text.append(std::istreambuf_iterator<char>(file), {});
  }
  return text;
}

File::File(const Drive& drive, const std::string& path, ox_u32 disposition, ox_u32 access)
    : handle_(tnw_create(drive.handle(), nullptr, path.c_str(), access,
                         FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, disposition, 0,
                         static_cast<int>(GetCurrentProcessId()), "bench", nullptr)) {
  must(handle_ != nullptr, "tnw_create");
}

void File::close() {
  if (handle_ != nullptr) {
    must(tnw_close(handle_, nullptr) == 0, "tnw_close");
    handle_ = nullptr;
  }
}
