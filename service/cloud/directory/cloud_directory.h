/*
 * The cloud that is a plain directory of this machine: each file and folder of it is one of the
 * cloud. It may be shared with other programs and other services; what they change is seen at the
 * next call.
 *
 *   - Names are those of the disk, whatever case a path was asked in. Items whose names no path
 *     can reach (check_name), and links that leave the directory, are not there.
 *   - An id is the digest of the item's own path, a version that of path, size and time.
 *   - A new content is written to a file beside its target and moved over it once it is on the
 *     disk. What a killed write left behind is never shown, and removed when its folder is listed.
 *
 * Threads: any number. `replacing_` is held shared while a file is open for reading and exclusively
 * for the moment in which a file is replaced, since Windows does not replace an open file.
 */
#ifndef SERVICE_CLOUD_DIRECTORY_H
#define SERVICE_CLOUD_DIRECTORY_H

#include <memory>
#include <shared_mutex>
#include <string>

#include "cloud/cloud.h"

struct _WIN32_FIND_DATAW;

namespace tarnd {

class CloudDirectory : public Cloud {
 public:
  /*
   * `folder` is an absolute path with its drive letter, UTF-8. Null with a text in `*error` when it
   * is no folder that can be opened.
   */
  static std::unique_ptr<Cloud> open(const std::string& folder, std::string* error);

  int list(const std::string& path, std::vector<CloudEntry>* entries) override;
  int status(const std::string& path, CloudEntry* entry) override;
  int read(const std::string& path, uint64_t offset, void* buffer, size_t size,
           size_t* got) override;
  int write(const std::string& path, uint64_t size, const ContentReader& content) override;
  int rename(const std::string& from, const std::string& to, bool replace) override;
  int remove(const std::string& path) override;
  int make_folder(const std::string& path) override;

 private:
  struct Item;

  CloudDirectory(std::wstring root, uint32_t volume) : root_(std::move(root)), volume_(volume) {}

  int open_item(const std::string& path, uint32_t access, Item* item) const;
  int place_for(const std::string& path, std::wstring* place) const;
  int listed_entry(const Item& folder, const _WIN32_FIND_DATAW& found, CloudEntry* entry);
  int move(const std::wstring& from, const std::wstring& to, uint32_t flags);

  const std::wstring root_; /* verbatim ("\\?\Z:\folder"), with the disk's own case */
  const uint32_t volume_;   /* its serial number */
  std::shared_mutex replacing_;
};

}  // namespace tarnd

#endif
