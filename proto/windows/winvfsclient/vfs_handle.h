/**
 * @file
 * @ingroup protocol
 * One connection to the cache service.
 *
 * A connection carries one request at a time. In a service instance each lives in the private block
 * of one pool worker slot and is used by that slot's worker alone; slot 0 is also used by the
 * calling thread for connect, version and shut-down.
 *
 * Every call reads slot 0 for its log prefix and its event line: what these show is fixed from the
 * connect on. vfs_broken and vfs_had_utxid are changed and read atomically.
 */
#ifndef VFS_HANDLE_H
#define VFS_HANDLE_H

#include <time.h>

#include "ox_types.h"
#include "tnv_proto.h"

OX_BEGIN_DECLS

struct vfs_handle;
/** Whether the connection's owner shuts down. It is asked once a second while a transfer waits. */
typedef bool (*vfs_is_exiting_t)(struct vfs_handle* vh);

/** One connection. */
typedef struct vfs_handle {
  ox_s64
      vfs_fd; /**< the socket; -1 before the connect; keeps its number when the connection broke */
  cfs_id_t vfs_share_fid; /**< the share's id */
  ox_u64 vfs_peer_tid;    /**< the service's thread */
  ox_u64 vfs_utxid;     /**< transaction id of the last response; 0 while a request is under way */
  ox_s32 vfs_pid;       /**< not set by the client */
  bool vfs_broken;      /**< the socket is closed, and no request gets through any more */
  bool vfs_had_utxid;   /**< the last response had a transaction id; kept during the next request */
  ox_u8 vfs_pad[2];     /**< zero */
  char* vfs_share_path; /**< owned */
  const char* vfs_target_path; /**< not set by the client; not owned */
  char vfs_rhost[128];         /**< this computer */
  char vfs_cache_dir[128];     /**< the cache directory */
  char vfs_user[128];          /**< the user */
  char vfs_domain[51];         /**< the domain */
  char vfs_da_devid[37];       /**< the drive application's device */
  void* vfs_peer_handle;       /**< the service's, opaque */
  char vfs_sock_path[108];     /**< in slot 0 only */
  void* vfs_private; /**< the client's: a tnw_watch (tnv_connio_win.h) that is not owned, or null */
  struct timespec vfs_curmsg_ts;   /**< real time when the current request began */
  vfs_is_exiting_t vfs_is_exiting; /**< null on the client's connections */
} vfs_handle;
OX_STATIC_ASSERT(sizeof(vfs_handle) == 688, "the size of a worker's private block");

OX_END_DECLS

#endif
