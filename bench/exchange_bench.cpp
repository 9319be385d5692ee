/*
 * Calls that ask the service, against the bare exchange of as many bytes.
 */
#include "bare_exchange.h"
#include "drive_rows.h"

void exchange_rows(Bench& bench, const Drive& drive) {
  constexpr char PATH[] = "/small/first";
  BareExchange peer(bench.folder() + "\\bare.sock");

  bench.pair("getfileinfo", repeat([&] { drive.look_up(PATH); }),
             repeat([&] { peer.run(REQUEST + sizeof PATH, STAT_ANSWER); }));
  {
    const File file(drive, PATH); /* which has maps from now on */
    bool is_locked = false;
    const auto lock_or_unlock = [&] {
      const int code = is_locked ? tnw_unlockfile(file.handle(), 0, 0, 10, 0, 1)
                                 : tnw_lockfile(file.handle(), TNW_LOCK_EXCLUSIVE, 0, 0, 10, 0, 1);
      must(code == 0, "a lock");
      is_locked = !is_locked;
    };
    bench.pair("lock or unlock", repeat(lock_or_unlock),
               repeat([&] { peer.run(REQUEST, ANSWER); }));
    if (is_locked) {
      lock_or_unlock();
    }
  }
  bench.pair("open + close, file with maps",
             repeat([&] { const File file(drive, PATH, TNW_DISP_OPEN, TNW_ACC_READ); }),
             repeat([&] {
               peer.run(REQUEST + sizeof PATH, OPEN_ANSWER);
               peer.run(REQUEST, ANSWER);
             }));
}
