/*
 * The cloud file list: one folder of the cloud as a file. Little-endian records.
 */
#ifndef TN_CFFL_H
#define TN_CFFL_H

#include "tnv_proto.h"

OX_BEGIN_DECLS

/* The list's header, version 3. */
typedef struct cfs_cffl_header_v3 {
  ox_u64 cf_version;
  ox_u32 cf_hbsize;
  ox_u32 cf_flags;
  ox_u32 cf_dcount; /* folder entries */
  ox_u32 cf_fcount; /* file entries */
  cfs_id_t cf_fid;
  cfs_id_t cf_rev;
  ox_u64 cf_size; /* bytes of the whole list, header block included */
  ox_timespec_t cf_btime;
  ox_timespec_t cf_rtime;
  ox_timespec_t cf_cmtime;
  ox_timespec_t cf_atime;
  ox_u8 cf_perms;
  ox_u8 cf_isfixed;
  ox_u8 cf_pad[6];
  ox_u64 cf_ihtoff; /* offset of the hash table */
  ox_u64 cf_cfpoff; /* offset of the first entry; 0 means 1024 */
  char cf_etag[64];
} cfs_cffl_header_v3;
OX_STATIC_ASSERT(offsetof(cfs_cffl_header_v3, cf_dcount) == 16, "file layout");
OX_STATIC_ASSERT(offsetof(cfs_cffl_header_v3, cf_fid) == 24, "file layout");
OX_STATIC_ASSERT(offsetof(cfs_cffl_header_v3, cf_size) == 56, "file layout");
OX_STATIC_ASSERT(offsetof(cfs_cffl_header_v3, cf_btime) == 64, "file layout");
OX_STATIC_ASSERT(offsetof(cfs_cffl_header_v3, cf_perms) == 128, "file layout");
OX_STATIC_ASSERT(offsetof(cfs_cffl_header_v3, cf_ihtoff) == 136, "file layout");
OX_STATIC_ASSERT(offsetof(cfs_cffl_header_v3, cf_etag) == 152, "file layout");
OX_STATIC_ASSERT(sizeof(cfs_cffl_header_v3) == 216, "file layout");

/* The header block that a list begins with. */
typedef struct cfs_cffl {
  cfs_cffl_header_v3 cfh_head;
  ox_u8 cfh_padding[552];
  char cfh_name[256];
} cfs_cffl;
OX_STATIC_ASSERT(offsetof(cfs_cffl, cfh_name) == 768, "file layout");
OX_STATIC_ASSERT(sizeof(cfs_cffl) == 1024, "file layout");

/* A file's checksum: a digest over `ck_nchunks` chunks of `ck_csize` bytes. */
typedef struct cfs_cksum {
  ox_u32 ck_version;
  ox_u32 ck_nchunks;
  ox_u64 ck_csize;
  ox_u8 ck_sha512[64];
} cfs_cksum;
OX_STATIC_ASSERT(offsetof(cfs_cksum, ck_csize) == 8, "file layout");
OX_STATIC_ASSERT(offsetof(cfs_cksum, ck_sha512) == 16, "file layout");
OX_STATIC_ASSERT(sizeof(cfs_cksum) == 80, "file layout");

enum { CFS_PATH_FOLDER = 0x1 }; /* mp_flags */

/* One entry: 368 bytes, then the name and its NUL. Texts are NUL-terminated when shorter. */
typedef struct cfs_path {
  ox_u32 mp_flags;
  ox_u8 mp_ver;
  ox_u8 mp_perms;
  ox_u16 mp_reserved;
  ox_u32 mp_uid;
  ox_u32 mp_nrev;
  cfs_id_t mp_id;
  cfs_id_t mp_rev;
  ox_u64 mp_size;
  ox_u64 mp_reclen; /* bytes of this record with its name: where the next one starts */
  cfs_cksum mp_checksum;
  ox_timespec_t mp_btime;
  ox_timespec_t mp_cmtime;
  char mp_username[64];
  char mp_lastuser[64];
  char mp_owner_email[64];
} cfs_path;
OX_STATIC_ASSERT(offsetof(cfs_path, mp_id) == 16, "file layout");
OX_STATIC_ASSERT(offsetof(cfs_path, mp_size) == 48, "file layout");
OX_STATIC_ASSERT(offsetof(cfs_path, mp_checksum) == 64, "file layout");
OX_STATIC_ASSERT(offsetof(cfs_path, mp_btime) == 144, "file layout");
OX_STATIC_ASSERT(offsetof(cfs_path, mp_username) == 176, "file layout");
OX_STATIC_ASSERT(sizeof(cfs_path) == 368, "file layout");

/* The entry's name, right behind the record. */
static inline const char* cfs_path_name(const cfs_path* cfp) { return (const char*)(cfp + 1); }

OX_END_DECLS

#endif
