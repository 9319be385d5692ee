/* A cloud file list in a file, which others may write meanwhile. Failures are tools::Failures. */
#ifndef CFFLPRINT_LIST_FILE_H
#define CFFLPRINT_LIST_FILE_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tn_cffl.h"

namespace cfflprint {

struct FreeList {
  void operator()(cfs_cffl* list) const { tn_free_cffl(&list); }
};
using List = std::unique_ptr<cfs_cffl, FreeList>;

/* The bytes of the file, whatever they are. */
std::vector<uint8_t> file_bytes(const std::string& path);

/*
 * The list, as the library reads it. A file that is shorter than its header says is refused: the
 * library would wait for the missing bytes. The entries are not looked at.
 */
List read_list(const std::string& path);

}  // namespace cfflprint

#endif
