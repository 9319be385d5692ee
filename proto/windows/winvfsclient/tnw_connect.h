/*
 * Request exchange: allocates requests, sends each with a new id and receives its response; the
 * connect handshake; and the jobs through which the client's operations reach a connection.
 *
 * Each job runs on a pool worker over that worker's own connection (its private block). The caller
 * waits on ev_hdl. Nothing reconnects: after a failure inside an exchange the connection is broken
 * and every later request on it gives 133 at once.
 */
#ifndef TNW_CONNECT_H
#define TNW_CONNECT_H

#include "vfs_handle.h"

OX_BEGIN_DECLS

struct tnvfd;

/* One queued request. The caller owns all of it and keeps it until ev_hdl is signalled. */
typedef struct tnw_evwi {
  tnv_msg* ev_msg; /* may be null for the region jobs, as may ev_resp */
  tnv_resp* ev_resp;
  void* ev_data;    /* a tnvfd, tnw_ioreq or tnw_truncreq, by job */
  ox_handle ev_hdl; /* auto-reset event; null when it could not be made */
} tnw_evwi;

/* A region request. io_err and io_curfsz are written by the worker. */
typedef struct tnw_ioreq {
  ox_s32 io_err;
  struct tnvfd* io_fde;
  ox_u64 io_off;
  ox_u64 io_len;
  bool io_trunc;
  ox_u64 io_curfsz;   /* the file's size, when the answer carried one */
  bool io_has_curfsz; /* ... and whether it did */
} tnw_ioreq;

/* A truncate request. t_err is written by the worker. */
typedef struct tnw_truncreq {
  ox_s32 t_err;
  struct tnvfd* t_fde;
  ox_u64 t_nfsz;
} tnw_truncreq;

/* A zero-filled request of `size` bytes (504 and the trailing texts), or null; ox_free_safe. */
tnv_msg* tnw_alloc_msg(int size);

/* 0 or 133. The send makes a new hdr_id, whatever stood there. */
int tnw_send_msg(vfs_handle* vh, tnv_msg* msgp);
int tnw_recv_response(vfs_handle* vh, const tnv_msg* msgp, tnv_resp* resp);
/* Send, then receive: the first error, else 0. */
int tnw_sync_send_msg(vfs_handle* vh, tnv_msg* msg, tnv_resp* resp);

/*
 * Connects `vh` to the service at the socket file `sock` and binds it to the share and user. Runs
 * on the calling thread. 0, a Windows error, 12, 133, or the service's answer.
 */
int tnw_vfs_connect(vfs_handle* vh, const char* domain, const char* user, const char* cachedir,
                    const char* sock, const char* sharepath, const char* devid,
                    const char* drive_id);

/* The jobs. `args` is a tnw_evwi, `priv` the worker's vfs_handle. All return null. */
void* tnw_async_send_msg(void* args, void* stats, void* priv);
void* tnw_sync_send_open_msg(void* args, void* stats, void* priv);
void* tnw_sync_send_denum_msg(void* args, void* stats, void* priv);
void* tnw_sync_send_cache_region_msg(void* args, void* stats, void* priv);
void* tnw_sync_send_dirty_region_msg(void* args, void* stats, void* priv);
void* tnw_sync_send_ftruncate_msg(void* args, void* stats, void* priv);

OX_END_DECLS

#endif
