/*
 * What more drives, open files and instances cost the single call. The bare call is measured beside
 * it before and after, so that a machine that has become slower does not count as growth.
 */
#include <windows.h>

#include <algorithm>
#include <deque>

#include "bare_exchange.h"
#include "rows.h"
#include "tnv_proto.h"

namespace {

constexpr ox_u32 BLOCK = 4096;
constexpr char PATH[] = "/small/first";

Work read_once(const File& file) {
  return [&file](benchmark::State& state) {
    char buffer[BLOCK];
    for (auto _ : state) {
      must(tnw_read(file.handle(), buffer, BLOCK, 0, nullptr, nullptr) == 0, "tnw_read");
    }
  };
}

Work bare_read(const File& file) {
  return [&file](benchmark::State& state) {
    char buffer[BLOCK];
    for (auto _ : state) {
      OVERLAPPED where = {};
      DWORD count = 0;
      must(ReadFile(file.local(), buffer, BLOCK, &count, &where) != 0, "ReadFile");
    }
  };
}

Work look_up(const Drive& drive) {
  return [&drive](benchmark::State& state) {
    tnw_fileinfo info;
    for (auto _ : state) {
      must(tnw_getfileinfo(drive.handle(), PATH, &info, "bench") == 0, "tnw_getfileinfo");
    }
  };
}

Work bare_exchange(BareExchange& peer) {
  return [&peer](benchmark::State& state) {
    for (auto _ : state) {
      peer.run(TNV_MSG_FIXED, sizeof(tnv_resphdr) + sizeof(tnv_wstat_resp));
    }
  };
}

/* How many times the bare call's time ours takes, sample by sample. */
std::vector<double> ratios(const PairSamples& samples) {
  std::vector<double> found;
  std::transform(samples.ours.begin(), samples.ours.end(), samples.peer.begin(),
                 std::back_inserter(found), std::divides<>());
  return found;
}

class Growth {
 public:
  Growth(Bench& bench, Drive& drive)
      : bench_(bench),
        drive_(drive),
        file_(drive, "/warm0"),
        peer_(bench.folder() + "\\grow.sock") {}

  /* Both rows of "NAME"; `grow` makes what there is more of, which lives until the end of this. */
  template <class Grow>
  void rows(const std::string& name, Grow grow) {
    const std::string read = "warm read, " + name, look = "getfileinfo, " + name;
    if (!bench_.wants_any({read, look})) {
      return;
    }
    const auto read_before = reads(), looks_before = looks();
    const auto more = grow();
    bench_.samples(read, reads(), read_before, "times bare");
    bench_.samples(look, looks(), looks_before, "times bare");
  }

 private:
  std::vector<double> reads() { return ratios(sample_pair(read_once(file_), bare_read(file_))); }
  std::vector<double> looks() { return ratios(sample_pair(look_up(drive_), bare_exchange(peer_))); }

  Bench& bench_;
  Drive& drive_;
  File file_;
  BareExchange peer_;
};

}  // namespace

void growth_rows(Bench& bench, Drive& drive) {
  Growth growth(bench, drive);
  growth.rows("480 open files against 1", [&] {
    std::deque<File> files;
    for (int i = 0; i < 479; i++) {
      files.emplace_back(drive, PATH, TNW_DISP_OPEN, TNW_ACC_READ);
    }
    return files;
  });
  growth.rows("200 drive handles against 1", [&] {
    std::deque<std::unique_ptr<Drive>> drives;
    for (int i = 1; i < 200; i++) {
      drives.push_back(std::make_unique<Drive>(bench.folder(), "ada", i));
    }
    return drives;
  });
  growth.rows("20 instances against 1", [&] {
    std::deque<std::unique_ptr<Drive>> drives;
    for (int i = 1; i < 20; i++) {
      drives.push_back(std::make_unique<Drive>(bench.folder(), "user" + std::to_string(i)));
    }
    return drives;
  });
}
