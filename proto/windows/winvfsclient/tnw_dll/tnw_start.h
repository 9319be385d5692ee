/*
 * The steps of starting and stopping a cache service. Their caller holds tnw_glock.
 */
#ifndef TNW_START_H
#define TNW_START_H

#include "tnw_instance.h"

/* tnw_fill_instance.cpp */

/*
 * Fills an allocated instance: 0, 22 or 38. After a failed step the fields of the later steps stay
 * empty. Both callers go on with them: the line of the failed step tells what is wrong, and a start
 * that needs the empty fields fails.
 */
int tnw_fill_tninstance(const tnw_tninit* tninit, tnw_tninstance* tni);
/* 0, or 1113 after a line when a text of the record that a path is made of is no text of the
 * process's code page: the system would take it for another path. */
int tnw_check_texts(const tnw_tninit* tninit);
/* Makes a folder and those above it: 0, also when it is there, or a Windows error. */
int tnw_make_folder(const char* path);
/* Composes a user's cache directory; false when it was cut. */
bool tnw_compose_cachedir(const char (&workdir)[5000], const char (&domain)[51],
                          const char (&username)[64], char (&cachedir)[5000]);
/* The name of the ready event, which is made of the socket's path. */
void tnw_ready_event_name(const tnw_tninstance* tni, char (&name)[109]);

/* tnw_device_id.cpp */

/*
 * Fills an empty device id (37 bytes) with the one in the registry, or makes one and keeps it
 * there. 0 or a Windows error.
 */
int tnw_setup_tn_device_id(const char* domain, const char* username, char* idstr);

/* tnw_check_instance.cpp */

/*
 * 0 when a new service may be started. Writes the drive application's pid file, and waits up to 75
 * s until an old service has let go of its own. Sets TNW_INIT_NO_RETRY where no retry can help.
 */
int tnw_check_instance(tnw_tninit* tninit);
/* 31 when somebody else holds the fallback event, which is then signalled to tell them; else 0. */
int tnw_tfi_fallback(const char* cachedir);

/* tnw_service_process.cpp */

/*
 * Starts the service and waits up to 60 s until it is ready: an instance that is not listed yet, or
 * null with the error.
 */
tnw_tninstance* tnw_tnstart(const tnw_tninit* tninit, int* err);
/*
 * Asks the service to shut down and removes its socket file. The process is not waited for and not
 * ended, since it may still be writing files back. Gives the result of the request.
 */
int tnw_tnstop(tnw_tninstance* tni);
/* Ends the service's process after a start that failed, and closes its handles. */
void tnw_terminate_service(vfs_handle* vh, PROCESS_INFORMATION* process);

/* tnw_answer_limit.cpp */

/*
 * How long a service may be silent while a start shakes hands with it: as long as it may take to be
 * ready. A start holds tnw_glock, and its caller cannot set a limit before there is a drive. Only
 * tests change it.
 */
extern ox_u32 tnw_start_limit_ms;

/* tnw_connections.cpp */

/* Creates the instance's pool, whose connections are not made yet. 0 or an error number. */
int tnw_create_pool(tnw_tninstance* tni, const tnw_tninit* tninit);
/* Connects the worker slots in order, up to the first failure: the result of the last connect. */
int tnw_tp_init_vfshandle(tnw_tninstance* tni, const char* sharepath, const char* drive_id);
/* Closes every connection. Always 0. */
int tnw_tp_deinit_vfshandle(tnw_tninstance* tni);

#endif
