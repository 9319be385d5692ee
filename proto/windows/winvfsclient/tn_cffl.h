/*
 * The cloud file list: one folder of the cloud as a file. Little-endian records.
 */
#ifndef TN_CFFL_H
#define TN_CFFL_H

#include "tnv_proto.h"

OX_BEGIN_DECLS

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
