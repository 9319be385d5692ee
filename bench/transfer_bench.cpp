/*
 * Large files: fetched, put and changed, against copies by the system. All lie on one disk.
 */
#include <windows.h>

#include "drive_rows.h"

namespace {

constexpr int ROUNDS = 3;
constexpr ox_u64 BIG = 256 << 20; /* the length of cloud\big */

/* A name that the drive has not met. */
std::string fresh_name() {
  static int count = 0;
  return "fresh" + std::to_string(count++);
}

void copy(const std::string& from, const std::string& to, bool flushed) {
  must(CopyFileA(from.c_str(), to.c_str(), FALSE) != 0, "CopyFile");
  if (flushed) {
    const HANDLE file =
        CreateFileA(to.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    must(FlushFileBuffers(file) != 0 && CloseHandle(file) != 0, "FlushFileBuffers");
  }
}

double bare_copy(const Drive& drive, bool flushed) {
  const std::string to = drive.in_cloud(fresh_name());
  const double seconds = seconds_of([&] { copy(drive.in_cloud("big"), to, flushed); });
  must(DeleteFileA(to.c_str()) != 0, "DeleteFile");
  return seconds;
}

double cold_read(const Drive& drive) {
  const std::string name = fresh_name();
  copy(drive.in_cloud("big"), drive.in_cloud(name), false);
  const double seconds = seconds_of([&] {
    std::vector<char> buffer(64 << 10);
    const File file(drive, "/" + name, TNW_DISP_OPEN, TNW_ACC_READ);
    for (ox_u64 off = 0; off < BIG; off += buffer.size()) {
      file.read(buffer.data(), buffer.size(), off);
    }
  });
  drive.remove("/" + name);
  return seconds;
}

double put(const Drive& drive) {
  const std::string name = "/" + fresh_name();
  const double seconds = seconds_of([&] {
    const std::vector<char> buffer(1 << 20, 'x');
    const File file(drive, name, TNW_DISP_CREATE);
    for (ox_u64 off = 0; off < BIG; off += buffer.size()) {
      file.write(buffer.data(), buffer.size(), off);
    }
  });
  drive.remove(name);
  return seconds;
}

double change(const Drive& drive) {
  return seconds_of([&] { File(drive, "/big").write("y", 1, BIG / 2); });
}

}  // namespace

void transfer_rows(Bench& bench, const Drive& drive) {
  const auto copied = [&] { return bare_copy(drive, false); };
  const auto copied_and_flushed = [&] { return bare_copy(drive, true); };
  const std::string of_one_byte = "change of 1 byte in 256 MiB";
  if (bench.wants(of_one_byte)) {
    change(drive); /* the file is cached whole from then on */
  }
  bench.pair_once(
      "cold read of 256 MiB in 64 KiB steps", ROUNDS, [&] { return cold_read(drive); }, copied);
  bench.pair_once(
      "put of a new 256 MiB file", ROUNDS, [&] { return put(drive); }, copied_and_flushed);
  bench.pair_once(
      of_one_byte, ROUNDS, [&] { return change(drive); }, copied_and_flushed);
}
