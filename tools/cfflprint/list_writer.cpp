#include "list_writer.h"

#include <algorithm>
#include <cstring>

namespace cfflprint {
namespace {

/* Cuts a text that is too long, to leave room for its NUL. The field is zero already. */
template <size_t N>
void fill_field(char (&field)[N], const std::string& text) {
  memcpy(field, text.data(), std::min(text.size(), N - 1));
}

/* Every record starts on a boundary of 8 bytes: the name's NUL is followed by up to 7 more. */
uint64_t record_length(const std::string& name) {
  return (sizeof(cfs_path) + name.size() + 1 + 7) / 8 * 8;
}

cfs_path record_of(const Item& item, const std::string& user) {
  cfs_path record = {};
  record.mp_flags = item.folder ? CFS_PATH_FOLDER : 0;
  record.mp_ver = 1;
  record.mp_perms = TN_CFP_PERM_MODIFY;
  record.mp_nrev = 1;
  record.mp_id = item.id;
  record.mp_rev = item.revision;
  record.mp_size = item.size;
  record.mp_reclen = record_length(item.name);
  record.mp_checksum = item.checksum;
  record.mp_btime = item.created;
  record.mp_cmtime = item.modified;
  fill_field(record.mp_username, user);
  fill_field(record.mp_lastuser, user);
  return record;
}

cfs_cffl header_block(const Item& folder, const std::vector<Item>& entries, uint64_t size) {
  cfs_cffl block = {};
  cfs_cffl_header_v3& head = block.cfh_head;
  head.cf_version = 3;
  head.cf_hbsize = sizeof(block);
  head.cf_dcount = static_cast<ox_u32>(
      std::count_if(entries.begin(), entries.end(), [](const Item& item) { return item.folder; }));
  head.cf_fcount = static_cast<ox_u32>(entries.size()) - head.cf_dcount;
  head.cf_fid = folder.id;
  head.cf_rev = folder.revision;
  head.cf_size = size;
  head.cf_btime = folder.created;
  head.cf_cmtime = folder.modified;
  head.cf_atime = folder.accessed;
  head.cf_perms = TN_CFP_PERM_MODIFY;
  head.cf_cfpoff = sizeof(block);
  fill_field(block.cfh_name, folder.name);
  return block;
}

}  // namespace

std::vector<uint8_t> write_list(const Item& folder, const std::vector<Item>& entries,
                                const std::string& user, ox_timespec_t now) {
  uint64_t size = sizeof(cfs_cffl);
  for (const Item& entry : entries) {
    size += record_length(entry.name);
  }
  cfs_cffl block = header_block(folder, entries, size);
  block.cfh_head.cf_rtime = now;
  std::vector<uint8_t> bytes(size);
  memcpy(bytes.data(), &block, sizeof(block));
  uint8_t* at = bytes.data() + sizeof(block);
  for (const Item& entry : entries) {
    const cfs_path record = record_of(entry, user);
    memcpy(at, &record, sizeof(record));
    memcpy(at + sizeof(record), entry.name.c_str(), entry.name.size() + 1);
    at += record.mp_reclen;
  }
  return bytes;
}

}  // namespace cfflprint
