#include "drive.h"

#include <fmt/format.h>
#include <windows.h>

#include <filesystem>

#include "tools/common/console.h"
#include "tools/drive/drive_options.h"

namespace {

tnw_tninit start_record(const std::string& folder, const std::string& user, int drive_number) {
  tools::DriveOptions options;
  options.cloud = folder + "\\cloud";
  options.work = folder + "\\work";
  options.service = tools::program_folder() + "tarnd.exe";
  options.user = user;
  options.threads = 8;
  tnw_tninit record = tools::start_record(options);
  record.tnw_min_threads = 8;
  fmt::format_to(record.tnw_tn_device_id, "33333333-3333-3333-3333-333333333333");
  fmt::format_to(record.tnw_da_drive_id, "22222222-2222-2222-2222-{:012}", drive_number);
  return record;
}

}  // namespace

Drive::Drive(const std::string& folder, const std::string& user, int drive_number)
    : folder_(folder), only_(drive_number == 0) {
  std::filesystem::create_directories(folder + "\\work\\logs");
  tnw_tninit record = start_record(folder, user, drive_number);
  int err = 0;
  handle_ = tnw_init(&record, &err);
  must(handle_ != nullptr, "tnw_init");
}

Drive::~Drive() {
  must((only_ ? tnw_deinit_force(handle_) : tnw_deinit(handle_, false)) == 0, "a drive's end");
}

void Drive::look_up(const std::string& path) const {
  tnw_fileinfo info;
  must(tnw_getfileinfo(handle_, path.c_str(), &info, "bench") == 0 && info.fi_name[0] != 0,
       "tnw_getfileinfo");
}

void Drive::remove(const std::string& path) const {
  must(tnw_delete(handle_, path.c_str(), "bench") == 0, "tnw_delete");
}

std::pair<double, double> Drive::list(const std::string& path, size_t entries) const {
  tnw_fileinfo entry;
  int err = 0;
  void* listing = nullptr;
  const double first =
      seconds_of([&] { listing = tnw_findfirst(handle_, path.c_str(), &entry, "bench", &err); });
  size_t found = 0;
  const double next = seconds_of([&] {
    for (; listing != nullptr && err == 0; err = tnw_findnext(listing, &entry)) {
      found++;
    }
  });
  must(found == entries && tnw_findclose(listing) == 0, "the drive lists all entries");
  return {first, next};
}

File::File(const Drive& drive, const std::string& path, ox_u32 disposition, ox_u32 access)
    : handle_(tnw_create(drive.handle(), nullptr, path.c_str(), access,
                         FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, disposition, 0,
                         static_cast<int>(GetCurrentProcessId()), "bench", nullptr)) {
  must(handle_ != nullptr, "tnw_create");
}

std::deque<File> open_often(const Drive& drive, const std::string& path, int count) {
  std::deque<File> files;
  for (int i = 0; i < count; i++) {
    files.emplace_back(drive, path, TNW_DISP_OPEN, TNW_ACC_READ);
  }
  return files;
}

File::~File() { must(tnw_close(handle_, nullptr) == 0, "tnw_close"); }

void File::transfer_bare(bool writes, void* buffer, size_t size, ox_u64 off) const {
  const HANDLE local = static_cast<tnvfd*>(handle_)->fdt_ofd;
  const auto bytes = static_cast<DWORD>(size);
  OVERLAPPED where = {};
  where.Offset = static_cast<DWORD>(off);
  DWORD count = 0;
  must((writes ? WriteFile(local, buffer, bytes, &count, &where)
               : ReadFile(local, buffer, bytes, &count, &where)) != 0,
       "a bare read or write");
}

void list_system(const std::string& folder, size_t entries) {
  WIN32_FIND_DATAA data;
  const HANDLE find = FindFirstFileA((folder + "\\*").c_str(), &data);
  must(find != INVALID_HANDLE_VALUE, "FindFirstFile");
  size_t found = 1;
  while (FindNextFileA(find, &data) != 0) {
    found++;
  }
  FindClose(find);
  must(found == entries + 2, "the system lists all entries"); /* and . and .. */
}
