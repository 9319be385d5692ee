/* An open file of the drive, and ranges of it. */
#ifndef TNWSH_REMOTE_FILE_H
#define TNWSH_REMOTE_FILE_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "drive.h"

namespace tnwsh {

/* Locks take 32 bits of each. */
struct FileRange {
  uint32_t offset = 0;
  uint32_t length = 0;

  bool operator==(const FileRange&) const = default;
};
std::string RangeText(const FileRange& range); /* "10 bytes at 0" */

class RemoteFile {
 public:
  enum class Mode {
    kRead,
    kHold,    /* reads, and lets others write meanwhile */
    kChange,  /* reads and writes what is there */
    kReplace, /* created, or emptied */
  };

  RemoteFile(Drive& drive, const std::string& path, Mode mode);
  ~RemoteFile(); /* closes without a word; written data wants Close */
  RemoteFile(const RemoteFile&) = delete;
  RemoteFile& operator=(const RemoteFile&) = delete;

  size_t Read(uint64_t offset, void* buffer, size_t size); /* 0 at the end */
  void Write(uint64_t offset, const void* data, size_t size);
  void SetSize(uint64_t size);
  void Lock(const FileRange& range, bool exclusive);
  void Unlock(const FileRange& range);
  /* Written data reaches the cloud here. */
  void Close();

  void* Handle() const { return handle_; }

 private:
  /*
   * Returns a Windows code. A file that the service would not close stays open in the library, and
   * keeps its context.
   */
  int TryClose();

  Drive& drive_;
  const std::string path_;
  void* handle_ = nullptr;
};

}  // namespace tnwsh

#endif
