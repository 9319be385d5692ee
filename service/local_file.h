/*
 * A local cache file: sparse where the disk can, and written by the client through handles of its
 * own, so its size may change at any time.
 *
 * Threads: the calls are positional and need no order among themselves; opening and closing are for
 * the owner alone.
 */
#ifndef SERVICE_LOCAL_FILE_H
#define SERVICE_LOCAL_FILE_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "windows_file.h"

namespace tarnd {

/* Results are 0 or an error number of ox_errno.h. */
class LocalFile {
 public:
  explicit LocalFile(std::wstring path) : path_(std::move(path)) {}

  const std::wstring& path() const { return path_; }
  bool IsOpen() const { return file_.Valid(); }

  /* Opens the file, creating it when it is not there. */
  int Open();
  void Close() { file_.Close(); }
  /* Closes and deletes it. */
  void Remove();

  int Size(uint64_t* size) const;
  int SetSize(uint64_t size) const;
  /* Up to `size` bytes; fewer only at the end of the file. */
  int Read(uint64_t offset, void* buffer, size_t size, size_t* got) const;
  int Write(uint64_t offset, const void* data, size_t size) const;
  /* When it was last written: a Windows file time, 0 when unknown. */
  uint64_t Modified() const;

  /* A handle to the file for another process, with a file object of its own; valid there only. */
  int OpenFor(uint32_t process_id, uint64_t* handle) const;
  /* Closes such a handle that the process was not told of. */
  static void TakeBack(uint32_t process_id, uint64_t handle);

 private:
  std::wstring path_;
  FileHandle file_;
};

}  // namespace tarnd

#endif
