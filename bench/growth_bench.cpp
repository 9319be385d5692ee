/*
 * What more drives, open files and instances cost the single call. The bare call is measured beside
 * it before and after, so that a machine that has become slower does not count as growth.
 */
#include <algorithm>
#include <memory>

#include "bare_exchange.h"
#include "drive_rows.h"

namespace {

constexpr char PATH[] = "/small/first";

/* How many times the bare call's time ours takes, sample by sample. */
Samples ratios(const Work& ours, const Work& bare) {
  const Pair pair = sample_pair(ours, bare);
  Samples found;
  std::transform(pair.ours.begin(), pair.ours.end(), pair.peer.begin(), std::back_inserter(found),
                 std::divides<>());
  return found;
}

}  // namespace

void growth_rows(Bench& bench, const Drive& drive) {
  const File file(drive, "/warm0");
  BareExchange peer(bench.folder() + "\\grow.sock");
  char buffer[4096];
  const auto reads = [&] {
    return ratios(repeat([&] { file.read(buffer, sizeof buffer); }),
                  repeat([&] { file.transfer_bare(false, buffer, sizeof buffer, 0); }));
  };
  const auto looks = [&] {
    return ratios(repeat([&] { drive.look_up(PATH); }),
                  repeat([&] { peer.run(REQUEST, STAT_ANSWER); }));
  };
  /* `grow` makes more of what there is, which lives until both are measured. */
  const auto rows = [&](const std::string& name, auto grow) {
    if (bench.wants(name)) {
      const Samples reads_before = reads(), looks_before = looks();
      const auto more = grow();
      bench.samples("warm read, " + name, reads(), reads_before, "times bare");
      bench.samples("getfileinfo, " + name, looks(), looks_before, "times bare");
    }
  };

  rows("480 open files against 1", [&] { return open_often(drive, PATH, 479); });
  const auto drives = [&](int count, bool have_users) {
    std::deque<std::unique_ptr<Drive>> more;
    for (int i = 1; i < count; i++) {
      more.push_back(have_users
                         ? std::make_unique<Drive>(bench.folder(), "user" + std::to_string(i))
                         : std::make_unique<Drive>(bench.folder(), "ada", i));
    }
    return more;
  };
  rows("200 drive handles against 1", [&] { return drives(200, false); });
  rows("20 instances against 1", [&] { return drives(20, true); });
}
