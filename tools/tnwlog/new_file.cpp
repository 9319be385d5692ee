#include "new_file.h"

#include <stdexcept>
#include <system_error>

namespace tnwlog {

std::filesystem::path path_of(const std::string& name) {
  return std::filesystem::path(std::u8string(name.begin(), name.end()));
}

NewFile::NewFile(const std::string& name)
    : name_(name), stream_(path_of(name), std::ios::binary | std::ios::trunc) {}

NewFile::~NewFile() {
  if (!is_whole_) { /* nobody must take a part for the whole */
    stream_.close();
    std::error_code ignored;
    std::filesystem::remove(path_of(name_), ignored);
  }
}

void NewFile::commit() {
  stream_.close();
  if (!stream_) {
    throw std::runtime_error(name_ + ": cannot be written");
  }
  is_whole_ = true;
}

}  // namespace tnwlog
