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
std::string absolute_path(const std::string& path);
bool is_local_folder(const std::string& path);
bool is_local_file(const std::string& path);
/* Makes a folder with its parents. Throws a Failure. */
void make_local_folders(const std::string& path);

/* Makes the folder alone, unless it is there. Throws a Failure. */
void make_local_folder(const std::string& path);

struct LocalEntry {
  std::string name;
  bool folder = false;
  bool link = false; /* a folder that is elsewhere */
};
/* In the order of the disk. Throws a Failure, also for a name that is no Unicode text. */
std::vector<LocalEntry> list_local(const std::string& path);

class LocalFile {
 public:
  LocalFile() = default;
  LocalFile(LocalFile&& other) noexcept { *this = std::move(other); }
  LocalFile& operator=(LocalFile&& other) noexcept;
  ~LocalFile();

  /* All throw a Failure. */
  static LocalFile open_to_read(const std::string& path);
  /*
   * A new content: it is kept in a file beside `path` until Commit puts it in its place, and is
   * gone when Commit is not reached.
   */
  static LocalFile open_to_replace(const std::string& path);
  /* An empty file that no one else can open, and that goes with the object. */
  static LocalFile open_lock(const std::string& path);

  uint64_t size() const;
  size_t read(void* buffer, size_t size); /* 0 at the end */
  void write(const void* data, size_t size);
  void commit();

 private:
  void close();

  std::string path_;    /* as typed */
  std::wstring target_; /* verbatim */
  std::wstring part_;   /* verbatim; empty but for a new content */
  void* file_ = nullptr;
};

}  // namespace tnwsh

#endif
