/**
 * @file
 * @ingroup lists
 * Cloud file lists. A list is a file that describes one folder of the cloud.
 *
 * A list is a header block of 1024 bytes, an optional hash table, and one entry for each file and
 * folder, up to the last byte of the list. All integers are little-endian. The calls below read a
 * list from a descriptor, walk over its entries and print it. A list in memory belongs to whoever
 * read it. Any number of threads may walk and print it at the same time as long as nobody changes
 * it.
 *
 * Failures: the reader gives null, sets errno and writes one ERROR line to the log. The walk treats
 * a list that contradicts itself as an internal fault: it writes a FATAL line, flushes the log and
 * ends the process. It reads nothing outside the list before that. `cfflprint --check` examines
 * a list without that risk.
 *
 * Descriptors and streams must be those of the DLL's own C runtime: take descriptors from ox_open
 * or ox_creat (ox_platform.h), and do not give the stream of another runtime.
 *
 * The offset of every field is asserted in tnv_layout.cpp.
 */
#ifndef TN_CFFL_H
#define TN_CFFL_H

#include <stdio.h>
#include <string.h>

#include "tnv_proto.h"

OX_BEGIN_DECLS

/**
 * @defgroup lists_layout The layout of a list
 * @ingroup lists
 * @{
 */

/** A user's permission on a folder or file: cf_perms, mp_perms. */
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
  CFS_CFFL_FIXED_OFFSET = 0x1 /**< in cf_flags: cf_cfpoff counts in a local "lost+found", too */
};

/** The list's header, version 3. */
typedef struct cfs_cffl_header_v3 {
  ox_u64 cf_version;       /**< 1, 2 or 3 */
  ox_u32 cf_hbsize;        /**< bytes of the header block: 1024 */
  ox_u32 cf_flags;         /**< CFS_CFFL_FIXED_OFFSET, or 0 */
  ox_u32 cf_dcount;        /**< folder entries */
  ox_u32 cf_fcount;        /**< file entries */
  cfs_id_t cf_fid;         /**< the folder */
  cfs_id_t cf_rev;         /**< its revision */
  ox_u64 cf_size;          /**< bytes of the whole list, header block included */
  ox_timespec_t cf_btime;  /**< when the folder was created in the cloud */
  ox_timespec_t cf_rtime;  /**< when the list was refreshed */
  ox_timespec_t cf_cmtime; /**< when the folder was modified in the cloud */
  ox_timespec_t cf_atime;  /**< last access */
  ox_u8 cf_perms;          /**< tn_cfp_perms */
  ox_u8 cf_isfixed;        /**< for the service only */
  ox_u8 cf_pad[6];         /**< zero */
  ox_u64 cf_ihtoff; /**< offset of the hash table, which ends at the first entry; 0: no table */
  ox_u64 cf_cfpoff; /**< offset of the first entry from the start of the list; 0 means 1024 */
  char cf_etag[64]; /**< a text that fills it has no NUL */
} cfs_cffl_header_v3;
OX_STATIC_ASSERT(sizeof(cfs_cffl_header_v3) == 216, "file layout");

/** The header block that a list begins with. */
typedef struct cfs_cffl {
  cfs_cffl_header_v3 cfh_head; /**< the header */
  ox_u8 cfh_padding[552];      /**< zero */
  char cfh_name[256];          /**< the folder's name, NUL-terminated */
} cfs_cffl;
OX_STATIC_ASSERT(sizeof(cfs_cffl) == 1024, "file layout");

/** A file's checksum: a digest over `ck_nchunks` chunks of `ck_csize` bytes. */
typedef struct cfs_cksum {
  ox_u32 ck_version;   /**< version of the digest */
  ox_u32 ck_nchunks;   /**< 0: the file has no chunks */
  ox_u64 ck_csize;     /**< bytes of a chunk */
  ox_u8 ck_sha512[64]; /**< the digest */
} cfs_cksum;
OX_STATIC_ASSERT(sizeof(cfs_cksum) == 80, "file layout");

enum { CFS_PATH_FOLDER = 0x1 }; /**< mp_flags */

/** The shortest record of an entry: its fields and the NUL of an empty name. */
enum { CFS_PATH_MIN_RECLEN = 369 };

/**
 * One entry: these 368 bytes, then the name with its NUL. A text that fills its field has no NUL.
 * Entries follow each other without a gap, so an entry may start at any byte. The packing tells the
 * compiler so; it changes no offset.
 */
#pragma pack(push, 1)
typedef struct cfs_path {
  ox_u32 mp_flags;    /**< CFS_PATH_FOLDER, or 0 */
  ox_u8 mp_ver;       /**< version of the entry */
  ox_u8 mp_perms;     /**< tn_cfp_perms */
  ox_u16 mp_reserved; /**< zero */
  ox_u32 mp_uid;      /**< the user's number */
  ox_u32 mp_nrev;     /**< revisions */
  cfs_id_t mp_id;     /**< the item */
  cfs_id_t mp_rev;    /**< its revision */
  ox_u64 mp_size;     /**< bytes of the file */
  ox_u64 mp_reclen;   /**< bytes of this entry with its name; the next entry starts behind them */
  cfs_cksum mp_checksum;   /**< of the content */
  ox_timespec_t mp_btime;  /**< creation in the cloud */
  ox_timespec_t mp_cmtime; /**< last change in the cloud */
  char mp_username[64];    /**< the user who uploaded it */
  char mp_lastuser[64];    /**< the user who changed it last */
  char mp_owner_email[64]; /**< the owner's address */
} cfs_path;
#pragma pack(pop)
OX_STATIC_ASSERT(sizeof(cfs_path) == 368, "file layout");

/** The name of an entry, which stands directly behind the record. */
static inline const char* cfs_path_name(const cfs_path* cfp) { return (const char*)(cfp + 1); }

/** A slot of the hash table, which starts at cf_ihtoff. */
typedef struct cfs_cffl_hash {
  ox_s32 cfh_hashvalue; /**< for the service only */
  ox_u32 cfh_next;      /**< for the service only */
  ox_u32 cfh_prev;      /**< for the service only */
  ox_u32 cfh_offset;    /**< of the entry, from the list's start */
  ox_u8 cfh_sha256[32]; /**< for the service only */
} cfs_cffl_hash;
OX_STATIC_ASSERT(sizeof(cfs_cffl_hash) == 48, "file layout");

/** An entry of the list of pinned folders. */
typedef struct tn_sbpflist_ent {
  cfs_id_t pfle_id;  /**< the folder */
  ox_u64 pfle_pseq;  /**< sequence number */
  ox_u8 pfle_ptyp;   /**< tn_pftype2string */
  ox_u8 pfle_status; /**< tn_pfstate2string */
  ox_u8 pfle_pad[6]; /**< zero */
} tn_sbpflist_ent;
OX_STATIC_ASSERT(sizeof(tn_sbpflist_ent) == 32, "file layout");

/** @} */

/**
 * @defgroup lists_read Reading a list
 * @ingroup lists
 * @{
 */

/**
 * Reads a list, or only its 1024 header bytes when `read_data` is false. The memory begins at a
 * multiple of `sectsz` bytes (a power of two, or 0 for what malloc gives), and 245 zero bytes
 * follow the list. The caller frees it with tn_free_cffl. The header is read from the position of
 * the descriptor, and a whole list from the start of the file. The position stays behind what was
 * read, so two threads must not read from one descriptor.
 *
 * Gives null when the file ends within the header (errno stays as it was), and null with errno when
 * a read fails, when there is no memory (12; also for a list of 2 GiB and more), and when the file
 * was given a longer list while it was read (11).
 *
 * The reader does not notice the end of the file: it waits until a file that is shorter than its
 * cf_size has been written to the end, and yields the processor between its attempts. Where that
 * must not happen, compare the size of the file with the header first.
 */
cfs_cffl* tn_fread_cffl(int fd, size_t sectsz, bool read_data);

/**
 * Allocate `size` bytes at a multiple of `sectsz`, the second call with zeros in them. Null with
 * errno 12 when there is no memory.
 */
cfs_cffl* tn_alloc_cffl_internal(size_t size, size_t sectsz);
/** Allocates zeros, see tn_alloc_cffl_internal. */
cfs_cffl* tn_zalloc_cffl_internal(size_t size, size_t sectsz);
/** Frees the list and makes the pointer to it null. Null is allowed for the list and for `cffl`. */
void tn_free_cffl(cfs_cffl** cffl);

/** @} */

/**
 * @defgroup lists_walk Walking a list
 * @ingroup lists
 * @{
 */

/**
 * Give the first entry and the entry behind `cfp`, or null when there is none. The whole list must
 * be in memory. The process ends at a version other than 1, 2 and 3, at an entry or a record length
 * that does not fit into cf_size, and at a record length below CFS_PATH_MIN_RECLEN. The fixed
 * fields of an entry that was given lie within the list; its record length is examined only by the
 * step to the next entry.
 */
cfs_path* tn_get_first_cfp(const cfs_cffl* cffl);
/** The entry behind `cfp`, see tn_get_first_cfp. */
cfs_path* tn_get_next_cfp(const cfs_cffl* cffl, const cfs_path* cfp);

/** Whether the identifier was made on this machine, which its last 8 bytes say. */
bool tn_cfs_id_is_local(const cfs_id_t* id);

/**
 * The offset of the first entry as the header tells it. It is not examined, and may lie outside the
 * list.
 */
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

/** The length of an entry's name. A name without a NUL ends where its record or the list ends. */
static inline size_t tn_cfp_name_len(const cfs_cffl* cffl, const cfs_path* cfp) {
  ox_u64 end = cffl->cfh_head.cf_size - (ox_u64)((const char*)cfp - (const char*)cffl);
  if (cfp->mp_reclen >= CFS_PATH_MIN_RECLEN && cfp->mp_reclen < end) {
    end = cfp->mp_reclen;
  }
  return strnlen(cfs_path_name(cfp), end - sizeof(cfs_path));
}

/**
 * The entry behind `ent`, or the first one when `ent` is null. The call does not know where the
 * list ends: the caller counts the entries.
 */
tn_sbpflist_ent* tn_get_next_pfent(tn_sbpflist_ent* start, tn_sbpflist_ent* ent);
/** Whether a walk over a file tree leaves out `path`. It never does: always 0. */
int tn_skip_nftw_path(const char* path);

/** @} */

/**
 * @defgroup lists_words Words and texts
 * @ingroup lists
 * @{
 */

/** The word for a permission, and "Invalid" for any other number. */
const char* tn_print_permissions(ox_u32 perms);
/**
 * The words for the type and the state of a pinned folder. The type counts modulo 24 and the state
 * modulo 64, which is more than there are words: a number without a word gives null.
 */
const char* tn_pftype2string(ox_u8 type);
/** The word for the state, see tn_pftype2string. */
const char* tn_pfstate2string(ox_u8 state);
/** Writes 64 bytes to `text` as 128 lower-case hexadecimal digits and a NUL, and gives `text`. */
char* tn_sha512_tostr(const ox_u8* sha512, char* text);

/** @} */

/**
 * @defgroup lists_print Printing a list
 * @ingroup lists
 * @{
 */

/**
 * Print a whole list for people who look for a fault, with times in the local time zone. The first
 * call prints the header and the entries, and the hash table too when `flag` is not 0. The second
 * prints only the entries, and the third prints the same to a stream. The first two write to the
 * standard output of the DLL's C runtime. All of them walk over the list and end the process where
 * the walk does. The lines of several threads may mix.
 */
void tn_print_cffl(const cfs_cffl* cffl, int flag);
/** Prints the entries, see tn_print_cffl. */
void tn_print_cffl_finfo(const cfs_cffl* cffl);
/** Prints the entries to a stream, see tn_print_cffl. */
void tn_print_cffl_ffinfo(const cfs_cffl* cffl, FILE* stream);
/**
 * Prints the first 8 bytes and the end of the line. Each byte is printed in hexadecimal without a
 * leading zero, so that 0x0a becomes "a".
 */
void print_sha256(const ox_u8* sha256);

/** @} */

OX_END_DECLS

#endif
