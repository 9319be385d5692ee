/* The bytes of a cloud file list, version 3. */
#ifndef CFFLPRINT_LIST_WRITER_H
#define CFFLPRINT_LIST_WRITER_H

#include <cstdint>
#include <string>
#include <vector>

#include "tn_cffl.h"

namespace cfflprint {

/* An entry of a list, or the folder of the list itself. A folder has no size and no checksum. */
struct Item {
  std::string name;
  bool folder = false;
  uint64_t size = 0;
  cfs_id_t id = {};
  cfs_id_t revision = {};
  cfs_cksum checksum = {};
  ox_timespec_t created = {};
  ox_timespec_t modified = {};
  ox_timespec_t accessed = {};
};

/* `user` owns everything. Texts that are longer than their fields are cut. */
std::vector<uint8_t> write_list(const Item& folder, const std::vector<Item>& entries,
                                const std::string& user, ox_timespec_t now);

}  // namespace cfflprint

#endif
