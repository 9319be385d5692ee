#include "process_state.h"

#include <windows.h>
/* after windows.h */
#include <fcntl.h>
#include <io.h>
#include <psapi.h>
#include <tlhelp32.h>

#include <algorithm>
#include <iterator>

static HANDLE duplicate(HANDLE from_process, HANDLE handle, HANDLE to_process, DWORD close_source) {
  HANDLE copy = nullptr;
  DuplicateHandle(from_process, handle, to_process, &copy, 0, FALSE,
                  DUPLICATE_SAME_ACCESS | close_source);
  return copy;
}

/* A semaphore, since a test may count the events that are made. A handle of another process is
 * closed by taking it. */
static size_t fresh_handle_in(HANDLE process) {
  const HANDLE self = GetCurrentProcess();
  const HANDLE semaphore = CreateSemaphoreA(nullptr, 0, 1, nullptr);
  HANDLE fresh[64];
  for (HANDLE& handle : fresh) {
    handle = duplicate(self, semaphore, process, 0);
  }
  for (const HANDLE handle : fresh) {
    CloseHandle(duplicate(process, handle, self, DUPLICATE_CLOSE_SOURCE));
  }
  CloseHandle(semaphore);
  return reinterpret_cast<size_t>(*std::max_element(std::begin(fresh), std::end(fresh))) / 4;
}

size_t fresh_handle() { return fresh_handle_in(GetCurrentProcess()); }

int fresh_descriptor() {
  const int fresh = _open("NUL", _O_RDONLY);
  _close(fresh);
  return fresh;
}

static size_t bytes_of_heap(HANDLE heap) {
  size_t bytes = 0;
  PROCESS_HEAP_ENTRY entry = {};
  HeapLock(heap);
  while (HeapWalk(heap, &entry) != 0) {
    if ((entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0) {
      bytes += entry.cbData;
    }
  }
  HeapUnlock(heap);
  return bytes;
}

size_t heap_bytes() {
  HANDLE heaps[64];
  const DWORD count = GetProcessHeaps(64, heaps);
  size_t bytes = 0;
  for (DWORD i = 0; i < count && i < 64; i++) {
    bytes += bytes_of_heap(heaps[i]);
  }
  return bytes;
}

/* PrivateUsage is 0 under Wine. */
static size_t committed_bytes(HANDLE process) {
  PROCESS_MEMORY_COUNTERS memory = {};
  GetProcessMemoryInfo(process, &memory, sizeof memory);
  return memory.PagefileUsage;
}

static size_t thread_count(HANDLE process) {
  const DWORD pid = GetProcessId(process);
  const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  THREADENTRY32 thread = {};
  thread.dwSize = sizeof thread;
  size_t count = 0;
  for (BOOL more = Thread32First(snapshot, &thread); more != 0;
       more = Thread32Next(snapshot, &thread)) {
    count += thread.th32OwnerProcessID == pid ? 1 : 0;
  }
  CloseHandle(snapshot);
  return count;
}

constexpr size_t KIB = 1024;

/* Room for worker threads that come and go, their stacks and their connections. */
static Holding holding_with(HANDLE process, size_t handle_slack) {
  return {{"committed KiB", 8 * KIB, committed_bytes(process) / KIB},
          {"handles", handle_slack, fresh_handle_in(process)},
          {"threads", 8, thread_count(process)}};
}

Holding holding_of(void* process) { return holding_with(process, 48); }

Holding own_holding(size_t heap_slack, bool working) {
  Holding all = holding_with(GetCurrentProcess(), working ? 32 : 8);
  all.push_back({"heap bytes", heap_slack, heap_bytes()});
  all.push_back(
      {"descriptors", size_t{working ? 8U : 0U}, static_cast<size_t>(fresh_descriptor())});
  return all;
}

std::string growth(const Holding& before, const Holding& now) {
  std::string grown;
  for (size_t i = 0; i < before.size() && i < now.size(); i++) {
    if (now[i].now > before[i].now + before[i].slack) {
      grown += std::string(now[i].name) + " grew from " + std::to_string(before[i].now) + " to " +
               std::to_string(now[i].now) + "; ";
    }
  }
  return grown;
}

bool is_open_handle(const void* handle) {
  DWORD flags = 0;
  return GetHandleInformation(const_cast<void*>(handle), &flags) != 0;
}
