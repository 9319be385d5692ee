/*
 * The cloud that is a plain directory of this machine: each file and folder of it is one of the
 * cloud. It may be shared with other programs and other services; what they change is seen at the
 * next call.
 *
 *   - Names are those of the disk, whatever case a path was asked in. Items whose names no path
 *     can reach (share_path.h), and links that leave the directory, are not there.
 *   - An id is the digest of the item's own path; what a version is says directory_item.h.
 *   - A content is read in pieces. For each piece the file is opened, and its version is looked at
 *     before and after; in between nobody is kept from replacing it.
 *   - A new content is written to a file beside its target and moved over it once it is on the
 *     disk. The condition is looked at in the last moment, with the target opened so that nobody
 *     writes to it; what another program may still do then says file_rename.h. What a killed write
 *     left behind is never shown, and removed when its folder is listed.
 *   - A patch begins with a clone of the old content where the disk can share blocks (ReFS), and
 *     with a copy elsewhere: then it costs as much as the whole content, and a line in the log says
 *     so at the start.
 *   - Renaming and deleting are done with the very file whose version was looked at.
 */
#ifndef SERVICE_DIRECTORY_CLOUD_H
#define SERVICE_DIRECTORY_CLOUD_H

#include <atomic>
#include <memory>
#include <span>
#include <string>

#include "cloud/cloud.h"
#include "cloud/directory/directory_item.h"
#include "cloud/directory/file_gates.h"
#include "cloud/directory/part_file.h"
#include "cloud/directory/piece_buffers.h"

namespace tarnd {

/* Threads: any number. */
class DirectoryCloud : public Cloud {
 public:
  /*
   * `folder` is an absolute path with its drive letter, UTF-8. Null with a text in `*error` when it
   * is no folder that can be opened.
   */
  static std::unique_ptr<Cloud> open(const std::string& folder, std::string* error);

  CloudCapabilities capabilities() const override;
  CloudResult status(const CloudContext& context, const std::string& path,
                     CloudEntry* entry) override;
  CloudResult list(const CloudContext& context, const std::string& path,
                   const EntrySink& sink) override;
  CloudResult read(const CloudContext& context, const std::string& path, const std::string& version,
                   ByteRange range, const DataSink& sink) override;
  CloudResult put(const CloudContext& context, const std::string& path,
                  const PutCondition& condition, Snapshot& content, CloudEntry* made) override;
  CloudResult patch(const CloudContext& context, const std::string& path,
                    const PutCondition& condition, Snapshot& content, CloudEntry* made) override;
  CloudResult rename(const CloudContext& context, const std::string& from, const std::string& to,
                     const RenameConditions& conditions, CloudEntry* made) override;
  CloudResult remove(const CloudContext& context, const std::string& path,
                     const std::string& version) override;
  CloudResult make_folder(const CloudContext& context, const std::string& path,
                          CloudEntry* made) override;

 private:
  /* Where a new content goes. */
  struct Target {
    std::string path;
    std::wstring place;
    std::string version; /* of the file that is replaced; empty: there is none */
  };

  explicit DirectoryCloud(std::unique_ptr<DirectoryRoot> root) : root_(std::move(root)) {}

  CloudResult list_items(const DirectoryItem& folder, const CloudContext& context,
                         const EntrySink& sink, std::vector<std::wstring>* leftovers);
  bool hand_out(const DirectoryItem& folder, const char* records, const EntrySink& sink,
                std::vector<std::wstring>* leftovers);
  bool listed(const DirectoryItem& folder, const FILE_ID_BOTH_DIR_INFO& found, CloudEntry* entry);
  CloudResult read_piece(const std::string& path, const std::string& version, uint64_t offset,
                         std::span<char> piece);
  CloudResult locate(const std::string& path, const PutCondition& condition, Target* target,
                     DirectoryItem* old);
  CloudResult publish(const CloudContext& context, const Target& target, PartFile& part,
                      CloudEntry* made);
  CloudResult move_checked(const CloudContext& context, HANDLE file, const Target& target);
  CloudResult move_once(HANDLE file, const Target& target);
  CloudResult open_movable(const std::wstring& place, const std::string& version,
                           DirectoryItem* item) const;
  CloudResult entry_of(FileHandle* file, CloudEntry* entry) const;
  void note_gone(uint64_t change_time);

  const std::unique_ptr<DirectoryRoot> root_;
  FileGates gates_;     /* has its own lock */
  PieceBuffers pieces_; /* the same */
  /* The latest time of change of a file that was replaced or deleted here. */
  std::atomic<uint64_t> newest_gone_ = 0;
};

}  // namespace tarnd

#endif
