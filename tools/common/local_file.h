/* Files of this machine; paths are UTF-8. Everything here throws a Failure. Windows only. */
#ifndef TOOLS_COMMON_LOCAL_FILE_H
#define TOOLS_COMMON_LOCAL_FILE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace tools {

/* The absolute form of a path as typed, with backslashes. */
std::string absolute_path(const std::string& path);
/* The absolute form with a \\?\ lead, for calls that otherwise refuse paths of 260 characters. */
std::wstring verbatim_path(const std::string& path);
/* The absolute form in the process's code page, in which the library takes paths. */
std::string code_page_path(const std::string& path);

bool is_local_folder(const std::string& path);
bool is_local_file(const std::string& path);
/* Makes a folder with its parents. */
void make_local_folders(const std::string& path);
/* Makes the folder unless it is there. The folder above it must be there. */
void make_local_folder(const std::string& path);

struct LocalEntry {
  std::string name;
  bool folder = false;
  bool link = false;    /* a link to a folder elsewhere */
  uint64_t created = 0; /* a Windows file time, like the next two */
  uint64_t modified = 0;
  uint64_t accessed = 0;
};
/* What a path names. */
LocalEntry local_entry(const std::string& path);
/* A folder's entries in the order of the disk. A name that is no Unicode text is a failure. */
std::vector<LocalEntry> list_local(const std::string& path);

class LocalFile {
 public:
  LocalFile() = default;
  LocalFile(LocalFile&& other) noexcept { *this = std::move(other); }
  LocalFile& operator=(LocalFile&& other) noexcept;
  ~LocalFile();

  static LocalFile open_to_read(const std::string& path);
  /* Opens a file to be read. Others may write, rename and delete it meanwhile. */
  static LocalFile open_shared(const std::string& path);
  /*
   * A new content: it is kept in a file beside `path` until commit puts it in its place, and is
   * gone when commit is not reached.
   */
  static LocalFile open_to_replace(const std::string& path);
  /* An empty file that no one else can open, and that goes with the object. */
  static LocalFile open_lock(const std::string& path);

  uint64_t size() const;
  size_t read(void* buffer, size_t size); /* returns 0 at the end of the file */
  void write(const void* data, size_t size);
  void commit();

 private:
  static LocalFile open(const std::string& path, const char* what, uint32_t access, uint32_t share,
                        uint32_t disposition, uint32_t flags, const std::wstring& suffix = {});
  void close();

  std::string path_;    /* as typed */
  std::wstring target_; /* verbatim */
  std::wstring part_;   /* the verbatim path of the new content; empty in the other cases */
  void* file_ = nullptr;
};

}  // namespace tools

#endif
