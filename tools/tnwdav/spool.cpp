#include "spool.h"

#include <windows.h>

#include <atomic>
#include <vector>

#include "share.h"
#include "tools/common/local_file.h"

namespace tnwdav {
namespace {

constexpr size_t IN_MEMORY = size_t{1024} * 1024;

HANDLE make_file(const std::string& folder) {
  static std::atomic<unsigned> number{0};
  const std::string path = folder + '\\' + std::to_string(++number) + ".part";
  const HANDLE file =
      CreateFileW(tools::verbatim_path(path).c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                  CREATE_ALWAYS, FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    throw DriveError(path, "cannot be written", static_cast<int>(GetLastError()));
  }
  return file;
}

}  // namespace

Spool::~Spool() {
  if (file_ != nullptr) {
    CloseHandle(file_);
  }
}

void Spool::add(const char* data, size_t size) {
  memory_.append(data, size);
  size_ += size;
  if (memory_.size() > IN_MEMORY) {
    write_out();
  }
}

void Spool::write_out() {
  if (file_ == nullptr) {
    file_ = make_file(folder_);
  }
  DWORD written = 0;
  if (WriteFile(file_, memory_.data(), static_cast<DWORD>(memory_.size()), &written, nullptr) ==
          0 ||
      written != memory_.size()) {
    throw DriveError(folder_, "a content that is being received does not fit",
                     written != 0 ? ERROR_DISK_FULL : static_cast<int>(GetLastError()));
  }
  memory_.clear();
}

void Spool::read(const std::function<void(uint64_t offset, const char* data, size_t size)>& sink) {
  uint64_t offset = 0;
  if (file_ != nullptr) {
    write_out();
    LARGE_INTEGER begin = {};
    SetFilePointerEx(file_, begin, nullptr, FILE_BEGIN);
    std::vector<char> piece(IN_MEMORY);
    for (DWORD count = 1; offset < size_; offset += count) {
      if (ReadFile(file_, piece.data(), static_cast<DWORD>(piece.size()), &count, nullptr) == 0 ||
          count == 0) {
        throw DriveError(folder_, "a received content cannot be read", ERROR_READ_FAULT);
      }
      sink(offset, piece.data(), count);
    }
  } else if (!memory_.empty()) {
    sink(0, memory_.data(), memory_.size());
  }
}

}  // namespace tnwdav
