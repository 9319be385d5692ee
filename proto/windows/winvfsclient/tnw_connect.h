/*
 * Requests and responses: how a request is allocated, sent under a new id and answered; the connect
 * handshake; and the jobs that do this for the calls.
 *
 * A job runs on a worker of the pool and uses that worker's own connection, which is its private
 * block. The caller waits on ev_hdl. A connection that fails within an exchange is broken for good:
 * every later request on it gives 133 at once.
 */
#ifndef TNW_CONNECT_H
#define TNW_CONNECT_H

#include "vfs_handle.h"

OX_BEGIN_DECLS

struct tnvfd;

/*
 * One queued request. The caller owns it with all that it points to, and keeps it until ev_hdl is
 * set.
 */
typedef struct tnw_evwi {
  tnv_msg* ev_msg; /* this one and the next are null for the region jobs */
  tnv_resp* ev_resp;
  void* ev_data;    /* depends on the job: a tnvfd, a tnw_ioreq or a tnw_truncreq */
  ox_handle ev_hdl; /* auto-reset event; null when it could not be made */
  bool ev_granted;  /* set by the OPEN and DENUM jobs: the service opened what the job then could
                       not take, and a CLOSE must tell it */
} tnw_evwi;

/* A region request. The worker writes io_err, io_curfsz and io_has_curfsz. */
typedef struct tnw_ioreq {
  ox_s32 io_err;
  struct tnvfd* io_fde;
  ox_u64 io_off;
  ox_u64 io_len;
  bool io_trunc;
  ox_u64 io_curfsz;   /* the file's size, if the answer carried one */
  bool io_has_curfsz; /* the answer carried one */
} tnw_ioreq;

/* A truncate request. The worker writes t_err. */
typedef struct tnw_truncreq {
  ox_s32 t_err;
  struct tnvfd* t_fde;
  ox_u64 t_nfsz;
} tnw_truncreq;

/*
 * Allocates a request of `size` bytes (504 and the trailing texts), all zero, or gives null.
 * ox_free_safe frees it.
 */
tnv_msg* tnw_alloc_msg(int size);

/* Each gives 0 or 133. The send writes a new hdr_id into the request. */
int tnw_send_msg(vfs_handle* vh, tnv_msg* msgp);
int tnw_recv_response(vfs_handle* vh, const tnv_msg* msgp, tnv_resp* resp);
/* Sends, then receives, and gives the first error, or 0. */
int tnw_sync_send_msg(vfs_handle* vh, tnv_msg* msg, tnv_resp* resp);

/*
 * Connects `vh` to the service at the socket file `sock` and binds it to the share and user. Runs
 * on the calling thread. Gives 0, a Windows error, 12 (no memory), 133, or the service's answer.
 */
int tnw_vfs_connect(vfs_handle* vh, const char* domain, const char* user, const char* cachedir,
                    const char* sock, const char* sharepath, const char* devid,
                    const char* drive_id);

/*
 * The largest listing that DENUM may announce, in entries. More than that no folder can have, and
 * the connection of a service that says so is broken: its bytes mean nothing any more. A listing up
 * to this size for which there is no memory is read and dropped, and the connection lives on. The
 * same bound for the maps of OPEN is VFSTNW_MAX_MAP_SIZE (vfstnw_bmap.h).
 */
#define TNW_MAX_LISTING ((ox_u64)1 << 24)

/* The jobs. `args` is a tnw_evwi, and `priv` the worker's vfs_handle. All return null. */
void* tnw_async_send_msg(void* args, void* stats, void* priv);
void* tnw_sync_send_open_msg(void* args, void* stats, void* priv);
void* tnw_sync_send_denum_msg(void* args, void* stats, void* priv);
void* tnw_sync_send_cache_region_msg(void* args, void* stats, void* priv);
void* tnw_sync_send_dirty_region_msg(void* args, void* stats, void* priv);
void* tnw_sync_send_ftruncate_msg(void* args, void* stats, void* priv);

OX_END_DECLS

#endif
