#include "list_check.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "tn_cffl.h"

namespace cfflprint {
namespace {

class Checker {
 public:
  explicit Checker(std::span<const uint8_t> bytes) : bytes_(bytes) {}

  std::vector<Fault> check() {
    if (bytes_.size() < sizeof(list_)) {
      fatal(0, "header block",
            fmt::format("it takes {} bytes, and the file has {}", sizeof(list_), bytes_.size()));
      return std::move(faults_);
    }
    memcpy(&list_, bytes_.data(), sizeof(list_));
    if (head_.cf_size < sizeof(list_)) { /* the library reads no more of such a list */
      memset(reinterpret_cast<uint8_t*>(&list_) + head_.cf_size, 0, sizeof(list_) - head_.cf_size);
    }
    check_header();
    if (check_first_offset() && check_entries()) {
      check_count(offsetof(cfs_cffl_header_v3, cf_dcount), "cf_dcount", head_.cf_dcount, folders_);
      check_count(offsetof(cfs_cffl_header_v3, cf_fcount), "cf_fcount", head_.cf_fcount,
                  entries_.size() - folders_);
      check_hash_table();
    }
    std::stable_sort(faults_.begin(), faults_.end(),
                     [](const Fault& a, const Fault& b) { return a.offset < b.offset; });
    return std::move(faults_);
  }

 private:
  void add(uint64_t offset, std::string where, std::string what, bool fatal = false) {
    faults_.push_back({offset, std::move(where), std::move(what), fatal});
  }
  void fatal(uint64_t offset, std::string where, std::string what) {
    add(offset, std::move(where), std::move(what), true);
  }

  void check_header() {
    if (head_.cf_version < 1 || head_.cf_version > 3) {
      fatal(0, "cf_version", fmt::format("{} is none of 1, 2 and 3", head_.cf_version));
    }
    if (head_.cf_hbsize != sizeof(list_)) {
      add(offsetof(cfs_cffl_header_v3, cf_hbsize), "cf_hbsize",
          fmt::format("{} instead of {}", head_.cf_hbsize, sizeof(list_)));
    }
    if (head_.cf_size != bytes_.size()) {
      add(offsetof(cfs_cffl_header_v3, cf_size), "cf_size",
          fmt::format("{} bytes, and the file has {}", head_.cf_size, bytes_.size()),
          head_.cf_size > bytes_.size());
    } else if (head_.cf_size > INT32_MAX) {
      fatal(offsetof(cfs_cffl_header_v3, cf_size), "cf_size",
            fmt::format("{} bytes; a list must stay below 2 GiB", head_.cf_size));
    }
    check_permission(offsetof(cfs_cffl_header_v3, cf_perms), "cf_perms", head_.cf_perms);
    check_text(offsetof(cfs_cffl, cfh_name), "cfh_name", list_.cfh_name, sizeof(list_.cfh_name));
  }

  bool check_first_offset() {
    at_ = tn_first_cfp_offset(&list_);
    end_ = std::min<uint64_t>(head_.cf_size, bytes_.size());
    const char* fault = at_ < sizeof(list_) ? "inside the header block"
                        : at_ > end_        ? "past the list's end"
                                            : nullptr;
    if (fault != nullptr) {
      add(offsetof(cfs_cffl_header_v3, cf_cfpoff), "cf_cfpoff",
          fmt::format("the first entry is at {}, {}", at_, fault), at_ > end_);
    }
    return at_ <= end_;
  }

  /* Whether the entries lead to the list's end. */
  bool check_entries() {
    while (at_ != end_) {
      const uint64_t room = end_ - at_;
      if (room < CFS_PATH_MIN_RECLEN) {
        fatal(at_, entry_text(),
              fmt::format("{} bytes are left, and an entry takes at least {}", room,
                          static_cast<int>(CFS_PATH_MIN_RECLEN)));
        return false;
      }
      cfs_path entry;
      memcpy(&entry, bytes_.data() + at_, sizeof(entry));
      const uint64_t length = entry.mp_reclen;
      if (length < CFS_PATH_MIN_RECLEN || length > room) {
        fatal(at_ + offsetof(cfs_path, mp_reclen), "mp_reclen of " + entry_text(),
              length > room ? fmt::format("{} bytes, and {} are left", length, room)
                            : fmt::format("{} bytes, and an entry takes at least {}", length,
                                          static_cast<int>(CFS_PATH_MIN_RECLEN)));
        return false;
      }
      check_entry(entry);
      entries_.push_back(at_);
      folders_ += entry.mp_flags & CFS_PATH_FOLDER;
      at_ += length;
    }
    return true;
  }

  void check_entry(const cfs_path& entry) {
    const std::string of = " of " + entry_text();
    check_permission(at_ + offsetof(cfs_path, mp_perms), "mp_perms" + of, entry.mp_perms);
    check_text(at_ + offsetof(cfs_path, mp_username), "mp_username" + of, entry.mp_username,
               sizeof(entry.mp_username));
    check_text(at_ + offsetof(cfs_path, mp_lastuser), "mp_lastuser" + of, entry.mp_lastuser,
               sizeof(entry.mp_lastuser));
    check_text(at_ + offsetof(cfs_path, mp_owner_email), "mp_owner_email" + of,
               entry.mp_owner_email, sizeof(entry.mp_owner_email));
    const char* name = reinterpret_cast<const char*>(bytes_.data() + at_ + sizeof(entry));
    check_text(at_ + sizeof(entry), "mp_name" + of, name, entry.mp_reclen - sizeof(entry));
    if (*name == '\0') {
      add(at_ + sizeof(entry), "mp_name" + of, "it is empty");
    }
  }

  void check_permission(uint64_t offset, std::string where, uint8_t permission) {
    if (permission > TN_CFP_PERM_NONE) {
      add(offset, std::move(where), fmt::format("{} is no permission", permission));
    }
  }

  void check_text(uint64_t offset, std::string where, const char* text, size_t size) {
    if (memchr(text, '\0', size) == nullptr) {
      add(offset, std::move(where), fmt::format("its {} bytes have no NUL", size));
    }
  }

  void check_count(uint64_t offset, const char* where, uint64_t said, uint64_t found) {
    if (said != found) {
      add(offset, where, fmt::format("{}, and the list has {}", said, found));
    }
  }

  void check_hash_table() {
    const uint64_t table = head_.cf_ihtoff;
    const uint64_t first = tn_first_cfp_offset(&list_);
    if (table == 0) {
      return;
    }
    const char* fault = table < sizeof(list_) ? "inside the header block"
                        : table > end_        ? "past the list's end"
                        : table > first       ? "among the entries"
                                              : nullptr;
    if (fault != nullptr) {
      add(offsetof(cfs_cffl_header_v3, cf_ihtoff), "cf_ihtoff",
          fmt::format("the hash table is at {}, {}", table, fault));
      return;
    }
    for (uint64_t slot = 0; table + (slot + 1) * sizeof(cfs_cffl_hash) <= first; slot++) {
      check_slot(table + slot * sizeof(cfs_cffl_hash), slot);
    }
  }

  void check_slot(uint64_t offset, uint64_t slot) {
    cfs_cffl_hash hash;
    memcpy(&hash, bytes_.data() + offset, sizeof(hash));
    if (hash.cfh_offset != 0 &&
        !std::binary_search(entries_.begin(), entries_.end(), hash.cfh_offset)) {
      add(offset + offsetof(cfs_cffl_hash, cfh_offset), fmt::format("cfh_offset of slot {}", slot),
          fmt::format("no entry starts at {}", hash.cfh_offset));
    }
  }

  std::string entry_text() const { return fmt::format("entry {}", entries_.size() + 1); }

  const std::span<const uint8_t> bytes_;
  cfs_cffl list_;
  const cfs_cffl_header_v3& head_ = list_.cfh_head;
  uint64_t at_ = 0;  /* the entry */
  uint64_t end_ = 0; /* of the list, and not behind the file's */
  std::vector<uint64_t> entries_;
  uint64_t folders_ = 0;
  std::vector<Fault> faults_;
};

}  // namespace

std::vector<Fault> check_list(std::span<const uint8_t> bytes) { return Checker(bytes).check(); }

bool can_be_walked(const std::vector<Fault>& faults) {
  return std::none_of(faults.begin(), faults.end(), [](const Fault& fault) { return fault.fatal; });
}

}  // namespace cfflprint
