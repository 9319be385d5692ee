#include "list_file.h"

#include <fmt/format.h>
#include <windows.h>

#include <cerrno>

#include "ox_platform.h"
#include "service/wide_text.h"
#include "tools/tnwsh/failure.h"
#include "tools/tnwsh/local_file.h"

namespace cfflprint {
namespace {

using tnwsh::Failure;

/*
 * The library takes paths in the process's code page, which our manifest makes UTF-8 where Windows
 * knows of that (from version 1903).
 */
std::string CodePagePath(const std::string& path) {
  std::wstring wide;
  tarnd::wide_from_utf8(tnwsh::AbsolutePath(path), &wide);
  std::string narrow(wide.size() * 4, '\0');
  narrow.resize(static_cast<size_t>(
      WideCharToMultiByte(CP_ACP, 0, wide.data(), static_cast<int>(wide.size()), narrow.data(),
                          static_cast<int>(narrow.size()), nullptr, nullptr)));
  std::wstring back(wide.size(), L'\0');
  const int units = MultiByteToWideChar(CP_ACP, 0, narrow.data(), static_cast<int>(narrow.size()),
                                        back.data(), static_cast<int>(back.size()));
  if (static_cast<size_t>(units) != wide.size() || back != wide) {
    throw Failure(path,
                  fmt::format("has characters that this system's code page {} has not", GetACP()));
  }
  return narrow;
}

}  // namespace

ListFile::ListFile(const std::string& path) : path_(path) {
  /* The first to say, in words, why a file cannot be read; the library's errno says less. */
  tnwsh::LocalFile::OpenToRead(path);
  fd_ = ox_open(CodePagePath(path).c_str(), OX_O_RDONLY);
  if (fd_ < 0) {
    throw Failure(path, "the library cannot open it");
  }
}

ListFile::~ListFile() { ox_close(fd_); }

uint64_t ListFile::Size() const {
  const ox_off size = ox_lseek(fd_, 0, 2);
  if (size < 0 || ox_lseek(fd_, 0, 0) != 0) {
    throw Failure(path_, "has no size");
  }
  return static_cast<uint64_t>(size);
}

std::vector<uint8_t> ListFile::Bytes() const {
  std::vector<uint8_t> bytes(Size());
  size_t done = 0;
  while (done < bytes.size()) {
    const ox_s64 count = ox_read(fd_, bytes.data() + done, bytes.size() - done);
    if (count <= 0) {
      throw Failure(path_, fmt::format("cannot be read at byte {}", done));
    }
    done += static_cast<size_t>(count);
  }
  return bytes;
}

List ListFile::Read() const {
  const uint64_t size = Size();
  if (size < sizeof(cfs_cffl)) {
    throw Failure(path_, fmt::format("no cloud file list: it has {} bytes, and a header block {}",
                                     size, sizeof(cfs_cffl)));
  }
  const List header(tn_fread_cffl(fd_, 0, false));
  if (header != nullptr && header->cfh_head.cf_size != size) {
    throw Failure(path_, fmt::format("it has {} bytes, and its header says {}", size,
                                     header->cfh_head.cf_size));
  }
  ox_lseek(fd_, 0, 0);
  List list(header != nullptr ? tn_fread_cffl(fd_, 0, true) : nullptr);
  if (list == nullptr) {
    throw Failure(path_, "the library cannot read it");
  }
  return list;
}

}  // namespace cfflprint
