/*
 * Large files: fetched, put and changed, against copies by the system. All lie on one disk.
 */
#include <windows.h>

#include "rows.h"

namespace {

constexpr int ROUNDS = 3;
constexpr ox_u64 BIG = 256 << 20; /* the length of cloud\big */

void copy(const std::string& from, const std::string& to) {
  must(CopyFileA(from.c_str(), to.c_str(), FALSE) != 0, "CopyFile");
}

void remove(const std::string& path) { must(DeleteFileA(path.c_str()) != 0, "DeleteFile"); }

void flush(const std::string& path) {
  const HANDLE file =
      CreateFileA(path.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  must(FlushFileBuffers(file) != 0 && CloseHandle(file) != 0, "FlushFileBuffers");
}

/* A name that the drive has not met. */
std::string fresh_name() {
  static int count = 0;
  return "fresh" + std::to_string(count++);
}

class Transfers {
 public:
  explicit Transfers(Drive& drive) : drive_(drive), big_(drive.in_cloud("big")) {}

  double cold_read() {
    const std::string name = fresh_name();
    copy(big_, drive_.in_cloud(name));
    const double seconds = seconds_of([&] {
      std::vector<char> buffer(64 << 10);
      const File file(drive_, "/" + name, TNW_DISP_OPEN, TNW_ACC_READ);
      ox_s64 count = 0;
      for (ox_u64 off = 0; off < BIG; off += buffer.size()) {
        must(tnw_read(file.handle(), buffer.data(), buffer.size(), static_cast<ox_off>(off), &count,
                      nullptr) == 0,
             "tnw_read");
      }
    });
    must(tnw_delete(drive_.handle(), ("/" + name).c_str(), "bench") == 0, "tnw_delete");
    return seconds;
  }

  double put() {
    const std::string name = fresh_name();
    const double seconds = seconds_of([&] {
      std::vector<char> buffer(1 << 20, 'x');
      File file(drive_, "/" + name, TNW_DISP_CREATE);
      for (ox_u64 off = 0; off < BIG; off += buffer.size()) {
        must(tnw_write(file.handle(), buffer.data(), buffer.size(), static_cast<ox_off>(off),
                       nullptr, nullptr) == 0,
             "tnw_write");
      }
      file.close();
    });
    must(tnw_delete(drive_.handle(), ("/" + name).c_str(), "bench") == 0, "tnw_delete");
    return seconds;
  }

  /* `name` is cached whole. */
  double change(const std::string& name) {
    return seconds_of([&] {
      File file(drive_, "/" + name);
      char byte = 'y';
      must(tnw_write(file.handle(), &byte, 1, BIG / 2, nullptr, nullptr) == 0, "tnw_write");
      file.close();
    });
  }

  double bare_copy(bool flushed) {
    const std::string to = drive_.in_cloud(fresh_name());
    const double seconds = seconds_of([&] {
      copy(big_, to);
      if (flushed) {
        flush(to);
      }
    });
    remove(to);
    return seconds;
  }

 private:
  Drive& drive_;
  std::string big_;
};

}  // namespace

void transfer_rows(Bench& bench, Drive& drive) {
  Transfers transfers(drive);
  bench.pair_once(
      "cold read of 256 MiB in 64 KiB steps", ROUNDS, [&] { return transfers.cold_read(); },
      [&] { return transfers.bare_copy(false); });
  bench.pair_once(
      "put of a new 256 MiB file", ROUNDS, [&] { return transfers.put(); },
      [&] { return transfers.bare_copy(true); });
  const std::string change = "change of 1 byte in 256 MiB";
  if (bench.wants(change)) {
    transfers.change("big");
    bench.pair_once(
        change, ROUNDS, [&] { return transfers.change("big"); },
        [&] { return transfers.bare_copy(true); });
  }
}
