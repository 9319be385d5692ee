/*
 * Service instances (one running cache service for one domain and user) and the drive handles that
 * the drive application holds on them.
 *
 * Lock order, outermost first:
 *   1. tnw_glock                 start-up, shut-down and purge only, exclusive
 *   2. tnw_tninstances.tni_lock  the list of instances
 *   3. tnwh_lock                 one instance's list of drive handles
 * The lookups take 2 and 3 and release them before they return: a file call holds no list lock
 * while it works. So calls run side by side, and a slow one holds up no other. The lock of the
 * descriptor table, the context lock (tnw_file_context.h) and each of the two map locks of a file
 * are taken one at a time, after the lookups; a deinit takes them under tnw_glock. No other lock is
 * taken under them.
 */
#ifndef TNW_INSTANCE_H
#define TNW_INSTANCE_H

#include <windows.h>

#include "ox_lock.h"
#include "ox_tpool.h"
#include "ox_util.h"
#include "tnv_connio_win.h"
#include "tnw.h"
#include "tnw_fd.h"
#include "vfs_handle.h"

struct tnw_drive_handle;

/* Head of one instance's drive handles. tnwh_lock guards the links and the count. */
struct tnw_dhhd {
  tnw_drive_handle* tnw_dhnext;
  tnw_drive_handle* tnw_dhprev;
  /*
   * One byte, as the log lines show it. It decides when the service is stopped: it wraps after 255
   * handles, and a close that brings it to 0 stops the service under the handles that are left.
   */
  ox_u8 tnwh_cnt;
  ox_rwlock_t tnwh_lock;
};

/*
 * One cache service. It is listed when all of it is in place, and off the list before any of it
 * goes.
 *
 * The list's tni_lock guards the links. tni_files and tni_drive_handles have locks of their own.
 * tni_is_tn_unauthorized and the watch's limit are changed and read atomically. All other fields
 * stay as they are while the instance is listed, also tni_authtoken, which keeps the token of the
 * start.
 */
struct tnw_tninstance {
  tnw_tninstance* tni_next;
  tnw_tninstance* tni_prev;
  PROCESS_INFORMATION tni_pi;
  ox_u64 tni_user_id;
  char tni_id[37];
  char tni_domain[51];
  char tni_workgroup_id[37];
  char tni_subdomain[51];
  char tni_username[64];
  char tni_cachedir[5000];
  char tni_uds_workdir[96];
  char tni_sock[108];
  char tni_da_device_id[37];
  char tni_tn_device_id[37];
  char tni_binpath[5000];
  char tni_regpath[1024];
  char tni_api_addr[128];
  char tni_config_addr[128];
  char tni_authtoken[512];
  bool tni_is_tn_unauthorized; /* see tnw_is_unauthorized */
  ox_tpool_t* tni_tpool;       /* its private blocks are the connections */
  tnw_files tni_files;
  tnw_dhhd tni_drive_handles;
  tnw_watch tni_watch;    /* of its connections */
  HANDLE tni_ready_event; /* stays open until the instance is freed */
  bool tni_winsock; /* the instance has started Windows Sockets, and ends them when it is freed */
};

/* One drive on an instance. tnwh_lock guards the links; the rest is fixed once it is listed. */
struct tnw_drive_handle {
  tnw_drive_handle* tnw_dhnext;
  tnw_drive_handle* tnw_dhprev;
  tnw_tninstance* tnw_tni;
  char tnw_drive_uuid[37];
  char tnw_drive_start_path[1024];
  ox_s32 tnw_flags;
};

/* Head of the instances. tni_lock guards the links and the count. */
struct tnw_tnihd {
  tnw_tninstance* tni_next;
  tnw_tninstance* tni_prev;
  ox_u8 tni_cnt;
  ox_rwlock_t tni_lock;
};

extern tnw_tnihd tnw_tninstances;
extern ox_rwlock_t tnw_glock;

/* The instance of a caller's drive handle, or null. The handle is compared, never dereferenced. */
tnw_tninstance* tnw_get_tninstance(const void* drvhdl);
/*
 * The listed instance whose table has `fde`, which is dereferenced only when it is an entry there,
 * or null. `on_drive`: whether the drive handle of the entry is one of the instance's, too.
 * (Another instance may have got a handle at the address that the entry's own drive had.)
 */
tnw_tninstance* tnw_get_entry_instance(const tnvfd* fde, bool* on_drive);
tnw_tninstance* tnw_find_tn_instance(const char* domain, const char* username);
/*
 * Whether a listed instance would lose something with this cache directory: it serves the domain
 * and user (in any case: the file system ignores it), or its own cache directory is the same one by
 * another name ("ada" and "ada."), lies below it or holds it.
 */
bool tnw_is_cache_in_use(const char* domain, const char* username, const char* cachedir);
tnw_drive_handle* tnw_find_handle(tnw_tninstance* tni, const char* drive_id);

void tnw_add_tninstance(tnw_tnihd* head, tnw_tninstance* tni);
void tnw_remove_tninstance(tnw_tnihd* head, tnw_tninstance* tni);
void tnw_add_handle(tnw_tninstance* tni, tnw_drive_handle* dh);
void tnw_remove_handle(tnw_tninstance* tni, tnw_drive_handle* dh); /* does not free it */
/* Unlinks and frees every drive handle of the instance. */
void tnw_free_handles(tnw_tninstance* tni);

/* A zero-filled instance whose lock and list are ready, or null. Freed with tnw_free_tninstance. */
tnw_tninstance* tnw_alloc_tninstance(void);
/*
 * Frees an instance that is not listed, and what it owns: drive handles, descriptor table, event,
 * and its start-up of Windows Sockets.
 */
void tnw_free_tninstance(tnw_tninstance* tni);

/* The connection of a worker slot; slot 0 is the primary one. Null while there is no pool. */
vfs_handle* tnw_connection(tnw_tninstance* tni, ox_u32 slot);

/* The mark that the service has no valid authorisation; set and tested by parallel calls. */
bool tnw_is_unauthorized(tnw_tninstance* tni);
void tnw_set_unauthorized(tnw_tninstance* tni, bool unauthorized);

#endif
