// The drive, by the library's public calls. Failures come as exceptions (failure.h).
//
// One thread; one file or listing at a time is all that the shell needs.
#ifndef TNWSH_DRIVE_H
#define TNWSH_DRIVE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "local_file.h"
#include "options.h"

namespace tnwsh {

struct Entry {
  std::string name;
  bool folder = false;
  uint64_t size = 0;
  uint64_t modified = 0;  // a Windows file time
};

// A path of the drive without its last name, and that name. Either slash; slashes at the end do not
// count. The drive's root has an empty name.
std::string ParentOf(const std::string& path);
std::string NameOf(const std::string& path);
std::string JoinPath(const std::string& folder, const std::string& name);

class Drive {
 public:
  // Starts the service and connects to it; the destructor stops it and waits for its end.
  explicit Drive(const Options& options);
  ~Drive();
  Drive(const Drive&) = delete;
  Drive& operator=(const Drive&) = delete;

  // Sorted by name.
  std::vector<Entry> List(const std::string& path);
  // What a path names, from the listing of its folder; a name in another case is found, too.
  std::optional<Entry> Find(const std::string& path);
  // The same, or a Failure with Windows' "file not found".
  Entry Get(const std::string& path);

  void* Handle() const { return handle_; }

 private:
  uint32_t ListInto(const std::string& path, std::vector<Entry>* entries);

  const std::string cache_folder_;
  LocalFile lock_;  // the work folder is ours
  void* handle_ = nullptr;
};

// An open file of the drive.
class RemoteFile {
 public:
  enum class Mode { kRead, kReplace };  // kReplace: created, or emptied

  RemoteFile(const Drive& drive, const std::string& path, Mode mode);
  ~RemoteFile();  // closes without a word; written data wants Close
  RemoteFile(const RemoteFile&) = delete;
  RemoteFile& operator=(const RemoteFile&) = delete;

  size_t Read(uint64_t offset, void* buffer, size_t size);  // 0 at the end
  void Write(uint64_t offset, const void* data, size_t size);
  // Written data reaches the cloud here.
  void Close();

 private:
  const std::string path_;
  void* context_ = nullptr;  // the library's, shared by all opens of a file: here one
  void* handle_ = nullptr;
};

}  // namespace tnwsh

#endif
