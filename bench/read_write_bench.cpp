/*
 * Reads and writes of what is cached, against the bare calls on the same handle.
 */
#include <windows.h>

#include <deque>

#include "rows.h"

namespace {

constexpr ox_u64 SPAN = 8 << 20; /* the files are at least so long */

struct Size {
  const char* name;
  ox_u32 bytes;
};
constexpr Size SIZES[] = {{"4 KiB", 4 << 10}, {"64 KiB", 64 << 10}, {"1 MiB", 1 << 20}};

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

Work bare_reads(const File& file, ox_u32 size) {
  return [&file, size](benchmark::State& state) {
    step_through(state, size, [&](char* buffer, ox_u64 off) {
      OVERLAPPED where = at_offset(off);
      DWORD count = 0;
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

Work bare_writes(const std::deque<File>& files, ox_u32 size) {
  return [&files, size](benchmark::State& state) {
    const File& file = files[static_cast<size_t>(state.thread_index())];
    step_through(state, size, [&](char* buffer, ox_u64 off) {
      OVERLAPPED where = at_offset(off);
      DWORD count = 0;
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
  std::deque<File> files;
  for (int i = 0; i < 4; i++) {
    files.emplace_back(drive, "/warm" + std::to_string(i));
    warm(files.back());
  }
  for (const Size& size : SIZES) {
    bench.pair(std::string("warm read ") + size.name, our_reads(files[0], size.bytes),
               bare_reads(files[0], size.bytes));
  }
  for (const File& file : files) {
    make_dirty(file);
  }
  for (const Size& size : SIZES) {
    const std::string name = std::string("dirty write ") + size.name;
    bench.pair(name, our_writes(files, size.bytes), bare_writes(files, size.bytes));
    bench.pair(name + ", 4 threads on 4 files", our_writes(files, size.bytes),
               bare_writes(files, size.bytes), 4);
  }
}
