/*
 * Reads and writes of what is cached, against the bare calls on the same handle.
 */
#include <windows.h>
/* after windows.h */
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>

#include <cstdlib>
#include <deque>

#include "rows.h"

namespace {

constexpr ox_u64 SPAN = 8 << 20; /* the files are at least so long */

struct Size {
  const char* name;
  ox_u32 bytes;
};
constexpr Size SIZES[] = {{"4 KiB", 4 << 10}, {"64 KiB", 64 << 10}, {"1 MiB", 1 << 20}};

/*
 * With transaction ids each call writes a line to the log. The limit then has a line of that
 * length, flushed, too.
 */
class PeerLog {
 public:
  explicit PeerLog(const std::string& folder) {
    const char* first_id = getenv("TARND_UTXID");
    if (first_id != nullptr && *first_id == '1') {
      logger_ = spdlog::rotating_logger_mt("peer", folder + "\\peer.log", FILE_SIZE, FILES);
      logger_->set_pattern("%v");
      logger_->flush_on(spdlog::level::info);
    }
  }

  void note() const {
    if (logger_ != nullptr) {
      logger_->info(line_);
    }
  }

 private:
  static constexpr size_t FILE_SIZE = 52428800, FILES = 10; /* as the library's log has */

  std::shared_ptr<spdlog::logger> logger_;
  std::string line_ = std::string(820, 'x');
};

OVERLAPPED at_offset(ox_u64 off) {
  OVERLAPPED where = {};
  where.Offset = static_cast<DWORD>(off);
  return where;
}

/* One pass after the other through the file; `transfer` is called with the buffer and the offset.
 */
template <class Transfer>
void step_through(benchmark::State& state, ox_u32 size, Transfer transfer) {
  std::vector<char> buffer(size);
  ox_u64 off = 0;
  for (auto _ : state) {
    if (!transfer(buffer.data(), off)) {
      state.SkipWithError("a read or write failed");
      break;
    }
    off = (off + size) % SPAN;
  }
}

Work our_reads(const File& file, ox_u32 size) {
  return [&file, size](benchmark::State& state) {
    step_through(state, size, [&](char* buffer, ox_u64 off) {
      ox_s64 count = 0;
      return tnw_read(file.handle(), buffer, size, static_cast<ox_off>(off), &count, nullptr) == 0;
    });
  };
}

Work bare_reads(const File& file, const PeerLog& log, ox_u32 size) {
  return [&file, &log, size](benchmark::State& state) {
    step_through(state, size, [&](char* buffer, ox_u64 off) {
      OVERLAPPED where = at_offset(off);
      DWORD count = 0;
      log.note();
      return ReadFile(file.local(), buffer, size, &count, &where) != 0;
    });
  };
}

/* Each thread has a file of its own. */
Work our_writes(const std::deque<File>& files, ox_u32 size) {
  return [&files, size](benchmark::State& state) {
    const File& file = files[static_cast<size_t>(state.thread_index())];
    step_through(state, size, [&](char* buffer, ox_u64 off) {
      ox_s64 count = 0;
      return tnw_write(file.handle(), buffer, size, static_cast<ox_off>(off), &count, nullptr) == 0;
    });
  };
}

Work bare_writes(const std::deque<File>& files, const PeerLog& log, ox_u32 size) {
  return [&files, &log, size](benchmark::State& state) {
    const File& file = files[static_cast<size_t>(state.thread_index())];
    step_through(state, size, [&](char* buffer, ox_u64 off) {
      OVERLAPPED where = at_offset(off);
      DWORD count = 0;
      log.note();
      return WriteFile(file.local(), buffer, size, &count, &where) != 0;
    });
  };
}

/* Fetches the whole file, so that no later read asks for anything. */
void warm(const File& file) {
  std::vector<char> buffer(1 << 20);
  for (ox_u64 off = 0; off < SPAN; off += buffer.size()) {
    must(tnw_read(file.handle(), buffer.data(), buffer.size(), static_cast<ox_off>(off), nullptr,
                  nullptr) == 0,
         "tnw_read");
  }
}

void make_dirty(const File& file) {
  std::vector<char> buffer(1 << 20);
  for (ox_u64 off = 0; off < SPAN; off += buffer.size()) {
    must(tnw_write(file.handle(), buffer.data(), buffer.size(), static_cast<ox_off>(off), nullptr,
                   nullptr) == 0,
         "tnw_write");
  }
}

}  // namespace

void read_write_rows(Bench& bench, Drive& drive) {
  const PeerLog log(bench.folder());
  std::deque<File> files;
  for (int i = 0; i < 4; i++) {
    files.emplace_back(drive, "/warm" + std::to_string(i));
    warm(files.back());
  }
  for (const Size& size : SIZES) {
    bench.pair(std::string("warm read ") + size.name, our_reads(files[0], size.bytes),
               bare_reads(files[0], log, size.bytes));
  }
  for (const File& file : files) {
    make_dirty(file);
  }
  for (const Size& size : SIZES) {
    const std::string name = std::string("dirty write ") + size.name;
    bench.pair(name, our_writes(files, size.bytes), bare_writes(files, log, size.bytes));
    bench.pair(name + ", 4 threads on 4 files", our_writes(files, size.bytes),
               bare_writes(files, log, size.bytes), 4);
  }
}
