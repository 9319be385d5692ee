/*
 * What an instance and an open file take.
 */
#include <windows.h>

#include <deque>
#include <map>

#include "process_state.h"
#include "rows.h"

namespace {

/* Bytes of memory that belong to this process alone, without stacks, which are the allocations with
 * a guard page. */
size_t private_bytes() {
  std::map<void*, size_t> bytes;
  std::set<void*> stacks;
  MEMORY_BASIC_INFORMATION part = {};
  for (const char* at = nullptr; VirtualQuery(at, &part, sizeof part) != 0; at += part.RegionSize) {
    if (part.State == MEM_COMMIT && part.Type == MEM_PRIVATE) {
      bytes[part.AllocationBase] += part.RegionSize;
      if ((part.Protect & PAGE_GUARD) != 0) {
        stacks.insert(part.AllocationBase);
      }
    }
  }
  size_t sum = 0;
  for (const auto& [base, size] : bytes) {
    sum += stacks.contains(base) ? 0 : size;
  }
  return sum;
}

/* The files that can be open without maps are folders. */
void open_file_row(Bench& bench, const Drive& drive) {
  constexpr size_t COUNT = 256;
  const size_t before = heap_bytes();
  std::deque<File> files;
  for (size_t i = 0; i < COUNT; i++) {
    files.emplace_back(drive, "/small", TNW_DISP_OPEN, TNW_ACC_READ);
  }
  const size_t own = COUNT * sizeof(File);
  bench.value("memory of an open file without maps",
              static_cast<double>(heap_bytes() - before - own) / COUNT);
}

}  // namespace

void footprint_rows(Bench& bench) {
  const std::string handles = "handles of an instance with 8 workers";
  const std::string memory = "memory of an instance with 8 workers";
  const std::string open_file = "memory of an open file without maps";
  if (!bench.wants_any({handles, memory, open_file})) {
    return;
  }
  const size_t handles_before = fresh_handle();
  const size_t bytes_before = private_bytes();
  const Drive drive(bench.folder(), "footprint");
  bench.value(handles, static_cast<double>(fresh_handle() - handles_before));
  bench.value(memory, static_cast<double>(private_bytes() - bytes_before));
  open_file_row(bench, drive);
}
