/*
 * Calls that ask the service, against the bare exchange of as many bytes.
 */
#include <windows.h>

#include "bare_exchange.h"
#include "rows.h"
#include "tnv_proto.h"

namespace {

constexpr uint32_t REQUEST = TNV_MSG_FIXED;
constexpr uint32_t ANSWER = sizeof(tnv_resphdr);
constexpr char PATH[] = "/small/first";
/* Two maps for a file of 100 bytes. */
constexpr uint32_t MAPS = 130;

Work look_up(const Drive& drive) {
  return [&drive](benchmark::State& state) {
    tnw_fileinfo info;
    for (auto _ : state) {
      if (tnw_getfileinfo(drive.handle(), PATH, &info, "bench") != 0 || info.fi_name[0] == 0) {
        state.SkipWithError("tnw_getfileinfo failed");
        break;
      }
    }
  };
}

Work lock_and_unlock(const File& file) {
  return [&file](benchmark::State& state) {
    bool locked = false;
    for (auto _ : state) {
      const int code = locked ? tnw_unlockfile(file.handle(), 0, 0, 10, 0, 1)
                              : tnw_lockfile(file.handle(), TNW_LOCK_EXCLUSIVE, 0, 0, 10, 0, 1);
      if (code != 0) {
        state.SkipWithError("a lock failed");
        break;
      }
      locked = !locked;
    }
    if (locked) {
      tnw_unlockfile(file.handle(), 0, 0, 10, 0, 1);
    }
  };
}

Work open_and_close(const Drive& drive) {
  return [&drive](benchmark::State& state) {
    for (auto _ : state) {
      File(drive, PATH, TNW_DISP_OPEN, TNW_ACC_READ).close();
    }
  };
}

Work bare(BareExchange& peer, uint32_t path, uint32_t payload) {
  return [=, &peer](benchmark::State& state) {
    for (auto _ : state) {
      peer.run(REQUEST + path, ANSWER + payload);
    }
  };
}

Work bare_open_and_close(BareExchange& peer) {
  return [&peer](benchmark::State& state) {
    for (auto _ : state) {
      peer.run(REQUEST + sizeof PATH, ANSWER + sizeof(tnv_wopen_resp) + MAPS);
      peer.run(REQUEST, ANSWER);
    }
  };
}

}  // namespace

void exchange_rows(Bench& bench, Drive& drive) {
  BareExchange peer(bench.folder() + "\\bare.sock");
  bench.pair("getfileinfo", look_up(drive), bare(peer, sizeof PATH, sizeof(tnv_wstat_resp)));
  {
    const File file(drive, PATH);
    bench.pair("lock or unlock", lock_and_unlock(file), bare(peer, 0, 0));
  }
  File(drive, PATH).close();
  bench.pair("open + close, file with maps", open_and_close(drive), bare_open_and_close(peer));
}
