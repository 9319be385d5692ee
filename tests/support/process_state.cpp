#include "process_state.h"

#include <windows.h>
/* after windows.h */
#include <fcntl.h>
#include <io.h>

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

bool is_open_handle(const void* handle) {
  DWORD flags = 0;
  return GetHandleInformation(const_cast<void*>(handle), &flags) != 0;
}
