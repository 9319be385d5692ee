/*
 * The steps of starting and stopping a cache service. All run under tnw_glock.
 */
#ifndef TNW_START_H
#define TNW_START_H

#include "tnw_instance.h"

/* tnw_fill_instance.cpp */

/* Fills an allocated instance: 0, 22 or 38. After a failed step the later fields stay empty, and
 * both callers deliberately go on with them. */
int tnw_fill_tninstance(const tnw_tninit* tninit, tnw_tninstance* tni);
/* A user's cache directory; false when it was cut. */
bool tnw_compose_cachedir(const char (&workdir)[5000], const char (&domain)[51],
                          const char (&username)[64], char (&cachedir)[5000]);
/* The name of the ready event of a socket path. */
void tnw_ready_event_name(const tnw_tninstance* tni, char (&name)[109]);

/* tnw_device_id.cpp */

/* Fills an empty device id from the registry, or makes one and keeps it there. 0 or a Windows
 * error. `idstr` holds 37 bytes. */
int tnw_setup_tn_device_id(const char* domain, const char* username, char* idstr);

/* tnw_check_instance.cpp */

/* 0 when a new service may be started. Writes the drive application's pid file; waits up to 75 s
 * for an old service to let go of its own. May set TNW_INIT_NO_RETRY. */
int tnw_check_instance(tnw_tninit* tninit);
/* 31 when another party holds the fallback event, which is signalled then; else 0. */
int tnw_tfi_fallback(const char* cachedir);

/* tnw_service_process.cpp */

/* Starts the service and waits up to 60 s until it is ready: an unlisted instance, or null. */
tnw_tninstance* tnw_tnstart(const tnw_tninit* tninit, int* err);
/* Asks the service to shut down and removes its socket file; neither waits for the process nor
 * ends it. The shut-down request's result. */
int tnw_tnstop(tnw_tninstance* tni);
/* Ends the service's process, that of a start that failed, and closes its handles. */
void tnw_terminate_service(vfs_handle* vh, PROCESS_INFORMATION* process);

/* tnw_connections.cpp */

/* Creates the instance's pool and marks every connection as not made. 0 or an error number. */
int tnw_create_pool(tnw_tninstance* tni, const tnw_tninit* tninit);
/* Connects every worker slot, in order, up to the first failure: the last connect's result. */
int tnw_tp_init_vfshandle(tnw_tninstance* tni, const char* sharepath, const char* drive_id);
/* Closes every connection. 0. */
int tnw_tp_deinit_vfshandle(tnw_tninstance* tni);

#endif
