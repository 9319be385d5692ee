/*
 * The library's own part of a warm read or write: the DLL's ReadFile and WriteFile are replaced by
 * functions that do nothing.
 */
#include <windows.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "drive_rows.h"

namespace {

BOOL WINAPI transfer_nothing(HANDLE /*file*/, void* /*buffer*/, DWORD size, DWORD* count,
                             OVERLAPPED* /*where*/) {
  *count = size;
  return TRUE;
}

template <class Record>
Record* at(HMODULE dll, size_t offset) {
  return reinterpret_cast<Record*>(reinterpret_cast<char*>(dll) + offset);
}

/* The place in the DLL's import table that holds the function's address. */
void** place_of(HMODULE dll, const char* function) {
  const auto* headers =
      at<IMAGE_NT_HEADERS>(dll, static_cast<size_t>(at<IMAGE_DOS_HEADER>(dll, 0)->e_lfanew));
  const auto& folder = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
  const auto* from = at<IMAGE_IMPORT_DESCRIPTOR>(dll, folder.VirtualAddress);
  for (; from->Name != 0; from++) {
    const auto* names = at<IMAGE_THUNK_DATA>(dll, from->OriginalFirstThunk);
    for (size_t i = 0; names[i].u1.AddressOfData != 0; i++) {
      if (!IMAGE_SNAP_BY_ORDINAL(names[i].u1.Ordinal) &&
          strcmp(at<IMAGE_IMPORT_BY_NAME>(dll, names[i].u1.AddressOfData)->Name, function) == 0) {
        return at<void*>(dll, from->FirstThunk) + i;
      }
    }
  }
  give_up("the DLL imports the function");
}

/* Puts a function into the place of another one, which it gives. */
void* replace(void** place, void* by) {
  DWORD before = 0;
  VirtualProtect(place, sizeof *place, PAGE_READWRITE, &before);
  void* old = std::exchange(*place, by);
  VirtualProtect(place, sizeof *place, before, &before);
  return old;
}

/* With more threads than CPUs, an operation's end comes no sooner than a CPU is free: what counts
 * is the time that a CPU was busy with it. */
void own_part(Bench& bench, const std::string& name, const char* function, const Work& work) {
  void** place = place_of(GetModuleHandleA("libtnw.dll"), function);
  void* old = replace(place, reinterpret_cast<void*>(&transfer_nothing));
  bench.alone(name + ", 1 thread", work, 1, 1);
  bench.alone(name + ", 4 threads", work, 4, std::min(4, bench.cpus()));
  replace(place, old);
}

}  // namespace

void own_part_rows(Bench& bench, const Drive& drive) {
  const File file(drive, "/warm0");
  static char buffer[4096]; /* nothing is read or written */
  file.read(buffer, sizeof buffer);
  file.write(buffer, sizeof buffer);
  own_part(bench, "own part of a warm read", "ReadFile",
           repeat([&] { file.read(buffer, sizeof buffer); }));
  own_part(bench, "own part of a dirty write", "WriteFile",
           repeat([&] { file.write(buffer, sizeof buffer); }));
}
