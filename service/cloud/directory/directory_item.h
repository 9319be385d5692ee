/*
 * What a path of the cloud names on the disk: the file or folder, opened, and where it really is.
 *
 * A version is the text of the file's number on the disk, the time of its last change of any kind
 * and its size. So a new file in its place, a new content and a new attribute make another version;
 * reading does not. Changes by programs that write in place are told apart as finely as the disk
 * keeps the time (Windows may keep it back until such a program closes the file); our own never
 * share one (see PartFile).
 */
#ifndef SERVICE_DIRECTORY_ITEM_H
#define SERVICE_DIRECTORY_ITEM_H

#include <memory>
#include <string>

#include "cloud/cloud.h"
#include "files/windows_file.h"

namespace tarnd {

/* An open file or folder. */
struct DirectoryItem {
  FileHandle file;
  std::wstring place;        /* verbatim ("\\?\Z:\folder\file"), with the disk's own case */
  std::string path;          /* relative to the root, with the disk's own case */
  FILE_BASIC_INFO info = {}; /* attributes and times */
  uint64_t number = 0;       /* the file's, on its disk */
  uint64_t size = 0;         /* bytes; of no meaning for a folder */

  bool is_folder() const { return (info.FileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0; }
  uint64_t change_time() const { return static_cast<uint64_t>(info.ChangeTime.QuadPart); }
  std::string version() const;
  CloudEntry entry() const;

  /*
   * Looks at the open file again: 0 or a Windows error. It asks for no more than it needs: some
   * systems look up the whole volume for its serial number.
   */
  DWORD look();
};

/* One entry of an open folder's listing, without its name's check. */
CloudEntry listed_entry(const std::string& folder, const std::string& name,
                        const FILE_ID_BOTH_DIR_INFO& found);

/* The folder that is the cloud. Fixed after creation. */
class DirectoryRoot {
 public:
  /*
   * `folder` is an absolute path with its drive letter, UTF-8. Null with a text in `*error` when it
   * is no folder that can be opened.
   */
  static std::unique_ptr<DirectoryRoot> open(const std::string& folder, std::string* error);

  /*
   * Opens what a path names. Links are followed as long as they stay in the directory: what lies
   * behind others is REFUSED as access denied.
   */
  CloudResult open_item(const std::string& path, DWORD access, DWORD share,
                        DirectoryItem* item) const;
  /*
   * Opens the file of a path for reading, of this version: CHANGED when it has another one. Where
   * it lies is not looked at, since the version tells it from all others.
   */
  CloudResult open_version(const std::string& path, const std::string& version,
                           DirectoryItem* item) const;
  /* Where an item of this path belongs: its folder is there and lies in the directory. */
  CloudResult place_for(const std::string& path, std::wstring* place) const;
  /* Fills in all but the file itself from an open one. */
  CloudResult identify(DirectoryItem* item) const;
  /*
   * The size of the blocks that files of this disk can share until one of them is changed; 0 when
   * they cannot.
   */
  uint64_t clone_grain() const { return clone_grain_; }

 private:
  CloudResult open_path(const std::string& path, DWORD access, DWORD share, FileHandle* file) const;

  DirectoryRoot(std::wstring place, DWORD volume, uint64_t clone_grain)
      : place_(std::move(place)), volume_(volume), clone_grain_(clone_grain) {}

  const std::wstring place_; /* verbatim */
  const DWORD volume_;       /* its serial number */
  const uint64_t clone_grain_;
};

/* Fills in what the entry tells of the folder above the item, from the item's place. */
void add_folder(const DirectoryItem& item, CloudEntry* entry);

/* The results of file calls. */
CloudResult result_of_windows(DWORD code);
CloudResult result_of_errno(int error);
/* The same of the thread's last error. */
CloudResult last_result();

/* OK, or CHANGED when a version is given and it is another one. Folders have no version. */
CloudResult check_version(const DirectoryItem& item, const std::string& version);

}  // namespace tarnd

#endif
