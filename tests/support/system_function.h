/*
 * Functions of the system past what a test has linked in their place.
 */
#ifndef SYSTEM_FUNCTION_H
#define SYSTEM_FUNCTION_H

#include <windows.h>

/* The function of that name; null where no DLL that it may be in has it. */
template <class Function>
Function* system_function(const char* name) {
  FARPROC found = nullptr;
  for (const char* dll : {"kernel32.dll", "ws2_32.dll", "shell32.dll", "msvcrt.dll"}) {
    found = found != nullptr ? found : GetProcAddress(LoadLibraryA(dll), name);
  }
  return reinterpret_cast<Function*>(reinterpret_cast<void*>(found));
}

#endif
