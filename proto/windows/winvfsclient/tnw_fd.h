/*
 * Open files: the entries of an instance's descriptor table. A pointer to an entry is the operation
 * handle that the drive application holds.
 */
#ifndef TNW_FD_H
#define TNW_FD_H

#include "ox_lock.h"
#include "tnv_proto.h"

OX_BEGIN_DECLS

/*
 * One per file as the drive application sees it, shared by all its opens. The counters are guarded
 * by tnw_fc_lock (tnw_dll/tnw_open.h); fc_rd_dirty is changed atomically. Freed by the library with
 * the last close.
 */
typedef struct tnw_file_context {
  bool fc_rd_dirty;  /* data went through a read-only open; the next writable close tells */
  ox_u32 fc_rdcnt;   /* opens for reading only */
  ox_u32 fc_wrcnt;   /* opens with write access */
  ox_u32 fc_prcnt;   /* opens with neither */
  ox_u32 fc_opening; /* opens under way */
  bool fc_kept;      /* stays in the caller's slot although no open succeeded */
} tnw_file_context;

typedef enum tnv_fd_state {
  TNV_FD_FREE = 0,
  TNV_FD_RESERVED = 1, /* taken, no answer of the service yet */
  TNV_FD_INUSE = 2
} tnv_fd_state;

/* A directory-entry buffer; not used by the client calls. */
typedef union tnvdent {
  struct {
    ox_s32 d_ino;
    ox_u16 d_reclen;
    ox_u16 d_namlen;
    char d_name[260];
  } de;
  ox_u8 raw[254];
} tnvdent;

struct cfs_cffl;
struct cfs_path;
struct tnvfd;

/* The enumeration part of an entry. One thread at a time: no lock. */
typedef struct tnvdir {
  ox_s64 dir_index; /* not used, nor are the next three */
  struct tnvfd* dir_fde;
  struct cfs_path* dir_cfp;
  tnvdent dir_dent;
  struct cfs_cffl* dir_cffl; /* a cloud file list, or null */
  tnw_fileinfo* dir_fi;      /* the listing; owned by the entry */
  ox_u64 dir_fi_idx;         /* next record to hand out: 0 .. dir_fi_len */
  ox_u64 dir_fi_len;
} tnvdir;

/*
 * One open file or folder. Fixed for the table's life: fdt_fd and the three locks. Links and
 * fdt_state's change to and from free: the free list's lock. fdt_rmap and its bytes:
 * fdt_rmap_lock; fdt_dmap, its bytes, both sizes and fdt_rshift: fdt_dmap_lock, or fdt_rmap_lock to
 * read a size or the shift while fdt_rmap is not null (see vfstnw_bmap.h). fdt_tnflags and
 * fdt_stat.st_size are changed atomically by parallel calls. All else is fixed from the open's
 * success to the close.
 */
typedef struct tnvfd {
  struct tnvfd* fdt_fnext; /* free-list links; null in use */
  struct tnvfd* fdt_fprev;
  tnv_msgid_t fdt_msgid; /* the request that opened it */
  tnvdir fdt_dir;
  tnvfso fdt_fso;
  ox_statx_t fdt_stat;
  ox_u32 fdt_oflags;
  ox_u32 fdt_oaccmode; /* bit 0 read, bits 1 and 2 write */
  ox_u32 fdt_oshmode;
  ox_u16 fdt_state;
  ox_u16 fdt_tnflags; /* TNV_FL_* */
  int fdt_fd;         /* the entry's index */
  int fdt_opid;
  ox_handle fdt_ofd; /* the local cache file, or INVALID_HANDLE_VALUE */
  ox_off fdt_off;
  bool fdt_root;
  void* fdt_drv; /* the drive handle; null once closed */
  tnw_file_context* fdt_fc;
  ox_u8* fdt_rmap;      /* one allocation holds both maps; null: no maps */
  ox_u8* fdt_dmap;      /* fdt_rmap + fdt_rmap_size */
  int fdt_rshift;       /* a region is 2^fdt_rshift bytes */
  ox_u64 fdt_rmap_size; /* bytes of each map */
  ox_u64 fdt_dmap_size; /* what the service reported; not used */
  ox_rwlock_t fdt_rmap_lock;
  ox_rwlock_t fdt_dmap_lock;
  ox_lock_t fdt_psdo2io_lock; /* reserved */
  char fdt_procname[32];      /* not terminated when full */
  int fdt_osfd; /* the runtime descriptor that owns fdt_ofd, or -1: closing it closes both */
} tnvfd;

/* The free list. fdt_lock guards links and count. */
typedef struct tnvfdhd {
  tnvfd* fdt_fnext; /* the head itself, cast, when empty */
  tnvfd* fdt_fprev;
  ox_s32 fdt_count; /* one more than the free entries once debug logging was on at allocation */
  ox_lock_t fdt_lock;
} tnvfdhd;

/* The table. The array is fixed from allocation to release. */
typedef struct tnw_files {
  tnvfd* vfs_files;
  tnvfdhd vfs_free_fds;
  int vfs_nfiles;
} tnw_files;

OX_END_DECLS

#endif
