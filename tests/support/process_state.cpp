#include "process_state.h"

#include <windows.h>
/* after windows.h */
#include <fcntl.h>
#include <io.h>
#include <psapi.h>
#include <tlhelp32.h>

#include <algorithm>
#include <iterator>

/* Semaphores: a test may count the events that are made. */
size_t fresh_handle() {
  HANDLE fresh[64];
  for (HANDLE& handle : fresh) {
    handle = CreateSemaphoreA(nullptr, 0, 1, nullptr);
  }
  for (const HANDLE handle : fresh) {
    CloseHandle(handle);
  }
  return reinterpret_cast<size_t>(*std::max_element(std::begin(fresh), std::end(fresh))) / 4;
}

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

static HANDLE duplicate(HANDLE from_process, HANDLE handle, HANDLE to_process, DWORD close_source) {
  HANDLE copy = nullptr;
  DuplicateHandle(from_process, handle, to_process, &copy, 0, FALSE,
                  DUPLICATE_SAME_ACCESS | close_source);
  return copy;
}

/* A handle of another process is closed by taking it. */
static size_t fresh_handle_in(HANDLE process) {
  const HANDLE self = GetCurrentProcess();
  const HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
  const HANDLE theirs = duplicate(self, event, process, 0);
  CloseHandle(duplicate(process, theirs, self, DUPLICATE_CLOSE_SOURCE));
  CloseHandle(event);
  return reinterpret_cast<size_t>(theirs) / 4;
}

constexpr size_t KIB = 1024;

/* Room for worker threads that come and go, their stacks and their connections. */
Holding holding_of(void* process) {
  return {{"committed KiB", 8 * KIB, committed_bytes(process) / KIB},
          {"handles", 48, fresh_handle_in(process)},
          {"threads", 8, thread_count(process)}};
}

Holding own_holding(size_t heap_slack, bool working) {
  Holding all = holding_of(GetCurrentProcess());
  all.push_back({"heap bytes", heap_slack, heap_bytes()});
  all.push_back({"highest handles", size_t{working ? 32U : 8U}, fresh_handle()});
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
