#include "import_table.h"

#include <cstring>

namespace {

template <class Record>
Record* at(HMODULE dll, size_t offset) {
  return reinterpret_cast<Record*>(reinterpret_cast<char*>(dll) + offset);
}

const IMAGE_IMPORT_DESCRIPTOR* imports_of(HMODULE dll) {
  const auto* dos = at<IMAGE_DOS_HEADER>(dll, 0);
  const auto* headers = at<IMAGE_NT_HEADERS>(dll, static_cast<size_t>(dos->e_lfanew));
  const auto& folder = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
  return at<IMAGE_IMPORT_DESCRIPTOR>(dll, folder.VirtualAddress);
}

/* The place in the DLL's table that holds the function's address, or null. */
void** place_of(HMODULE dll, const char* function) {
  for (const auto* from = imports_of(dll); from->Name != 0; from++) {
    const auto* names = at<IMAGE_THUNK_DATA>(dll, from->OriginalFirstThunk);
    auto* places = at<void*>(dll, from->FirstThunk);
    for (; names->u1.AddressOfData != 0; names++, places++) {
      const bool by_number = IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal);
      if (!by_number &&
          strcmp(at<IMAGE_IMPORT_BY_NAME>(dll, names->u1.AddressOfData)->Name, function) == 0) {
        return places;
      }
    }
  }
  return nullptr;
}

}  // namespace

void* replace_import(HMODULE dll, const char* function, void* by) {
  void** place = place_of(dll, function);
  if (place == nullptr) {
    return nullptr;
  }
  DWORD before = 0;
  VirtualProtect(place, sizeof *place, PAGE_READWRITE, &before);
  void* old = *place;
  *place = by;
  VirtualProtect(place, sizeof *place, before, &before);
  return old;
}
