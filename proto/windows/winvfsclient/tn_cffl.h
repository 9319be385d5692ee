/*
 * The cloud file list: one folder of the cloud as a file, and the words that go with it.
 *
 * A list is a header block of 1024 bytes, an optional hash table, and one entry for each file and
 * folder up to the list's last byte; all integers are little-endian. These calls read a list from a
 * descriptor, walk it and print it. None of them keeps anything: a list is plain memory of its
 * reader, which any number of threads may walk and print at once as long as nobody changes it.
 *
 * Failures: the reader gives null with errno and one ERROR line in the log. A list that contradicts
 * itself is no error result but an internal fault: the walk logs at FATAL, flushes the log and ends
 * the process, and reads nothing outside the list before that. tools/cfflprint --check looks at a
 * list without that risk.
 *
 * Descriptors and streams belong to the DLL's own C runtime: get descriptors from ox_open or
 * ox_creat (ox_platform.h), and give no stream of another runtime.
 */
#ifndef TN_CFFL_H
#define TN_CFFL_H

#include <stdio.h>
#include <string.h>

#include "tnv_proto.h"

OX_BEGIN_DECLS

/* A user's permission on a folder or file: cf_perms, mp_perms. */
typedef enum tn_cfp_perms {
  TN_CFP_PERM_INVALID = 0,
  TN_CFP_PERM_MODIFY = 1,
  TN_CFP_PERM_RWD = 2,
  TN_CFP_PERM_READWRITE = 3,
  TN_CFP_PERM_READ = 4,
  TN_CFP_PERM_VIEWER_ONLY = 5,
  TN_CFP_PERM_NAV = 6,
  TN_CFP_PERM_NONE = 7
} tn_cfp_perms;

enum {
  CFS_CFFL_FIXED_OFFSET = 0x1 /* cf_flags: cf_cfpoff counts for a local "lost+found", too */
};

/* The list's header, version 3. */
typedef struct cfs_cffl_header_v3 {
  ox_u64 cf_version; /* 1, 2 or 3 */
  ox_u32 cf_hbsize;  /* bytes of the header block: 1024 */
  ox_u32 cf_flags;
  ox_u32 cf_dcount;        /* folder entries */
  ox_u32 cf_fcount;        /* file entries */
  cfs_id_t cf_fid;         /* the folder */
  cfs_id_t cf_rev;         /* its revision */
  ox_u64 cf_size;          /* bytes of the whole list, header block included */
  ox_timespec_t cf_btime;  /* made in the cloud */
  ox_timespec_t cf_rtime;  /* last refreshed */
  ox_timespec_t cf_cmtime; /* modified in the cloud */
  ox_timespec_t cf_atime;
  ox_u8 cf_perms;   /* tn_cfp_perms */
  ox_u8 cf_isfixed; /* the service's own */
  ox_u8 cf_pad[6];  /* zero */
  ox_u64 cf_ihtoff; /* offset of the hash table, which ends at the first entry; 0: none */
  ox_u64 cf_cfpoff; /* offset of the first entry, from the list's start; 0 means 1024 */
  char cf_etag[64]; /* zero-padded; a text that fills it has no NUL */
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
  ox_u8 cfh_padding[552]; /* zero */
  char cfh_name[256];     /* the folder's name, NUL-terminated */
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

/* The shortest record of an entry: its fields and the NUL of an empty name. */
enum { CFS_PATH_MIN_RECLEN = 369 };

/*
 * One entry: 368 bytes, then the name and its NUL. Texts are NUL-terminated when shorter. A record
 * follows the one before it without a gap, so it may start at any byte: hence the packing, which
 * changes no offset.
 */
#pragma pack(push, 1)
typedef struct cfs_path {
  ox_u32 mp_flags;
  ox_u8 mp_ver;
  ox_u8 mp_perms;     /* tn_cfp_perms */
  ox_u16 mp_reserved; /* zero */
  ox_u32 mp_uid;
  ox_u32 mp_nrev; /* revisions */
  cfs_id_t mp_id;
  cfs_id_t mp_rev;
  ox_u64 mp_size;   /* bytes of the file */
  ox_u64 mp_reclen; /* bytes of this record with its name: where the next one starts */
  cfs_cksum mp_checksum;
  ox_timespec_t mp_btime;
  ox_timespec_t mp_cmtime;
  char mp_username[64]; /* who uploaded it */
  char mp_lastuser[64]; /* who changed it last */
  char mp_owner_email[64];
} cfs_path;
#pragma pack(pop)
OX_STATIC_ASSERT(offsetof(cfs_path, mp_id) == 16, "file layout");
OX_STATIC_ASSERT(offsetof(cfs_path, mp_size) == 48, "file layout");
OX_STATIC_ASSERT(offsetof(cfs_path, mp_checksum) == 64, "file layout");
OX_STATIC_ASSERT(offsetof(cfs_path, mp_btime) == 144, "file layout");
OX_STATIC_ASSERT(offsetof(cfs_path, mp_username) == 176, "file layout");
OX_STATIC_ASSERT(sizeof(cfs_path) == 368, "file layout");

/* The entry's name, right behind the record. */
static inline const char* cfs_path_name(const cfs_path* cfp) { return (const char*)(cfp + 1); }

/* A slot of the hash table, which starts at cf_ihtoff. */
typedef struct cfs_cffl_hash {
  ox_s32 cfh_hashvalue;
  ox_u32 cfh_next;
  ox_u32 cfh_prev;
  ox_u32 cfh_offset; /* of the entry, from the list's start */
  ox_u8 cfh_sha256[32];
} cfs_cffl_hash;
OX_STATIC_ASSERT(offsetof(cfs_cffl_hash, cfh_next) == 4, "file layout");
OX_STATIC_ASSERT(offsetof(cfs_cffl_hash, cfh_prev) == 8, "file layout");
OX_STATIC_ASSERT(offsetof(cfs_cffl_hash, cfh_offset) == 12, "file layout");
OX_STATIC_ASSERT(offsetof(cfs_cffl_hash, cfh_sha256) == 16, "file layout");
OX_STATIC_ASSERT(sizeof(cfs_cffl_hash) == 48, "file layout");

/* An entry of the list of pinned folders. */
typedef struct tn_sbpflist_ent {
  cfs_id_t pfle_id;
  ox_u64 pfle_pseq;  /* sequence number */
  ox_u8 pfle_ptyp;   /* tn_pftype2string */
  ox_u8 pfle_status; /* tn_pfstate2string */
  ox_u8 pfle_pad[6];
} tn_sbpflist_ent;
OX_STATIC_ASSERT(offsetof(tn_sbpflist_ent, pfle_pseq) == 16, "file layout");
OX_STATIC_ASSERT(offsetof(tn_sbpflist_ent, pfle_ptyp) == 24, "file layout");
OX_STATIC_ASSERT(offsetof(tn_sbpflist_ent, pfle_status) == 25, "file layout");
OX_STATIC_ASSERT(offsetof(tn_sbpflist_ent, pfle_pad) == 26, "file layout");
OX_STATIC_ASSERT(sizeof(tn_sbpflist_ent) == 32, "file layout");

/* -------------------------------------------------------------------------- reading a list */

/*
 * Reads a list, or with `read_data` false its 1024 header bytes alone, into memory on a boundary of
 * `sectsz` bytes (a power of two; 0: malloc's) that the caller gives back with tn_free_cffl. The
 * header comes from the descriptor's position, a whole list from the file's start; the position is
 * left behind what was read, so two threads must not read from one descriptor.
 *
 * Null: the file ends within the header (errno stays as it was), or with errno: a read that fails,
 * no memory (also for a list of 2 GiB and more: 12), a file that was given a longer list in the
 * middle of it (11).
 *
 * Deliberately without a test for the end of the file: a file shorter than its cf_size keeps the
 * reader, which yields the processor between its attempts, until the rest has been written. Compare
 * the file's size with the header first where that must not happen.
 */
cfs_cffl* tn_fread_cffl(int fd, size_t sectsz, bool read_data);

/* `size` bytes for a list on a boundary of `sectsz`, the second zeroed; null with errno 12. */
cfs_cffl* tn_alloc_cffl_internal(size_t size, size_t sectsz);
cfs_cffl* tn_zalloc_cffl_internal(size_t size, size_t sectsz);
/* Frees the list and makes the pointer null; a null pointer in either place does nothing. */
void tn_free_cffl(cfs_cffl** cffl);

/* -------------------------------------------------------------------------- walking a list */

/*
 * The first entry and the one behind `cfp`, within the list; null when there is none. They need the
 * whole list in memory. Ending the process: a version other than 1, 2 and 3; an entry, or a record
 * length, that does not fit in cf_size; a record length below CFS_PATH_MIN_RECLEN. A returned
 * entry's fixed fields lie within the list; its record length is looked at by the next step.
 */
cfs_path* tn_get_first_cfp(const cfs_cffl* cffl);
cfs_path* tn_get_next_cfp(const cfs_cffl* cffl, const cfs_path* cfp);

/* Whether the identifier was given out on this machine: its last 8 bytes say so. */
bool tn_cfs_id_is_local(const cfs_id_t* id);

/* Where the header has the first entry: bytes from the list's start, which may lie outside. */
static inline ox_u64 tn_first_cfp_offset(const cfs_cffl* cffl) {
  const cfs_cffl_header_v3* head = &cffl->cfh_head;
  const bool local_lost_and_found =
      strncmp(cffl->cfh_name, "lost+found", sizeof(cffl->cfh_name)) == 0 &&
      (head->cf_flags & CFS_CFFL_FIXED_OFFSET) == 0 && tn_cfs_id_is_local(&head->cf_fid);
  if (head->cf_version < 3 || head->cf_cfpoff == 0 || local_lost_and_found) {
    return sizeof(cfs_cffl);
  }
  return head->cf_cfpoff;
}

/* The length of an entry's name, which ends with its record and the list even without a NUL. */
static inline size_t tn_cfp_name_len(const cfs_cffl* cffl, const cfs_path* cfp) {
  ox_u64 end = cffl->cfh_head.cf_size - (ox_u64)((const char*)cfp - (const char*)cffl);
  if (cfp->mp_reclen >= CFS_PATH_MIN_RECLEN && cfp->mp_reclen < end) {
    end = cfp->mp_reclen;
  }
  return strnlen(cfs_path_name(cfp), end - sizeof(cfs_path));
}

/* The entry behind `ent`, or the first when `ent` is null. No end check: the caller counts. */
tn_sbpflist_ent* tn_get_next_pfent(tn_sbpflist_ent* start, tn_sbpflist_ent* ent);
/* Whether a walk over a file tree leaves `path` out: always 0. */
int tn_skip_nftw_path(const char* path);

/* ------------------------------------------------------------------------- words and texts */

/* The word of a permission; "Invalid" for what is none. */
const char* tn_print_permissions(ox_u32 perms);
/*
 * The words of a pinned folder's type and state. Deliberately null for what has none: the type
 * counts modulo 24 and the state modulo 64, far more than there are words.
 */
const char* tn_pftype2string(ox_u8 type);
const char* tn_pfstate2string(ox_u8 state);
/* Writes 64 bytes as 128 lower-case hexadecimal digits and a NUL; gives `text` (129 bytes) back. */
char* tn_sha512_tostr(const ox_u8* sha512, char* text);

/* ------------------------------------------------------------------------ printing a list */

/*
 * Diagnostic listings of a whole list, with times in the local zone: header and entries, and the
 * hash table too when `flag` is not 0; the entries alone; the same to a stream. The first two write
 * to the standard output of the DLL's runtime. They walk the list, and end the process as that
 * does. Listings of several threads mix.
 */
void tn_print_cffl(const cfs_cffl* cffl, int flag);
void tn_print_cffl_finfo(const cfs_cffl* cffl);
void tn_print_cffl_ffinfo(const cfs_cffl* cffl, FILE* stream);
/* The first 8 bytes in hexadecimal without leading zeros, deliberately, and a line's end. */
void print_sha256(const ox_u8* sha256);

OX_END_DECLS

#endif
