/**
 * @file
 * @ingroup protocol
 * Requests about the service itself. They run on the calling thread over a connected vfs_handle,
 * which no other request may use at the same time.
 */
#ifndef VFSTNW_CLIENT_H
#define VFSTNW_CLIENT_H

#include "vfs_handle.h"

OX_BEGIN_DECLS

/** Gives 0 and the version record; 133 when the connection is broken; or the service's answer. */
int vfstnw_get_version(vfs_handle* vh, ox_get_version_t* vinfo);
/**
 * Gives 0, or the service's answer. A broken connection gives -1 with errno 5, and not 133: whoever
 * shuts down sees from the sign that the service did not answer.
 */
int vfstnw_shutdown(vfs_handle* vh);

OX_END_DECLS

#endif
