/**
 * @file
 * @ingroup internals
 * Open files: the entries of an instance's descriptor table. The file handle that the drive
 * application holds is a pointer to an entry.
 */
#ifndef TNW_FD_H
#define TNW_FD_H

#include "ox_lock.h"
#include "tnv_proto.h"

OX_BEGIN_DECLS

/**
 * The context of a file, which all opens of the file share; the drive application keeps the slot
 * that points to it. tnw_fc_lock (tnw_dll/tnw_file_context.h) guards the counters and fc_kept.
 * fc_rd_dirty is changed atomically. The last close frees the context.
 */
typedef struct tnw_file_context {
  bool fc_rd_dirty;  /**< data was written through an open that may only read */
  ox_u32 fc_rdcnt;   /**< opens for reading only */
  ox_u32 fc_wrcnt;   /**< opens with write access */
  ox_u32 fc_prcnt;   /**< opens with neither */
  ox_u32 fc_opening; /**< opens that have begun and not ended */
  bool fc_kept;      /**< an open was unauthorised: the context stays in the slot without an open */
} tnw_file_context;

/** What an entry of the table is used for: fdt_state. */
typedef enum tnv_fd_state {
  TNV_FD_FREE = 0,
  TNV_FD_RESERVED = 1, /**< taken by an open that the service has not answered yet */
  TNV_FD_INUSE = 2
} tnv_fd_state;

/** A buffer for a directory entry. No call of the client uses it. */
typedef union tnvdent {
  struct {
    ox_s32 d_ino;
    ox_u16 d_reclen;
    ox_u16 d_namlen;
    char d_name[260];
  } de;           /**< one entry */
  ox_u8 raw[254]; /**< its bytes */
} tnvdent;

struct cfs_cffl;
struct cfs_path;
struct tnvfd;

/** The listing of an open folder. No lock: one thread at a time uses an enumeration handle. */
typedef struct tnvdir {
  ox_s64 dir_index;          /**< this field and the next three are not used */
  struct tnvfd* dir_fde;     /**< not used */
  struct cfs_path* dir_cfp;  /**< not used */
  tnvdent dir_dent;          /**< not used */
  struct cfs_cffl* dir_cffl; /**< a cloud file list, or null */
  tnw_fileinfo* dir_fi;      /**< the listing; owned by the entry */
  ox_u64 dir_fi_idx;         /**< next record to hand out: 0 .. dir_fi_len */
  ox_u64 dir_fi_len;         /**< records of the listing */
} tnvdir;

/**
 * One open file or folder.
 *   fixed as long as the table lives: fdt_fd and the three locks
 *   fdt_lock of the free list: the links, and changes of fdt_state and fdt_drv; a call on the open
 *     entry reads both without the lock, since nothing changes them until its close
 *   fdt_rmap_lock: fdt_rmap and the bytes of the cached map
 *   fdt_dmap_lock: fdt_dmap, the bytes of the dirty map, fdt_rshift and both sizes; a thread that
 *     holds fdt_rmap_lock and sees that fdt_rmap is not null may read the shift and the sizes, too
 *     (vfstnw_bmap.h says why)
 *   changed atomically: fdt_tnflags and fdt_stat.st_size
 *   fixed from the success of the open to the close: all the others
 */
typedef struct tnvfd {
  struct tnvfd* fdt_fnext; /**< free-list links; null in use */
  struct tnvfd* fdt_fprev; /**< see fdt_fnext */
  tnv_msgid_t fdt_msgid;   /**< the request that opened it */
  tnvdir fdt_dir;          /**< the listing, when it is an enumeration */
  tnvfso fdt_fso;          /**< what OPEN answered */
  ox_statx_t fdt_stat;     /**< the same; st_size follows the file */
  ox_u32 fdt_oflags;       /**< create options of the open */
  ox_u32 fdt_oaccmode;     /**< TNW_ACC_* */
  ox_u32 fdt_oshmode;      /**< the Windows share mode */
  ox_u16 fdt_state;        /**< tnv_fd_state */
  ox_u16 fdt_tnflags;      /**< TNV_FL_* */
  int fdt_fd;              /**< the entry's index */
  int fdt_opid;            /**< the process that opened it */
  ox_handle fdt_ofd;       /**< the local cache file, or INVALID_HANDLE_VALUE */
  ox_off fdt_off;          /**< not used */
  bool fdt_root;           /**< not used */
  void*
      fdt_drv; /**< the drive handle; null after the close; a drive that goes leaves its address */
  tnw_file_context* fdt_fc; /**< the file's context, or null */
  ox_u8* fdt_rmap;      /**< points to one allocation with both maps; null: the file has no maps */
  ox_u8* fdt_dmap;      /**< fdt_rmap + fdt_rmap_size */
  int fdt_rshift;       /**< a region is 2^fdt_rshift bytes */
  ox_u64 fdt_rmap_size; /**< bytes of each map */
  ox_u64 fdt_dmap_size; /**< the number that the service reported; not used */
  ox_rwlock_t fdt_rmap_lock;  /**< guards the cached map */
  ox_rwlock_t fdt_dmap_lock;  /**< guards the dirty map */
  ox_lock_t fdt_psdo2io_lock; /**< reserved */
  char fdt_procname[32];      /**< not terminated when full */
  int fdt_osfd;               /**< the runtime descriptor that owns fdt_ofd, or -1 */
  bool fdt_overlapped;        /**< fdt_ofd was opened for overlapped I/O */
} tnvfd;
#ifdef _WIN32
OX_STATIC_ASSERT(sizeof(tnvfd) == 816, "the same for all compilers");
#endif

/** The free list. fdt_lock guards the links and the count. */
typedef struct tnvfdhd {
  tnvfd* fdt_fnext;   /**< points to the head itself when the list is empty */
  tnvfd* fdt_fprev;   /**< the last one */
  ox_s32 fdt_count;   /**< one too many when the table was made with debug logging */
  ox_lock_t fdt_lock; /**< guards the links and the count */
} tnvfdhd;

/** The table. The array is fixed as long as the table lives. */
typedef struct tnw_files {
  tnvfd* vfs_files;     /**< the entries */
  tnvfdhd vfs_free_fds; /**< those that are free */
  int vfs_nfiles;       /**< how many entries there are */
} tnw_files;

OX_END_DECLS

#endif
