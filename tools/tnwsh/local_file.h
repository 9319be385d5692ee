/* Files of this machine, the other side of a transfer. */
#ifndef TNWSH_LOCAL_FILE_H
#define TNWSH_LOCAL_FILE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace tnwsh {

/* The absolute form of a path as typed, UTF-8, with backslashes. Throws a Failure. */
std::string AbsolutePath(const std::string& path);
bool IsLocalFolder(const std::string& path);
bool IsLocalFile(const std::string& path);
/* Makes a folder with its parents. Throws a Failure. */
void MakeLocalFolders(const std::string& path);

/* Makes the folder alone, unless it is there. Throws a Failure. */
void MakeLocalFolder(const std::string& path);

struct LocalEntry {
  std::string name;
  bool folder = false;
  bool link = false; /* a folder that is elsewhere */
};
/* In the order of the disk. Throws a Failure, also for a name that is no Unicode text. */
std::vector<LocalEntry> ListLocal(const std::string& path);

class LocalFile {
 public:
  LocalFile() = default;
  LocalFile(LocalFile&& other) noexcept { *this = std::move(other); }
  LocalFile& operator=(LocalFile&& other) noexcept;
  ~LocalFile();

  /* All throw a Failure. */
  static LocalFile OpenToRead(const std::string& path);
  /*
   * A new content: it is kept in a file beside `path` until Commit puts it in its place, and is
   * gone when Commit is not reached.
   */
  static LocalFile OpenToReplace(const std::string& path);
  /* An empty file that no one else can open, and that goes with the object. */
  static LocalFile OpenLock(const std::string& path);

  uint64_t Size() const;
  size_t Read(void* buffer, size_t size); /* 0 at the end */
  void Write(const void* data, size_t size);
  void Commit();

 private:
  void Close();

  std::string path_;    /* as typed */
  std::wstring target_; /* verbatim */
  std::wstring part_;   /* verbatim; empty but for a new content */
  void* file_ = nullptr;
};

}  // namespace tnwsh

#endif
