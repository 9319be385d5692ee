/*
 * Requests about the service itself, sent on the calling thread over a connected vfs_handle. No
 * other request may be under way on it.
 */
#ifndef VFSTNW_CLIENT_H
#define VFSTNW_CLIENT_H

#include "vfs_handle.h"

OX_BEGIN_DECLS

/* 0 and the service's version record; 133 for a broken connection; or the service's answer. */
int vfstnw_get_version(vfs_handle* vh, ox_get_version_t* vinfo);
/* 0; -1 with errno 5 for a broken connection (deliberately unlike the above); or the answer. */
int vfstnw_shutdown(vfs_handle* vh);

OX_END_DECLS

#endif
