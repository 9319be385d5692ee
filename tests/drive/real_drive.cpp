#include "real_drive.h"

#include <windows.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <regex>
#include <sstream>

#include "log_capture.h"

namespace fs = std::filesystem;

namespace {

constexpr DWORD STOP_LIMIT_MS = 20000;

std::string counts_file(const TestFolder& folder) { return folder / "counts"; }

/* The address of a folder, as the service's command line takes it. */
std::string file_url(const std::string& path) {
  const std::string slashes = std::regex_replace(path, std::regex(R"(\\)"), "/");
  return "file:///" + std::regex_replace(slashes, std::regex(" "), "%20");
}

std::string variable(const std::string& name) {
  const char* value = getenv(name.c_str());
  return value != nullptr ? value : "";
}

/* The server's folder, or a folder with a blank in its name, which is made. */
fs::path make_cloud(const TestFolder& folder, const std::string& server) {
  const fs::path cloud =
      server.empty() ? fs::path(folder / "my cloud")
                     : fs::path(variable("TNW_" + server + "_FOLDER")) / folder.path().filename();
  fs::create_directory(cloud);
  return cloud;
}

std::string cloud_address(const fs::path& cloud, const std::string& server) {
  return server.empty() ? variable("TNW_CLOUD_PREFIX") + file_url(cloud.string())
                        : variable("TNW_" + server) + cloud.filename().string() + '/';
}

}  // namespace

/*
 * With TNW_CLOUD_PREFIX=fault+ the folder is reached through the fault cloud. The log goes beside
 * the test only if it is opened before the first start.
 */
RealDrive::RealDrive(const std::string& server)
    : server_(server.empty() ? variable("TNW_CLOUD") : server),
      cloud(make_cloud(folder, server_)),
      record(start_record(folder, beside_test("tarnd.exe"))) {
  LogCapture opens_the_log;
  set_field(record.tnw_workdir, folder / "work");
  set_field(record.tnw_api_addr, cloud_address(cloud, server_));
  record.tnw_max_threads = 4;
  SetEnvironmentVariableA("TARND_REGION_SHIFT", "12");
  SetEnvironmentVariableA("TARND_COUNTS", counts_file(folder).c_str());
}

RealDrive::~RealDrive() { stop(); }

bool RealDrive::start() {
  fs::remove(counts_file(folder));
  drive = init_drive(&record, &error);
  if (drive == nullptr) {
    return false;
  }
  const std::string pid_file = cache_dir(record) + "\\tarnd_pid";
  const DWORD pid = std::stoul("0" + read_file(std::u8string(pid_file.begin(), pid_file.end())));
  service_ = OpenProcess(PROCESS_ALL_ACCESS, FALSE, pid);
  return service_ != nullptr;
}

int RealDrive::stop() { return drive != nullptr ? wait_for_service(tnw_deinit_force(drive)) : 0; }
int RealDrive::stop_gently() {
  return drive != nullptr ? wait_for_service(tnw_deinit(drive, false)) : 0;
}

int RealDrive::wait_for_service(int result) {
  drive = nullptr;
  const DWORD waited = WaitForSingleObject(service_, STOP_LIMIT_MS);
  CloseHandle(service_);
  return waited == WAIT_OBJECT_0 ? result : -2;
}

void RealDrive::kill_service() {
  TerminateProcess(service_, 9);
  WaitForSingleObject(service_, STOP_LIMIT_MS);
}

ox_u64 RealDrive::count(const std::string& name) const {
  std::istringstream lines(read_file(counts_file(folder)));
  std::string found;
  for (ox_u64 value; lines >> found >> value;) {
    if (found == name) {
      return value;
    }
  }
  return UINT64_MAX; /* not counted: none that a test expects */
}

fs::path RealDrive::in_cloud(const std::string& name) const {
  return cloud / std::u8string(name.begin(), name.end());
}
void RealDrive::put(const std::string& name, const std::string& content) const {
  fs::create_directories(in_cloud(name).parent_path());
  write_file(in_cloud(name), content);
}
std::string RealDrive::get(const std::string& name) const { return read_file(in_cloud(name)); }

std::vector<std::string> RealDrive::beside(const std::string& name) const {
  std::vector<std::string> found;
  const std::string start = in_cloud(name).filename().string() + " (conflict of ";
  for (const auto& entry : fs::directory_iterator(in_cloud(name).parent_path())) {
    const std::string file = entry.path().filename().string();
    if (file.starts_with(start)) {
      found.push_back(file);
    }
  }
  return found;
}

std::map<std::string, tnw_fileinfo> RealDrive::list(const std::string& path, int* code) {
  std::map<std::string, tnw_fileinfo> found;
  tnw_fileinfo entry = {};
  int err = -1;
  void* listing = tnw_findfirst(drive, path.c_str(), &entry, "test", &err);
  for (; listing != nullptr && err == 0; err = tnw_findnext(listing, &entry)) {
    found[{entry.fi_name, strnlen(entry.fi_name, sizeof entry.fi_name)}] = entry;
  }
  if (code != nullptr) {
    *code = err;
  }
  if (listing != nullptr && tnw_findclose(listing) != 0 && code != nullptr) {
    *code = -1;
  }
  return found;
}

DriveFile::DriveFile(RealDrive& drive, const std::string& path, OpenHow how)
    : drive_(drive), path_(path), slot_(std::make_shared<Slot>()) {
  open(how);
}

DriveFile::DriveFile(const DriveFile& other, OpenHow how, const std::string& path)
    : drive_(other.drive_), path_(path.empty() ? other.path_ : path), slot_(other.slot_) {
  open(how);
}

void DriveFile::open(OpenHow how) {
  const std::lock_guard guard(slot_->lock);
  SetLastError(0xbad);
  handle_ = tnw_create(drive_.drive, &slot_->context, path_.c_str(), how.access, how.share,
                       how.disposition, how.flags, static_cast<int>(GetCurrentProcessId()), "test",
                       &error_);
  last_error_ = GetLastError();
  if (handle_ != nullptr) {
    slot_->opens++;
  }
}

int DriveFile::close() {
  if (handle_ == nullptr) {
    return 0;
  }
  const std::lock_guard guard(slot_->lock);
  const int code = tnw_close(handle_, nullptr);
  if (code != 0) {
    return code;
  }
  handle_ = nullptr;
  if (--slot_->opens == 0) {
    slot_->context = nullptr;
  }
  return 0;
}

std::string DriveFile::read(ox_u64 off, ox_u64 len, int* code) const {
  std::string got(len, '\0');
  ox_s64 count = 0;
  const int err = tnw_read(handle_, got.data(), len, static_cast<ox_off>(off), &count, nullptr);
  if (code != nullptr) {
    *code = err;
  }
  got.resize(static_cast<size_t>(count));
  return got;
}

std::string DriveFile::read_all() const {
  std::string whole;
  for (;;) {
    const std::string piece = read(whole.size(), 10'000);
    if (piece.empty()) {
      return whole;
    }
    whole += piece;
  }
}

int DriveFile::write(ox_u64 off, const std::string& data) const {
  ox_s64 count = -1;
  const int code = tnw_write(handle_, const_cast<char*>(data.data()), data.size(),
                             static_cast<ox_off>(off), &count, nullptr);
  if (code != 0) {
    return code;
  }
  return static_cast<size_t>(count) == data.size() ? 0 : -1;
}

std::string noise(size_t size, unsigned seed) {
  std::minstd_rand random(seed);
  std::string bytes(size, '\0');
  std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random() >> 8); });
  return bytes;
}
