/*
 * The walk over a cloud file list, and the words that go with it. The walk trusts no length: what
 * it cannot follow within the list ends the process.
 */
#include "tn_cffl.h"

#include <cstring>

#include "ox_assert.h"
#include "ox_errno.h"
#include "ox_logging.h"
#include "ox_uuid.h"

namespace {

/* The place that a list's faults name, whatever this file and its lines are. */
constexpr const char* fault_file = "tn_util";
enum { fault_line_version = 57, fault_line_chain = 91 };

const char* byte_at(const cfs_cffl* cffl, ox_u64 offset) {
  return reinterpret_cast<const char*>(cffl) + offset;
}

ox_u64 offset_of(const cfs_cffl* cffl, const cfs_path* cfp) {
  return static_cast<ox_u64>(reinterpret_cast<const char*>(cfp) -
                             reinterpret_cast<const char*>(cffl));
}

/* An entry as the callers take it: in a list that they may change. */
cfs_path* entry_at(const cfs_cffl* cffl, ox_u64 offset) {
  return reinterpret_cast<cfs_path*>(const_cast<char*>(byte_at(cffl, offset)));
}

bool holds_entry(const cfs_cffl* cffl, ox_u64 offset) {
  const ox_u64 size = cffl->cfh_head.cf_size;
  return offset <= size && size - offset >= CFS_PATH_MIN_RECLEN;
}

/* `offset` is where the chain leaves the list; `cfp` the entry that led there, or null. */
[[noreturn]] void corrupt_chain(const cfs_cffl* cffl, const cfs_path* cfp, ox_u64 offset) {
  char folder_id[OX_UUID_TEXT_SIZE];
  ox_uuid_unparse(cffl->cfh_head.cf_fid.id, folder_id);
  const void* next = reinterpret_cast<const void*>(reinterpret_cast<uintptr_t>(cffl) + offset);
  OX_LOG_AT(fault_file, fault_line_chain, OX_FATAL_LEVEL, OX_EINVAL,
            "corrupt cffl for folder %.*s:%s, current entry:%.*s, next cfp:%p exceeds "
            "cffl-size:%llu",
            static_cast<int>(sizeof(cffl->cfh_name)), cffl->cfh_name, folder_id,
            cfp != nullptr ? static_cast<int>(tn_cfp_name_len(cffl, cfp)) : 0,
            cfp != nullptr ? cfs_path_name(cfp) : "", next,
            static_cast<unsigned long long>(cffl->cfh_head.cf_size));
  ox_assert_failed("(0)", fault_file, fault_line_chain);
}

}  // namespace

cfs_path* tn_get_first_cfp(const cfs_cffl* cffl) {
  if (cffl->cfh_head.cf_version < 1 || cffl->cfh_head.cf_version > 3) {
    ox_assert_failed("((0))", fault_file, fault_line_version);
  }
  const ox_u64 first = tn_first_cfp_offset(cffl);
  if (first == cffl->cfh_head.cf_size) {
    return nullptr;
  }
  if (!holds_entry(cffl, first)) {
    corrupt_chain(cffl, nullptr, first);
  }
  return entry_at(cffl, first);
}

cfs_path* tn_get_next_cfp(const cfs_cffl* cffl, const cfs_path* cfp) {
  const ox_u64 offset = offset_of(cffl, cfp);
  if (!holds_entry(cffl, offset)) {
    corrupt_chain(cffl, nullptr, offset);
  }
  const ox_u64 room = cffl->cfh_head.cf_size - offset;
  if (cfp->mp_reclen == room) {
    return nullptr;
  }
  const ox_u64 next = offset + cfp->mp_reclen;
  if (cfp->mp_reclen < CFS_PATH_MIN_RECLEN || cfp->mp_reclen > room || !holds_entry(cffl, next)) {
    corrupt_chain(cffl, cfp, next);
  }
  return entry_at(cffl, next);
}

bool tn_cfs_id_is_local(const cfs_id_t* id) {
  constexpr ox_u64 drive_index = 0x5441524E44584944;   /* "TARNDXID", its last letter first */
  constexpr ox_u64 share_listing = 0x534D422D2D454944; /* "SMB--EID" */
  ox_u64 mark = 0;
  memcpy(&mark, id->id + 8, sizeof(mark));
  return mark == drive_index || mark == share_listing;
}

tn_sbpflist_ent* tn_get_next_pfent(tn_sbpflist_ent* start, tn_sbpflist_ent* ent) {
  return ent == nullptr ? start : ent + 1;
}

int tn_skip_nftw_path(const char* /*path*/) { return 0; }

const char* tn_print_permissions(ox_u32 perms) {
  static const char* const words[] = {"Invalid",       "Owner/Modify", "Full/RWD", "Editor/RW",
                                      "Viewer/RDONLY", "Viewer Only",  "Nav",      "None"};
  return perms <= TN_CFP_PERM_NONE ? words[perms] : words[TN_CFP_PERM_INVALID];
}

const char* tn_pftype2string(ox_u8 type) {
  /* As many places as the index can name: callers rely on the odd modulus, and get null there. */
  static const char* const words[24] = {"INVALID", "PINNED", "PRE-SEEDED"};
  return words[type % 24];
}

const char* tn_pfstate2string(ox_u8 state) {
  static const char* const words[64] = {"INVALID",
                                        "TN_PRESEEDING_IN_PROGRESS",
                                        "TN_PRESEEDING_IN_PROGRESS",
                                        "TN_PRESEEDING_IN_PROGRESS",
                                        "TN_PRESEEDING_COMPLETED",
                                        "TN_PRESEEDING_PARTIALLY_COMPLETED",
                                        "TN_PRESEEDING_ABORTED",
                                        "TN_PRESEEDING_FAILED"};
  return words[state & 63];
}
