/*
 * The library's own part of a warm read or write: the DLL's ReadFile and WriteFile are replaced by
 * functions that do nothing.
 */
#include <algorithm>

#include "import_table.h"
#include "rows.h"

namespace {

constexpr ox_u32 BLOCK = 4096;

BOOL WINAPI read_nothing(HANDLE /*file*/, void* /*buffer*/, DWORD size, DWORD* count,
                         OVERLAPPED* /*where*/) {
  *count = size;
  return TRUE;
}

BOOL WINAPI write_nothing(HANDLE /*file*/, const void* /*buffer*/, DWORD size, DWORD* count,
                          OVERLAPPED* /*where*/) {
  *count = size;
  return TRUE;
}

class Replaced {
 public:
  Replaced(const char* function, void* by)
      : dll_(GetModuleHandleA("libtnw.dll")),
        function_(function),
        old_(replace_import(dll_, function, by)) {
    must(old_ != nullptr, "the DLL imports the function");
  }
  ~Replaced() { replace_import(dll_, function_, old_); }
  Replaced(const Replaced&) = delete;

 private:
  HMODULE dll_;
  const char* function_;
  void* old_;
};

template <class Call>
Work repeated(const File& file, Call call) {
  return [&file, call](benchmark::State& state) {
    char buffer[BLOCK];
    ox_s64 count = 0;
    for (auto _ : state) {
      if (call(file.handle(), buffer, BLOCK, 0, &count, nullptr) != 0) {
        state.SkipWithError("a read or write failed");
        break;
      }
    }
  };
}

/* With more threads than CPUs, an operation's end comes no sooner than a CPU is free: what counts
 * is the time that a CPU was busy with it. */
void own_part(Bench& bench, const std::string& name, const Work& work) {
  bench.alone(name + ", 1 thread", work);
  bench.alone(name + ", 4 threads", work, 4, std::min(4, bench.cpus()));
}

}  // namespace

void own_part_rows(Bench& bench, Drive& drive) {
  File file(drive, "/warm0");
  char buffer[BLOCK] = {};
  must(tnw_read(file.handle(), buffer, BLOCK, 0, nullptr, nullptr) == 0, "tnw_read");
  must(tnw_write(file.handle(), buffer, BLOCK, 0, nullptr, nullptr) == 0, "tnw_write");
  {
    const Replaced read("ReadFile", reinterpret_cast<void*>(&read_nothing));
    own_part(bench, "own part of a warm read", repeated(file, tnw_read));
  }
  const Replaced write("WriteFile", reinterpret_cast<void*>(&write_nothing));
  own_part(bench, "own part of a dirty write", repeated(file, tnw_write));
}
