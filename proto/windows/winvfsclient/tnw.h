/*
 * libtnw: the client library of a cloud drive.
 *
 * A drive application fills a tnw_tninit, calls tnw_init once per drive and answers each
 * file-system request with one call below. Results are Windows error codes, 0 for success.
 *
 * Threads: every file call may run on any thread at the same time, with these limits:
 *   - no call runs on a drive, or on a file of it, while tnw_deinit runs on it, nor on any drive of
 *     its service while tnw_deinit_force runs;
 *   - no other call runs on a file handle while it is closed: the handle may by then be another
 *     file's;
 *   - no open runs with a file's context slot while the last close of that file runs;
 *   - one thread at a time uses an enumeration handle.
 * Calls block until the cache service has answered; there is no time-out.
 *
 * Codes that every file call may return beside its own:
 *   1467  unknown drive handle, or an operation handle that is not open on any drive; also a broken
 *         connection to the cache service (tnw_create, tnw_findfirst, and tnw_read, tnw_write and
 *         tnw_setfilesize when they need it)
 *   1326  the service has no valid authorisation for the user: call tnw_updatetoken
 * A broken connection reads as SUCCESS from all others: tnw_delete deletes nothing and returns 0,
 * tnw_getfileinfo gives a record of zeros, tnw_canfilebedeleted false, a lock is not taken. Notice
 * it by 1467 from the next open (or by a record without a name), then deinitialise and initialise
 * the drive again.
 *
 * An answer of the service comes as the Windows code of its Unix error number; a number that has
 * none comes as it is. Handles stay the library's; all buffers and texts are the caller's and are
 * not used after the call.
 *
 * Text is NUL-terminated UTF-8 where it names something in the cloud, and a narrow string in the
 * process's code page where it names a local file. Fixed-length fields hold text that is terminated
 * when it is shorter than the field.
 */
#ifndef TNW_H
#define TNW_H

#include "ox_types.h"

OX_BEGIN_DECLS

/* What tnw_init is told. The library copies what it keeps; it may set bit 0 of tnw_flags and fill
 * an empty tnw_tn_device_id. */
typedef struct tnw_tninit {
  int tnw_flags;       /* TNW_INIT_NO_RETRY */
  int tnw_min_threads; /* worker threads that stay when idle */
  int tnw_max_threads; /* most worker threads, and connections to the service: 1 to 256 */
  ox_u64 tnw_user_id;  /* 0: unknown */
  char tnw_username[64];
  char tnw_workdir[5000];   /* root of the cache directories */
  char tnw_uds_workdir[96]; /* directory for the socket; empty: the cache directory. The socket's
                               path must stay below 108 bytes */
  char tnw_logdir[5000];    /* log files of the library and the service */
  char tnw_sharepath[1024]; /* the drive's path in the cloud */
  char tnw_binpath[5000];   /* the service program */
  char tnw_regpath[1024];   /* kept, not used */
  char tnw_api_addr[128];   /* passed to the service, as are the next ones */
  char tnw_config_addr[128];
  char tnw_workgroup_id[37]; /* may be empty */
  char tnw_da_device_id[37]; /* UUID texts */
  char tnw_da_drive_id[37];
  char tnw_tn_device_id[37]; /* empty: kept in the registry */
  char tnw_authtoken[512];
  char tnw_domain[51];        /* a host name with at least one dot */
  char tnw_proxy_server[256]; /* empty: no proxy */
  char tnw_proxy_uname[64];
  char tnw_proxy_password[512];
} tnw_tninit;
OX_STATIC_ASSERT(sizeof(tnw_tninit) == 19032, "layout of the API");
OX_STATIC_ASSERT(offsetof(tnw_tninit, tnw_min_threads) == 4, "layout of the API");
OX_STATIC_ASSERT(offsetof(tnw_tninit, tnw_max_threads) == 8, "layout of the API");
OX_STATIC_ASSERT(offsetof(tnw_tninit, tnw_user_id) == 16, "layout of the API");
OX_STATIC_ASSERT(offsetof(tnw_tninit, tnw_username) == 24, "layout of the API");
OX_STATIC_ASSERT(offsetof(tnw_tninit, tnw_workdir) == 88, "layout of the API");
OX_STATIC_ASSERT(offsetof(tnw_tninit, tnw_uds_workdir) == 5088, "layout of the API");
OX_STATIC_ASSERT(offsetof(tnw_tninit, tnw_logdir) == 5184, "layout of the API");
OX_STATIC_ASSERT(offsetof(tnw_tninit, tnw_sharepath) == 10184, "layout of the API");
OX_STATIC_ASSERT(offsetof(tnw_tninit, tnw_binpath) == 11208, "layout of the API");
OX_STATIC_ASSERT(offsetof(tnw_tninit, tnw_regpath) == 16208, "layout of the API");
OX_STATIC_ASSERT(offsetof(tnw_tninit, tnw_api_addr) == 17232, "layout of the API");
OX_STATIC_ASSERT(offsetof(tnw_tninit, tnw_config_addr) == 17360, "layout of the API");
OX_STATIC_ASSERT(offsetof(tnw_tninit, tnw_workgroup_id) == 17488, "layout of the API");
OX_STATIC_ASSERT(offsetof(tnw_tninit, tnw_da_device_id) == 17525, "layout of the API");
OX_STATIC_ASSERT(offsetof(tnw_tninit, tnw_da_drive_id) == 17562, "layout of the API");
OX_STATIC_ASSERT(offsetof(tnw_tninit, tnw_tn_device_id) == 17599, "layout of the API");
OX_STATIC_ASSERT(offsetof(tnw_tninit, tnw_authtoken) == 17636, "layout of the API");
OX_STATIC_ASSERT(offsetof(tnw_tninit, tnw_domain) == 18148, "layout of the API");
OX_STATIC_ASSERT(offsetof(tnw_tninit, tnw_proxy_server) == 18199, "layout of the API");
OX_STATIC_ASSERT(offsetof(tnw_tninit, tnw_proxy_uname) == 18455, "layout of the API");
OX_STATIC_ASSERT(offsetof(tnw_tninit, tnw_proxy_password) == 18519, "layout of the API");

enum { TNW_INIT_NO_RETRY = 0x1 };

/* The user that holds a cloud lock. */
typedef struct tnw_cfs_lock {
  ox_u64 lk_uid;
  char lk_uname[64];
} tnw_cfs_lock;

/* One file or folder. Times are Windows file times: 100 ns since 1601-01-01 UTC. */
typedef struct tnw_fileinfo {
  ox_u32 fi_attr; /* Windows file attributes; 16: folder */
  ox_u32 fi_pad;
  ox_u64 fi_ctime;
  ox_u64 fi_atime;
  ox_u64 fi_mtime;
  ox_u64 fi_size;  /* bytes */
  ox_u8 fi_locked; /* 1: locked in the cloud */
  char fi_id[37];  /* UUID text */
  char fi_collab[512];
  char fi_name[245]; /* UTF-8; a name of 245 bytes has no NUL */
  char fi_cksum[256];
  ox_u8 fi_pad2[5];
  tnw_cfs_lock fi_lockowner;
} tnw_fileinfo;

OX_STATIC_ASSERT(sizeof(tnw_cfs_lock) == 72, "wire layout");
OX_STATIC_ASSERT(offsetof(tnw_cfs_lock, lk_uname) == 8, "wire layout");
OX_STATIC_ASSERT(offsetof(tnw_fileinfo, fi_ctime) == 8, "wire layout");
OX_STATIC_ASSERT(offsetof(tnw_fileinfo, fi_atime) == 16, "wire layout");
OX_STATIC_ASSERT(offsetof(tnw_fileinfo, fi_mtime) == 24, "wire layout");
OX_STATIC_ASSERT(offsetof(tnw_fileinfo, fi_size) == 32, "wire layout");
OX_STATIC_ASSERT(offsetof(tnw_fileinfo, fi_locked) == 40, "wire layout");
OX_STATIC_ASSERT(offsetof(tnw_fileinfo, fi_id) == 41, "wire layout");
OX_STATIC_ASSERT(offsetof(tnw_fileinfo, fi_collab) == 78, "wire layout");
OX_STATIC_ASSERT(offsetof(tnw_fileinfo, fi_name) == 590, "wire layout");
OX_STATIC_ASSERT(offsetof(tnw_fileinfo, fi_cksum) == 835, "wire layout");
OX_STATIC_ASSERT(offsetof(tnw_fileinfo, fi_lockowner) == 1096, "wire layout");
OX_STATIC_ASSERT(sizeof(tnw_fileinfo) == 1168, "wire layout");

/* ------------------------------------------------------------------- drives */

/*
 * Starts the cache service of (tnw_domain, tnw_username), or joins the running one, and returns a
 * drive handle, or null. `err` (may be null) is 0, or 31 when start-up gave up, which asks the
 * caller for its classic way of working without the service. The same drive id gives the same
 * handle again. A null record gives null and 31 too.
 *
 * May take long: two starts of up to 60 s (readiness) with pauses of 5 s, each of up to 75 s
 * instead where an old service still runs. TNW_INIT_NO_RETRY gives up after the first failure.
 * Start-ups and shut-downs of one process run one at a time.
 */
void* tnw_init(tnw_tninit* tninit, int* err);

/*
 * Gives a drive handle back; the last one of a service stops the service (after 1 s) and frees all
 * that belongs to it, open files included. Contexts of files that were still open stay allocated;
 * their slots are to be dropped. Files of a drive that is not the last stay open, out of reach,
 * until the last one goes: close them before. `force` is accepted and deliberately has no effect.
 * 87 for a null or unknown handle; otherwise 0, or the shut-down request's result as it is (-1 for
 * a broken connection). The service process is not waited for.
 */
int tnw_deinit(void* drvhdl, bool force);
/* The same at once, for every drive handle of the service. 0, or 87. */
int tnw_deinit_force(void* drvhdl);

/* The text of the service instance's id, or an empty text for an unknown handle. The library's. */
const char* tnw_get_tninstance_id(void* drvhdl);

/* ------------------------------------------------------------------- open files */

/*
 * Opens or creates a file or folder and returns its handle, or null.
 *   fc          the caller's slot for the file's context, one slot per file: empty (null) at the
 *               first open, then filled by the library and shared by all opens of the file. The
 *               library frees the context with the last close and cannot empty the slot: the caller
 *               does, when its own count of opens reaches zero. A failed first open empties it.
 *   accmode     1 read, 2 and 4 write; 0 attributes only
 *   shmode      Windows share mode
 *   cdisp       native disposition: 0 supersede, 1 open, 2 create, 3 open-if, 4 overwrite,
 *               5 overwrite-if
 *   flags       native create options (0x1 folder, 0x40 file)
 *   origpid     the process that opens; in_procname its name (may be null; 32 bytes are kept)
 *   err         may be null: 0, 160 (null handle or path), 87 (cdisp above 5), 24 (no descriptor
 *               free), 8, or the service's answer
 * On success the thread's last error is 0, or 183 when a create found an existing file.
 */
void* tnw_create(void* drvhdl, void** fc, const char* path, ox_u32 accmode, ox_u32 shmode,
                 ox_u32 cdisp, ox_u32 flags, int origpid, const char* in_procname, int* err);

/*
 * The last user handle of the file went; tnw_close is still to come. Nothing is sent for a folder.
 * 0, 160 (null or closed handle), or the service's answer.
 */
int tnw_cleanup_file(void* ophdl);

/*
 * Closes the file; the handle is not to be used again. `out_procname` (32 bytes, may be null)
 * receives the opener's name. 0, 160 (null or closed handle), or the service's answer: a refused
 * close keeps the handle, whose local file is closed already, and may be repeated; so does 1326.
 */
int tnw_close(void* ophdl, char* out_procname);

/*
 * Read or write `len` bytes (cut to 32 bits) at byte offset `off`. `nbread` and `nbwritten` receive
 * the count; `out_procname` (32 bytes) the opener's name; both may be null. Any number of both may
 * run on one file. Surprises:
 *   - a read at or past the end returns 38 with the count 0; one that straddles it returns 0 and a
 *     short count;
 *   - a region that the service answers with 7 makes a read return 0 with the count untouched;
 *   - a write through a read-only open is told to the service by the next close of a writable one.
 * 0, 6 (null, closed, folder or enumeration handle), 87 (negative offset), the service's answer for
 * a region, or the Windows error of the local file, unchanged.
 */
int tnw_read(void* ophdl, void* buffer, ox_u64 len, ox_off off, ox_s64* nbread, char* out_procname);
int tnw_write(void* ophdl, void* buffer, ox_u64 len, ox_off off, ox_s64* nbwritten,
              char* out_procname);

/* ------------------------------------------------------------------- folders */

/*
 * Lists a folder: one exchange fetches all of it, tnw_findnext hands out the copy. Returns the
 * enumeration handle, or null; `out` receives the first entry. `err` (may be null): 0; 18 with a
 * handle for an empty folder (to be closed too); 160, 24, 8, or the service's answer with null.
 */
void* tnw_findfirst(void* drvhdl, const char* path, tnw_fileinfo* out, const char* in_procname,
                    int* err);
/*
 * 0 and the next entry, or 18 at the end; 160 (null argument, closed handle). Asks the service
 * nothing. `out` is cleared first once the drive is found. A handle of tnw_create has no entries.
 */
int tnw_findnext(void* dehdl, tnw_fileinfo* out);
/*
 * Ends an enumeration and frees its listing. 0, 160 (null or closed handle), or the service's
 * answer; the handle is gone unless 1326, 1467 or 160. Here 1326 goes before a drive's 1467.
 */
int tnw_findclose(void* dehdl);
/*
 * Whether the folder had no entries when tnw_findfirst listed it. 0, or 160 (null or closed handle)
 * with `is_empty` (may be null) false; left alone by other codes. Surprise: a handle of tnw_create
 * carries no listing and counts as empty.
 */
int tnw_checkfolderempty(void* dehdl, bool* is_empty);

/* ------------------------------------------------------------------- paths */

/*
 * What `path` names. `out` is written on success only. 0, 160 (a null argument), 8, or the
 * service's answer (2 when there is nothing). `in_procname` as for tnw_create.
 */
int tnw_getfileinfo(void* drvhdl, const char* path, tnw_fileinfo* out, const char* in_procname);

/*
 * Renames or moves a file or folder; both paths are of the same drive. An existing target is not
 * replaced. 0, 13 (a null argument: deliberately not 160), 8, or the service's answer: 2 (no such
 * file or target folder), 32 (in use), 80 (target exists).
 */
int tnw_rename(void* drvhdl, const char* srcpath, const char* dstpath, const char* in_procname);

/*
 * Deletes a file or an empty folder. 0, 13 (a null argument), 8, or the service's answer: 2, 5
 * (read-only), 32 (in use), 145 (folder not empty).
 */
int tnw_delete(void* drvhdl, const char* path, const char* in_procname);

/*
 * Asks whether a delete would succeed now; nothing is deleted or kept from changing. `can_delete`
 * is written on success only. 0, 13 (a null argument), 8, or the service's answer.
 */
int tnw_canfilebedeleted(void* drvhdl, const char* path, bool* can_delete);

/* ------------------------------------------------------------------- size and locks */

/*
 * Sets the end of an open file to size_high * 2^32 + size_low bytes: grows with zeros, or cuts.
 * `out_procname` (32 bytes, may be null) receives the opener's name. 0, 6 (null, closed, folder or
 * enumeration handle), the service's answer, or the Windows error of the local file, unchanged.
 *
 * Surprise: the local file has the new size even when the service refused and its code is returned;
 * only a Windows error of the local file itself leaves the size. One call at a time per file: of
 * two that run at once, which size stays is open.
 */
int tnw_setfilesize(void* ophdl, ox_u32 size_low, ox_u32 size_high, char* out_procname);

/*
 * Locks or unlocks a range of an open file for process `pid`; the service keeps the locks and
 * decides at once, a conflict is never waited for. `flags`: 0x2 exclusive, else shared; other bits
 * have no effect. Offset and length in bytes, in halves of which the HIGH ONES ARE IGNORED,
 * deliberately: offset 2^32 + 10 locks at 10. An unlock names exactly what was locked; a close
 * lifts all locks of its handle. 0, 13 (null or closed handle, or the service's answer: no such
 * lock), 32 (conflict), or another answer of the service.
 */
int tnw_lockfile(void* ophdl, ox_u32 flags, ox_u32 off_low, ox_u32 off_high, ox_u32 len_low,
                 ox_u32 len_high, int pid);
int tnw_unlockfile(void* ophdl, ox_u32 off_low, ox_u32 off_high, ox_u32 len_low, ox_u32 len_high,
                   int pid);

/* ------------------------------------------------------------------- service and cache */

/*
 * Hands a renewed access token (text, sent as it is, not kept) to the drive's service. Works while
 * other calls give 1326, and ends that when the answer to it no longer says unauthorised, even with
 * an error. 0, 160 (a null argument), 8, or the service's answer: 5 when it refuses the token.
 */
int tnw_updatetoken(void* drvhdl, char* enctoken);

/*
 * Tells the drive's service the HTTP proxy to use for the cloud. User name and password may be
 * empty. 0, 160 (a null argument or an empty proxy), 8, or the service's answer. Neither looks at
 * the authorisation nor changes it.
 */
int tnw_set_http_proxy(void* drvhdl, const char* http_proxy, const char* username,
                       const char* password);

/* Whose cache is purged: the directory workdir\domain\username. */
typedef struct tnw_purge_opt_t {
  ox_s32 po_flags; /* not examined */
  char po_workdir[5000];
  char po_domain[51];
  char po_username[64];
} tnw_purge_opt_t;
OX_STATIC_ASSERT(sizeof(tnw_purge_opt_t) == 5120, "layout of the API");
OX_STATIC_ASSERT(offsetof(tnw_purge_opt_t, po_workdir) == 4, "layout of the API");
OX_STATIC_ASSERT(offsetof(tnw_purge_opt_t, po_domain) == 5004, "layout of the API");
OX_STATIC_ASSERT(offsetof(tnw_purge_opt_t, po_username) == 5055, "layout of the API");

/*
 * Deletes a user's cache directory, changes that were not yet written back included. No drive is
 * needed; no start-up or shut-down of this process runs meanwhile. The directory is moved into the
 * temporary folder first, or deleted in place when it cannot be.
 *
 * 0: it is gone. 13: a null record, an empty field, or a domain or user name that is no plain name
 * of a folder (with \, / or :, or a dot or space at its end). 170: this process runs a service for
 * the domain and user, in whatever case they are written, and nothing was touched. 38: the path is
 * too long.
 * Otherwise the failure of the move or of the removal, as a code; that of the move is returned even
 * when the directory was then deleted in place, so look again before trying again. A service that
 * ANOTHER PROCESS runs for the user is not seen: make sure that there is none.
 */
int tnw_purge_cache(tnw_purge_opt_t* po);

OX_END_DECLS

#endif
