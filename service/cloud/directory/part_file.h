/*
 * New contents on their way into a cloud that is a directory: each in a file of its own beside its
 * target, until it is whole. What a killed write left behind bears such a name, too; a write that
 * lives keeps its file from being deleted by holding it open.
 */
#ifndef SERVICE_PART_FILE_H
#define SERVICE_PART_FILE_H

#include <cstdint>
#include <string>
#include <string_view>

#include "cloud/cloud.h"
#include "files/windows_file.h"

namespace tarnd {

/* Whether a name is that of such a file. */
bool is_part(std::wstring_view name);
/* Whether one that was written then may be removed. The age guards those of other machines, whose
 * open files may not be seen here. */
bool is_leftover(const LARGE_INTEGER& written);
/* Removes what killed writes left in a folder, of any age. */
void remove_parts(const std::wstring& folder);

/* One new content. Used by one thread; an unfinished one is deleted at the end. */
class PartFile {
 public:
  /* For a target's verbatim place. */
  explicit PartFile(const std::wstring& target);
  ~PartFile();
  PartFile(const PartFile&) = delete;
  PartFile& operator=(const PartFile&) = delete;

  HANDLE handle() const { return file_.get(); }
  FileHandle* file() { return &file_; }

  CloudResult create();
  /*
   * Creates it as a copy of an open file. Its blocks are shared where the disk can do that, in
   * steps of `clone_grain` bytes; with 0 they are copied by the system, on a server by the server
   * itself.
   */
  CloudResult create_copy(const CloudContext& context, const std::wstring& source_place,
                          HANDLE source, uint64_t size, uint64_t clone_grain);
  /* Writes some ranges of a content, and gives the file the content's size. */
  CloudResult write(const CloudContext& context, Snapshot& content,
                    const std::vector<ByteRange>& ranges);
  /* Takes over what a new content keeps of the file that it replaces. */
  void keep_attributes(const FILE_BASIC_INFO& replaced);
  /* Puts it on the disk. */
  CloudResult flush();
  /*
   * Sees to it that the time of the file's change is later than another one. A disk may give the
   * number of a deleted file to a new one at once: then the time alone tells them apart.
   */
  void be_newer_than(uint64_t change_time);
  /* It was renamed to its target, and stays. */
  void keep() { place_.clear(); }

 private:
  bool clone(HANDLE source, uint64_t size, uint64_t grain);

  std::wstring place_; /* verbatim; empty: nothing to delete */
  FileHandle file_;
};

}  // namespace tarnd

#endif
