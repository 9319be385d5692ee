/*
 * What an instance and an open file take.
 */
#include <windows.h>

#include <map>

#include "drive_rows.h"
#include "process_state.h"

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

}  // namespace

/* The files that can be open without maps are folders. */
void footprint_rows(Bench& bench) {
  constexpr int FILES = 256;
  if (!bench.wants(" of an ")) {
    return;
  }
  const size_t handles = fresh_handle(), bytes = private_bytes();
  const Drive drive(bench.folder(), "footprint");
  const auto row = [&](const char* name, size_t number) {
    bench.samples(name, {static_cast<double>(number)});
  };
  row("handles of an instance with 8 workers", fresh_handle() - handles);
  row("memory of an instance with 8 workers", private_bytes() - bytes);
  const size_t before = heap_bytes();
  const std::deque<File> files = open_often(drive, "/small", FILES);
  row("memory of an open file without maps", (heap_bytes() - before) / FILES - sizeof(File));
}
