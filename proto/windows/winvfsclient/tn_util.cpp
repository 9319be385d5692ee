#include "tn_util.h"

#include <cstdio>
#include <cstring>

#include "ox_util.h"
#include "ox_uuid.h"

namespace {

constexpr ox_u32 ATTRIBUTE_DIRECTORY = 16; /* FILE_ATTRIBUTE_DIRECTORY */

/* A Windows file time. Times that do not fit wrap around, as the arithmetic is unsigned. */
ox_u64 filetime_of(ox_timespec_t ts) {
  constexpr ox_u64 SECONDS_1601_TO_1970 = 11644473600;
  return (static_cast<ox_u64>(ts.tv_sec) + SECONDS_1601_TO_1970) * 10000000 +
         static_cast<ox_u64>(ts.tv_nsec / 100);
}

/* "version-chunks-chunksize-" when there are chunks, then the digest in hexadecimal. */
void checksum_text(char* text, size_t size, const cfs_cksum& ck) {
  size_t at = 0;
  if (ck.ck_nchunks != 0) {
    at = static_cast<size_t>(snprintf(text, size, "%d-%d-%llu-", static_cast<int>(ck.ck_version),
                                      static_cast<int>(ck.ck_nchunks),
                                      static_cast<unsigned long long>(ck.ck_csize)));
  }
  for (ox_u8 byte : ck.ck_sha512) {
    at += static_cast<size_t>(snprintf(text + at, size - at, "%02x", byte));
  }
}

/*
 * Copies the name of an entry. A name without a NUL ends with its record. A record length that
 * cannot be is not used; tn_util.h says what must stand behind the list then.
 */
void copy_name(char* field, size_t size, const cfs_path* cfp) {
  if (cfp->mp_reclen >= CFS_PATH_MIN_RECLEN && cfp->mp_reclen - sizeof(cfs_path) < size) {
    size = cfp->mp_reclen - sizeof(cfs_path);
  }
  ox_copy_field(field, size, cfs_path_name(cfp));
}

}  // namespace

void tn_cfp2fi(tnw_fileinfo* fi, const cfs_path* cfp) {
  memset(fi, 0, sizeof *fi);
  const bool folder = (cfp->mp_flags & CFS_PATH_FOLDER) != 0;
  fi->fi_attr = folder ? ATTRIBUTE_DIRECTORY : 0;
  /* A user sees the modification time in all three; mp_btime is not used. */
  fi->fi_ctime = fi->fi_atime = fi->fi_mtime = filetime_of(cfp->mp_cmtime);
  fi->fi_size = cfp->mp_size;
  ox_uuid_unparse(cfp->mp_id.id, fi->fi_id);
  copy_name(fi->fi_name, sizeof fi->fi_name, cfp);
  if (!folder) {
    const cfs_cksum checksum = cfp->mp_checksum; /* the entry may be at an odd address */
    checksum_text(fi->fi_cksum, sizeof fi->fi_cksum, checksum);
  }
}
