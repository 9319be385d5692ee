/* A cloud file list in a file, through the library. */
#ifndef CFFLPRINT_LIST_FILE_H
#define CFFLPRINT_LIST_FILE_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "list_check.h"
#include "tn_cffl.h"

namespace cfflprint {

struct FreeList {
  void operator()(cfs_cffl* list) const { tn_free_cffl(&list); }
};
using List = std::unique_ptr<cfs_cffl, FreeList>;

class ListFile {
 public:
  /* All throw a tnwsh::Failure. The path is UTF-8. */
  explicit ListFile(const std::string& path);
  ListFile(const ListFile&) = delete;
  ListFile& operator=(const ListFile&) = delete;
  ~ListFile();

  /* The bytes of the file, whatever they are. */
  std::vector<uint8_t> bytes() const;
  /*
   * The list, where header and file agree on its size: the library would wait for missing bytes.
   * Its entries are not looked at.
   */
  List read() const;

 private:
  uint64_t size() const;
  std::string path_;
  int fd_;
};

}  // namespace cfflprint

#endif
