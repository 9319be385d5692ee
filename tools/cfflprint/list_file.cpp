#include "list_file.h"

#include <fmt/format.h>

#include <algorithm>

#include "ox_platform.h"
#include "tools/common/failure.h"
#include "tools/common/local_file.h"

namespace cfflprint {
namespace {

using tools::Failure;
using tools::LocalFile;

constexpr size_t CHUNK = 1 << 24;

/* A descriptor of the library's runtime, which this closes. */
class Descriptor {
 public:
  /* Our manifest makes the process's code page UTF-8, from Windows 10, version 1903, on. */
  explicit Descriptor(const std::string& path)
      : fd_(ox_open(tools::code_page_path(path).c_str(), OX_O_RDONLY)) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() { ox_close(fd_); }

  List read(bool whole) const {
    return List(ox_lseek(fd_, 0, 0) == 0 ? tn_fread_cffl(fd_, 0, whole) : nullptr);
  }

 private:
  const int fd_;
};

}  // namespace

std::vector<uint8_t> file_bytes(const std::string& path) {
  LocalFile file = LocalFile::open_shared(path);
  std::vector<uint8_t> bytes(file.size());
  size_t done = 0;
  while (const size_t count =
             file.read(bytes.data() + done, std::min(bytes.size() - done, CHUNK))) {
    done += count;
  }
  bytes.resize(done); /* the file may have become shorter meanwhile */
  return bytes;
}

List read_list(const std::string& path) {
  /* This tells why a file cannot be opened, where the library says less. */
  const uint64_t size = LocalFile::open_shared(path).size();
  if (size < sizeof(cfs_cffl)) {
    throw Failure(path, fmt::format("no cloud file list: it has {} bytes, and a header block {}",
                                    size, sizeof(cfs_cffl)));
  }
  const Descriptor file(path);
  const List header = file.read(false);
  if (header != nullptr && header->cfh_head.cf_size > size) {
    throw Failure(path, fmt::format("it has {} bytes, and its header says {}", size,
                                    header->cfh_head.cf_size));
  }
  List list = header != nullptr ? file.read(true) : nullptr;
  if (list == nullptr) {
    throw Failure(path, "the library cannot read it");
  }
  return list;
}

}  // namespace cfflprint
