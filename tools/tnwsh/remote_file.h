/* An open file of the drive, and ranges of it. */
#ifndef TNWSH_REMOTE_FILE_H
#define TNWSH_REMOTE_FILE_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "drive.h"

namespace tnwsh {

/* A lock uses only the low 32 bits of each number. */
struct FileRange {
  uint32_t offset = 0;
  uint32_t length = 0;

  bool operator==(const FileRange&) const = default;
};
std::string range_text(const FileRange& range); /* "10 bytes at 0" */

class RemoteFile {
 public:
  enum class Mode {
    READ,
    HOLD,    /* reads, and lets others write meanwhile */
    CHANGE,  /* reads and writes what is there */
    REPLACE, /* created, or emptied */
  };

  RemoteFile(Drive& drive, const std::string& path, Mode mode);
  ~RemoteFile(); /* closes the file and reports no failure: after a write, call close */
  RemoteFile(const RemoteFile&) = delete;
  RemoteFile& operator=(const RemoteFile&) = delete;

  size_t read(uint64_t offset, void* buffer, size_t size); /* returns 0 at the end of the file */
  void write(uint64_t offset, const void* data, size_t size);
  void set_size(uint64_t size);
  void lock(const FileRange& range, bool exclusive);
  void unlock(const FileRange& range);
  /* Closes the file. The service sends written data to the cloud from now on. */
  void close();

  void* handle() const { return handle_; }

 private:
  /*
   * Returns a Windows code. A file that the service would not close stays open in the library, and
   * keeps its context.
   */
  int try_close();

  Drive& drive_;
  const std::string path_;
  void* handle_ = nullptr;
};

}  // namespace tnwsh

#endif
