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

#include "files/windows_file.h"

namespace tarnd {

/*
 * A name for a new local file, which no file has or had. It lies in one of 256 folders: some disks
 * search all of a folder to make a file in it.
 */
std::string new_local_name();

/* Results are 0 or an error number of ox_errno.h. */
class LocalFile {
 public:
  explicit LocalFile(std::wstring path) : path_(std::move(path)) {}

  const std::wstring& path() const { return path_; }
  bool is_open() const { return file_.valid(); }

  /* Opens the file, creating it when it is not there. `existed` tells whether it was. */
  int open(bool* existed = nullptr);
  /* Sees to it that the file is open and empty, whether it was there and open or not. */
  int open_empty();
  /* The same, when it is there: OX_ENOENT otherwise. */
  int open_existing();
  void close() { file_.close(); }
  /* Closes and deletes it. */
  void remove();

  int size(uint64_t* size) const;
  /* The same of a file that is not open. */
  int size_on_disk(uint64_t* size) const;
  int set_size(uint64_t size) const;
  /* What was written is on the disk afterwards. */
  int flush() const;
  /* Up to `size` bytes; fewer only at the end of the file. */
  int read(uint64_t offset, void* buffer, size_t size, size_t* got) const;
  int write(uint64_t offset, const void* data, size_t size) const;
  /* When it was last written: a Windows file time, 0 when unknown. */
  uint64_t modified() const;

  /*
   * A handle to the file for another process, with a file object of its own; valid there only. The
   * process is open for PROCESS_DUP_HANDLE.
   */
  int open_for(HANDLE process, uint64_t* handle) const;
  /* Closes such a handle that the process was not told of. */
  static void take_back(HANDLE process, uint64_t handle);

 private:
  std::wstring path_;
  FileHandle file_;
};

}  // namespace tarnd

#endif
