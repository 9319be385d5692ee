#include "log_capture.h"

#include <windows.h>

const std::string& LogCapture::path() {
  static const std::string opened = [] {
    char program[MAX_PATH + 1] = "";
    GetModuleFileNameA(nullptr, program, MAX_PATH);
    const std::string name = program + std::string(".log");
    DeleteFileA(name.c_str());
    ox_init_logging("TEST", name.c_str(), nullptr, nullptr);
    return name;
  }();
  return opened;
}
