/*
 * Reads and writes of what is cached, against the bare calls on the same handle.
 */
#include <cstdlib>

#include "drive_rows.h"

namespace {

constexpr ox_u64 SPAN = 8 << 20; /* the files are at least so long */
constexpr size_t MIB = 1 << 20;
constexpr std::pair<const char*, size_t> SIZES[] = {
    {"4 KiB", 4 << 10}, {"64 KiB", 64 << 10}, {"1 MiB", MIB}};

/* One pass after the other through a file, each thread through its own; `transfer` is called with
 * the file, the buffer and the offset. */
template <class Transfer>
Work steps(const std::deque<File>& files, size_t size, Transfer transfer) {
  return [&files, size, transfer](benchmark::State& state) {
    const File& file = files[static_cast<size_t>(state.thread_index())];
    std::vector<char> buffer(size);
    ox_u64 off = 0;
    for (auto _ : state) {
      transfer(file, buffer.data(), off);
      off = (off + size) % SPAN;
    }
  };
}

/* Reads or writes the files whole: they are cached, or dirty, from then on. */
void transfer_all(const std::deque<File>& files, bool writes) {
  std::vector<char> buffer(MIB);
  for (const File& file : files) {
    for (ox_u64 off = 0; off < SPAN; off += MIB) {
      writes ? file.write(buffer.data(), MIB, off) : file.read(buffer.data(), MIB, off);
    }
  }
}

}  // namespace

void read_write_rows(Bench& bench, const Drive& drive) {
  /* With transaction ids each call writes a line to the log. The limit then has a line of that
   * length, too. */
  const char* first_id = getenv("TARND_UTXID");
  const auto log = first_id != nullptr && *first_id == '1'
                       ? peer_logger(bench.folder() + "\\peer.log")
                       : nullptr;
  const std::string line(820, 'x');
  std::deque<File> files;
  for (int i = 0; i < 4; i++) {
    files.emplace_back(drive, "/warm" + std::to_string(i));
  }
  for (const bool writes : {false, true}) { /* reads come first: then nothing is dirty */
    transfer_all(files, writes);
    for (const auto& [size_name, size] : SIZES) {
      const Work ours = steps(files, size, [=](const File& f, char* bytes, ox_u64 off) {
        writes ? f.write(bytes, size, off) : f.read(bytes, size, off);
      });
      const Work bare = steps(files, size, [=, &line](const File& f, char* bytes, ox_u64 off) {
        if (log != nullptr) {
          log->info(line);
        }
        f.transfer_bare(writes, bytes, size, off);
      });
      const std::string row = std::string(writes ? "dirty write " : "warm read ") + size_name;
      bench.pair(row, ours, bare);
      bench.pair(row + ", 4 threads on 4 files", ours, bare, 4);
    }
  }
}
