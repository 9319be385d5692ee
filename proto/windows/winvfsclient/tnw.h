/**
 * @file
 * @ingroup tnw
 * libtnw: the client library of a cloud drive.
 *
 * A drive application fills a tnw_tninit and calls tnw_init once for each drive. Then it answers
 * every file-system request of the desktop with one of the calls below.
 *
 * @par Results
 * Every call returns a Windows error code; 0 is success. tnw_init, tnw_create and tnw_findfirst
 * return a handle instead and write the code to their last argument. Every file call may return
 * these codes beside its own:
 *
 *   - 1467 ERROR_RESTART_APPLICATION (TNW_ERROR_NO_SERVICE): the drive handle or file handle is
 *     none of ours, or the drive was given back. tnw_create, tnw_findfirst, and tnw_read, tnw_write
 *     and tnw_setfilesize also return it when they need the service and the connection to it is
 *     broken.
 *   - 1326 ERROR_LOGON_FAILURE: the service has no valid authorisation for the user. Call
 *     tnw_updatetoken.
 *
 * When the service refuses a request, the call returns the Windows code of the service's Unix error
 * number. An error number that has no Windows code is returned as it is.
 *
 * A broken connection looks like SUCCESS to all the other calls: tnw_delete deletes nothing and
 * returns 0, tnw_getfileinfo fills in a record of zeros, tnw_canfilebedeleted says false, and
 * tnw_lockfile locks nothing. The next open returns 1467, and a record without a name tells, too.
 * Deinitialise the drive then, and initialise it again.
 *
 * @par Threads
 * Every file call may run on any thread, at the same time as any other, with these limits:
 *   - While tnw_deinit runs on a drive, no call may run on that drive or on its files. While
 *     tnw_deinit_force runs, no call may run on any drive of the same service.
 *   - While a file is closed, no other call may use its handle. The handle may belong to another
 *     file directly afterwards.
 *   - While the last close of a file runs, no open may use that file's context slot.
 *   - Only one thread at a time may use an enumeration handle.
 *
 * A call returns when the service has answered, or its process has ended. There is no time-out,
 * unless tnw_set_answer_limit sets one.
 *
 * @par Memory and texts
 * Handles belong to the library. Buffers and texts belong to the caller; the library does not use
 * them after the call has returned.
 *
 * Texts end with a NUL. A text that names something in the cloud is UTF-8. A text that names a
 * local file is in the process's code page. A text in a field of fixed length has no NUL when it
 * fills the field.
 */
#ifndef TNW_H
#define TNW_H

#include "ox_types.h"

OX_BEGIN_DECLS

/**
 * @defgroup tnw_records Records and flags
 * @ingroup tnw
 * @{
 */

/**
 * What tnw_init is told. The library copies what it needs. It writes to two fields: it sets
 * TNW_INIT_NO_RETRY where no retry can help, and it fills in tnw_tn_device_id where that is empty.
 */
typedef struct tnw_tninit {
  int tnw_flags;          /**< TNW_INIT_NO_RETRY, or 0 */
  int tnw_min_threads;    /**< so many worker threads stay alive when they are idle */
  int tnw_max_threads;    /**< the most worker threads, and connections to the service: 1 to 256 */
  ox_u64 tnw_user_id;     /**< 0 when it is not known */
  char tnw_username[64];  /**< the user */
  char tnw_workdir[5000]; /**< the cache of a user is in its subfolder `domain\username`, whose path
                               is shorter than 248 characters, as is that of tnw_logdir */
  char tnw_uds_workdir[96];   /**< folder of the socket; empty: the cache directory. The path of the
                                 socket must be shorter than 108 bytes */
  char tnw_logdir[5000];      /**< folder of the log files of the library and of the service */
  char tnw_sharepath[1024];   /**< the drive's path in the cloud */
  char tnw_binpath[5000];     /**< the service program */
  char tnw_regpath[1024];     /**< not used */
  char tnw_api_addr[128];     /**< this one and the next are passed to the service */
  char tnw_config_addr[128];  /**< address of the configuration */
  char tnw_workgroup_id[37];  /**< may be empty */
  char tnw_da_device_id[37];  /**< this id and the next two are UUID texts */
  char tnw_da_drive_id[37];   /**< the drive */
  char tnw_tn_device_id[37];  /**< empty: the library keeps one in the registry */
  char tnw_authtoken[512];    /**< the access token */
  char tnw_domain[51];        /**< a host name with at least one dot */
  char tnw_proxy_server[256]; /**< empty: there is no proxy */
  char tnw_proxy_uname[64];   /**< user name for the proxy; may be empty */
  char tnw_proxy_password[512]; /**< password for the proxy; may be empty */
} tnw_tninit;
OX_STATIC_ASSERT(sizeof(tnw_tninit) == 19032, "layout of the API");

/** A flag of tnw_flags: tnw_init gives up after its first failure. */
enum { TNW_INIT_NO_RETRY = 0x1 };

/**
 * No service stands behind a handle: the handle is none of ours, or the connection to its service
 * is broken. Windows names this code ERROR_RESTART_APPLICATION.
 */
enum { TNW_ERROR_NO_SERVICE = 1467 };

/**
 * Access modes of tnw_create, which may be combined. Their values are those of the native
 * FILE_READ_DATA, FILE_WRITE_DATA and FILE_APPEND_DATA.
 */
enum {
  TNW_ACC_ATTRIBUTES = 0x0, /**< the status of the file only */
  TNW_ACC_READ = 0x1,
  TNW_ACC_WRITE = 0x2,
  TNW_ACC_APPEND = 0x4,   /**< has the effect of TNW_ACC_WRITE */
  TNW_ACC_ANY_WRITE = 0x6 /**< a mask: an open with one of these bits may write */
};

/** Dispositions of tnw_create. Their values are those of the native FILE_SUPERSEDE and so on. */
enum {
  TNW_DISP_SUPERSEDE = 0,   /**< replaces a file, or creates one */
  TNW_DISP_OPEN = 1,        /**< opens what is there */
  TNW_DISP_CREATE = 2,      /**< creates; fails where something is there */
  TNW_DISP_OPEN_IF = 3,     /**< opens what is there, or creates */
  TNW_DISP_OVERWRITE = 4,   /**< empties a file that is there */
  TNW_DISP_OVERWRITE_IF = 5 /**< empties a file that is there, or creates one */
};

/**
 * Create options of tnw_create. Their values are those of the native FILE_DIRECTORY_FILE and
 * FILE_NON_DIRECTORY_FILE.
 */
enum {
  TNW_OPT_FOLDER = 0x1, /**< opens or creates only a folder */
  TNW_OPT_FILE = 0x40   /**< opens or creates only a file */
};

/** Flags of tnw_lockfile. */
enum {
  TNW_LOCK_FAIL_AT_ONCE = 0x1, /**< has no effect, for no call ever waits for a lock */
  TNW_LOCK_EXCLUSIVE = 0x2     /**< without it the lock is shared */
};

/** The user who has locked a file in the cloud. */
typedef struct tnw_cfs_lock {
  ox_u64 lk_uid;     /**< the user's number */
  char lk_uname[64]; /**< the user's name */
} tnw_cfs_lock;

/** One file or folder. Times are Windows file times: units of 100 ns since 1601-01-01 UTC. */
typedef struct tnw_fileinfo {
  ox_u32 fi_attr;      /**< Windows file attributes; 16 (FILE_ATTRIBUTE_DIRECTORY) marks a folder */
  ox_u32 fi_pad;       /**< zero */
  ox_u64 fi_ctime;     /**< creation */
  ox_u64 fi_atime;     /**< last access */
  ox_u64 fi_mtime;     /**< last change */
  ox_u64 fi_size;      /**< bytes */
  ox_u8 fi_locked;     /**< 1 when the file is locked in the cloud */
  char fi_id[37];      /**< UUID as text */
  char fi_collab[512]; /**< of collaboration; may be empty */
  char fi_name[245];   /**< a name of 245 bytes has no NUL */
  char fi_cksum[256];  /**< checksum of the content; may be empty */
  ox_u8 fi_pad2[5];    /**< zero */
  tnw_cfs_lock fi_lockowner; /**< who has locked it, when fi_locked is 1 */
} tnw_fileinfo;

OX_STATIC_ASSERT(sizeof(tnw_cfs_lock) == 72, "wire layout");
OX_STATIC_ASSERT(sizeof(tnw_fileinfo) == 1168, "wire layout");

/** @} */

/**
 * @defgroup tnw_drives Drives
 * @ingroup tnw
 * @{
 */

/**
 * Starts the cache service of the domain and user, or joins the one that runs already, and returns
 * a drive handle, or null. The same drive id gets the same handle again.
 *
 * @param tninit  the drive's settings
 * @param err     may be null. Receives 0, or 31 ERROR_GEN_FAILURE when the start-up gave up or the
 *                record is null. The code 31 asks the drive application to work in its classic way,
 *                without the service.
 *
 * The call may take long. It tries to start the service twice, with a pause of 5 s, and waits up to
 * 60 s each time until the service is ready. Where an old service of the same user still runs, it
 * waits for that one first, up to 75 s each time. Start-ups and shut-downs of a process run one at
 * a time.
 */
void* tnw_init(tnw_tninit* tninit, int* err);

/**
 * Gives a drive handle back, which must not be used afterwards. The last handle of a service also
 * stops the service.
 *
 * @par Open files
 * Close them first. The library closes what is still open on the drive, but it does not
 * tell the service, which keeps these files open until it stops. The handles of these files must
 * not be used any more. A call on one returns 1467, until the other drives of the service have so
 * many files open that they need its place in the table. The contexts of the files are freed, so
 * make their slots null.
 *
 * @par Time
 * A handle that is not the last one is given back at once. With the last one the call first
 * sleeps for 1 s, so that requests which are under way can end. Then it asks the service to shut
 * down and waits for the answer, without a time-out. It does not wait until the process of the
 * service has ended: the service may write changes back for some time after the call. The call
 * waits while another thread is in tnw_init, tnw_deinit, tnw_deinit_force or tnw_purge_cache. A
 * handle that is null or unknown is refused without waiting.
 *
 * @par Threads
 * No other call may run on the drive or on its files. Calls on other drives may run.
 *
 * @param drvhdl  the drive
 * @param force   has no effect
 * @return 0, 87 ERROR_INVALID_PARAMETER (null or unknown handle), or the failure of the shut-down
 * request: the service's error number, which is not translated, or -1 when the connection is
 * broken. The handle is gone after such a failure, too.
 */
int tnw_deinit(void* drvhdl, bool force);

/**
 * Gives back all drive handles of the service that `drvhdl` belongs to, and stops the service. It
 * differs from tnw_deinit in three ways: it does not sleep before the shut-down, it does not return
 * the failure of the shut-down request, and calls that begin meanwhile on one of the drives are
 * refused with 1467 or 87. Calls that have begun before must have returned.
 *
 * @return 0, or 87 ERROR_INVALID_PARAMETER (null or unknown handle).
 */
int tnw_deinit_force(void* drvhdl);

/**
 * The id of the drive's service instance as text, or an empty text for an unknown handle. The text
 * belongs to the library and lives as long as the instance.
 */
const char* tnw_get_tninstance_id(void* drvhdl);

/** @} */

/**
 * @defgroup tnw_files Open files
 * @ingroup tnw
 * @{
 */

/**
 * Opens or creates a file or folder and returns its handle, or null.
 *
 * @param drvhdl       the drive
 * @param fc           the caller's slot for the file's context, one slot for each file. The slot is
 * null at the first open; the library then fills it, and all opens of the file share it. A failed
 * first open makes the slot null again. The last close frees the context, but cannot reach the
 * slot: the caller makes it null when its own count of opens reaches zero. `fc` itself may be null;
 * such an open has a context of its own.
 * @param path         the item in the drive
 * @param accmode      TNW_ACC_*
 * @param shmode       the Windows share mode, FILE_SHARE_*
 * @param cdisp        TNW_DISP_*
 * @param flags        TNW_OPT_*; other native create options are passed to the service
 * @param origpid      the id of the process that opens the file
 * @param in_procname  the name of that process; the first 32 bytes are kept; may be null
 * @param err          may be null; receives 0 or one of
 *                       - 8 ERROR_NOT_ENOUGH_MEMORY
 *                       - 24: as many files are open as there can be (the Unix number EMFILE as it
 *                         is)
 *                       - 87 ERROR_INVALID_PARAMETER: cdisp is above 5
 *                       - 160 ERROR_BAD_ARGUMENTS: the handle or the path is null
 *                       - what the service answers
 *                       - the Windows error with which the local file could not be emptied
 *
 * After a success the thread's last error is 0, or 183 ERROR_ALREADY_EXISTS when the open could
 * have created the file but found it.
 */
void* tnw_create(void* drvhdl, void** fc, const char* path, ox_u32 accmode, ox_u32 shmode,
                 ox_u32 cdisp, ox_u32 flags, int origpid, const char* in_procname, int* err);

/**
 * Tells the service that the user's last handle of the file was closed. The file handle stays open
 * until tnw_close. Nothing is sent for a folder. 0, 160 ERROR_BAD_ARGUMENTS (null or closed
 * handle), or what the service answers.
 */
int tnw_cleanup_file(void* ophdl);

/**
 * Closes a file; its handle must not be used again. `out_procname` (32 bytes, may be null) receives
 * the name of the process that opened the file.
 *
 * 0, 160 ERROR_BAD_ARGUMENTS (null or closed handle), or what the service answers. A close that the
 * service refuses, or that returns 1326 ERROR_LOGON_FAILURE, keeps the handle and may be repeated.
 * The local file is closed even then, so that reads and writes return 6 ERROR_INVALID_HANDLE.
 */
int tnw_close(void* ophdl, char* out_procname);

/**
 * Read or write `len` bytes at byte offset `off` of a file. Only the low 32 bits of `len` count.
 * `nbread` and `nbwritten` receive the number of bytes, and `out_procname` (32 bytes) the name of
 * the process that opened the file; all may be null. Any number of reads and writes may run on one
 * file at the same time.
 *
 * 0; 6 ERROR_INVALID_HANDLE (a handle that is null, closed, of a folder or of an enumeration, or
 * whose file has no local file); 87 ERROR_INVALID_PARAMETER (a negative offset); what the service
 * answers when it is asked for a region; or the Windows error of the local file as it is.
 *
 * Callers should know:
 *
 *   - A read that begins at the end of the file or behind it returns 38 ERROR_HANDLE_EOF and counts
 *     0 bytes. A read that begins before the end and reaches past it returns 0 and a smaller count.
 *   - When the service answers that there is nothing to fetch (its error number 7), a read returns
 *     0 without reading, and the count keeps the caller's value.
 *   - Memory-mapped files are written through opens that may only read. The service hears that
 *     such a write modified the file from the next close of an open that may write.
 */
int tnw_read(void* ophdl, void* buffer, ox_u64 len, ox_off off, ox_s64* nbread, char* out_procname);
/** Writes, see tnw_read. */
int tnw_write(void* ophdl, void* buffer, ox_u64 len, ox_off off, ox_s64* nbwritten,
              char* out_procname);

/** @} */

/**
 * @defgroup tnw_folders Folders
 * @ingroup tnw
 * @{
 */

/**
 * Lists a folder and returns an enumeration handle, or null. One request fetches the whole listing;
 * `out` receives its first entry, and tnw_findnext the others.
 *
 * @param drvhdl       the drive
 * @param path         the folder in the drive
 * @param out          the first entry
 * @param in_procname  as for tnw_create
 * @param err          may be null; receives 0 or one of
 *                       - 8 ERROR_NOT_ENOUGH_MEMORY
 *                       - 18 ERROR_NO_MORE_FILES: the folder is empty. The handle is valid, and
 *                         must be closed.
 *                       - 24: as many files are open as there can be (the Unix number EMFILE as it
 *                         is)
 *                       - 160 ERROR_BAD_ARGUMENTS: the handle, the path or `out` is null
 *                       - what the service answers
 */
void* tnw_findfirst(void* drvhdl, const char* path, tnw_fileinfo* out, const char* in_procname,
                    int* err);

/**
 * Gives the next entry of the listing, without asking the service. 0; 18 ERROR_NO_MORE_FILES after
 * the last entry; 160 ERROR_BAD_ARGUMENTS (a null argument or a closed handle). `out` is cleared as
 * soon as the drive is known, also when the call then fails. A handle of tnw_create has no entries.
 */
int tnw_findnext(void* dehdl, tnw_fileinfo* out);

/**
 * Ends an enumeration and frees its listing. 0, 160 ERROR_BAD_ARGUMENTS (null or closed handle), or
 * what the service answers. The handle is gone after 0 and after an answer of the service; after
 * 1326, 1467 and 160 it is not. This call looks at the authorisation before it looks at the drive.
 */
int tnw_findclose(void* dehdl);

/**
 * Tells in `is_empty` (may be null) whether the folder had no entries when tnw_findfirst listed it.
 * 0, or 160 ERROR_BAD_ARGUMENTS (null or closed handle) with `is_empty` false; other codes leave
 * `is_empty` as it was. A handle of tnw_create has no listing and counts as empty.
 */
int tnw_checkfolderempty(void* dehdl, bool* is_empty);

/** @} */

/**
 * @defgroup tnw_paths Paths
 * @ingroup tnw
 * @{
 */

/**
 * Tells what `path` names. `out` is written on success only; a null `out` asks the service and
 * drops the answer. `in_procname` is as for tnw_create. 0, 8 ERROR_NOT_ENOUGH_MEMORY, 160
 * ERROR_BAD_ARGUMENTS (the handle or the path is null), or what the service answers:
 * 2 ERROR_FILE_NOT_FOUND when there is nothing.
 */
int tnw_getfileinfo(void* drvhdl, const char* path, tnw_fileinfo* out, const char* in_procname);

/**
 * Renames or moves a file or folder within a drive. A file that has the new name is not replaced.
 * 0, 8 ERROR_NOT_ENOUGH_MEMORY, 13 ERROR_INVALID_DATA (a null argument; this call and the next two
 * do not return 160 for that), or what the service answers: 2 ERROR_FILE_NOT_FOUND (no such file,
 * or no such target folder), 32 ERROR_SHARING_VIOLATION (in use), 80 ERROR_FILE_EXISTS.
 */
int tnw_rename(void* drvhdl, const char* srcpath, const char* dstpath, const char* in_procname);

/**
 * Deletes a file or an empty folder. 0, 8 ERROR_NOT_ENOUGH_MEMORY, 13 ERROR_INVALID_DATA (a null
 * argument), or what the service answers: 2 ERROR_FILE_NOT_FOUND, 5 ERROR_ACCESS_DENIED
 * (read-only), 32 ERROR_SHARING_VIOLATION (in use), 145 ERROR_DIR_NOT_EMPTY.
 */
int tnw_delete(void* drvhdl, const char* path, const char* in_procname);

/**
 * Asks whether a delete would succeed now. Nothing is deleted, and nothing keeps the answer true.
 * `can_delete` is written on success only; a null `can_delete` asks the service and drops the
 * answer. 0, 8 ERROR_NOT_ENOUGH_MEMORY, 13 ERROR_INVALID_DATA (the handle or the path is null), or
 * what the service answers.
 */
int tnw_canfilebedeleted(void* drvhdl, const char* path, bool* can_delete);

/** @} */

/**
 * @defgroup tnw_ranges Size and locks
 * @ingroup tnw
 * @{
 */

/**
 * Sets the size of an open file to size_high * 2^32 + size_low bytes. A longer file grows by zeros.
 * `out_procname` (32 bytes, may be null) receives the name of the process that opened the file.
 *
 * 0; 6 ERROR_INVALID_HANDLE (as for tnw_read); what the service answers; or the Windows error of
 * the local file as it is. When the service refuses, its code is returned and the local file has
 * the new size all the same; only a Windows error of the local file leaves the old size. Only one
 * call at a time should run on a file: of two that run at once, either size may remain. Both the
 * service and this call set the size, so what others write past it meanwhile may be cut off.
 */
int tnw_setfilesize(void* ophdl, ox_u32 size_low, ox_u32 size_high, char* out_procname);

/**
 * Lock or unlock a range of an open file for the process `pid`. The service keeps the locks and
 * decides at once; no call waits for a lock that is in its way. `flags` takes TNW_LOCK_*; other
 * bits have no effect.
 *
 * Offset and length are in bytes. THE HIGH HALVES ARE NOT USED: a lock at offset 2^32 + 10 is set
 * at offset 10. An unlock must name the same range as the lock. A close removes all locks of its
 * handle.
 *
 * 0; 13 ERROR_INVALID_DATA (null or closed handle; also the service's answer when there is no such
 * lock); 32 ERROR_SHARING_VIOLATION (another lock is in the way); or another answer of the service.
 */
int tnw_lockfile(void* ophdl, ox_u32 flags, ox_u32 off_low, ox_u32 off_high, ox_u32 len_low,
                 ox_u32 len_high, int pid);
/** Unlocks a range, see tnw_lockfile. */
int tnw_unlockfile(void* ophdl, ox_u32 off_low, ox_u32 off_high, ox_u32 len_low, ox_u32 len_high,
                   int pid);

/** @} */

/**
 * @defgroup tnw_service Service and cache
 * @ingroup tnw
 * @{
 */

/**
 * Hands a renewed access token to the drive's service. The token is sent as it is, and not kept.
 * The call works while others return 1326 ERROR_LOGON_FAILURE. It ends that state when the
 * service's answer to it no longer says "unauthorised", even when the answer is an error. 0, 8
 * ERROR_NOT_ENOUGH_MEMORY, 160 ERROR_BAD_ARGUMENTS (a null argument), or what the service answers:
 * 5 ERROR_ACCESS_DENIED when it refuses the token.
 */
int tnw_updatetoken(void* drvhdl, char* enctoken);

/**
 * Tells the drive's service which HTTP proxy to use for the cloud. The user name and the password
 * may be empty. 0, 8 ERROR_NOT_ENOUGH_MEMORY, 160 ERROR_BAD_ARGUMENTS (a null argument or an empty
 * proxy), or what the service answers. The call works without authorisation, too.
 */
int tnw_set_http_proxy(void* drvhdl, const char* http_proxy, const char* username,
                       const char* password);

/**
 * Sets how long the drive's service may be silent, in milliseconds; 0, as it is from the start: for
 * ever. When a call waits for an answer, and nothing has come or gone for so long, its connection
 * is broken, as if the service had hung up: see "A broken connection" above. The limit holds for
 * all drives of the same service, also for calls that wait already (from their next second on), and
 * for the shut-down that tnw_deinit asks for. Any thread may call, at any time.
 *
 * A slow answer is not a hang: a read waits for a transfer from the cloud, and a close for an
 * upload. A limit below a minute breaks connections that are sound. 0, 160 ERROR_BAD_ARGUMENTS
 * (null), or 1467 TNW_ERROR_NO_SERVICE (none of our drives).
 */
int tnw_set_answer_limit(void* drvhdl, ox_u32 milliseconds);

/**
 * Names the cache directory that tnw_purge_cache deletes: `po_workdir\po_domain\po_username`. The
 * names may be all that tnw_init takes, also `CORP\ada` or a name with a dot at its end.
 */
typedef struct tnw_purge_opt_t {
  ox_s32 po_flags;       /**< not used */
  char po_workdir[5000]; /**< as tnw_workdir of tnw_tninit */
  char po_domain[51];    /**< as tnw_domain */
  char po_username[64];  /**< as tnw_username */
} tnw_purge_opt_t;
OX_STATIC_ASSERT(sizeof(tnw_purge_opt_t) == 5120, "layout of the API");

/**
 * Deletes a user's cache directory for good, with the changes in it that were not yet written back.
 * The call needs no drive. It moves the directory into the temporary folder and deletes it there.
 * Where the move is not possible, it deletes the directory in place.
 *
 * It deletes nothing while a service has the cache: 170 ERROR_BUSY. That is also a service of
 * another process, and one that still writes back after tnw_deinit. Only a service that another
 * process starts in the very moment of the call is not seen.
 *
 * The record stays the caller's; it is not changed. Any thread may call, also while files of other
 * users' drives are in use. The call may take long, as it deletes every file on the calling thread.
 * No service is started or stopped meanwhile: tnw_init, tnw_deinit and tnw_deinit_force wait until
 * it returns, and it waits for them.
 *
 * @return a Windows code:
 *   - 0: the directory is gone
 *   - 2 ERROR_FILE_NOT_FOUND: there is no such directory
 *   - 13 ERROR_INVALID_DATA: the record is null, a field is empty, or a name has a colon or does
 *     not lead down from the work directory (`..`, `a\..\..`)
 *   - 170 ERROR_BUSY: a service of this process uses the directory, a part of it or a folder that
 *     holds it, or serves the domain and user in any case of the letters; or a service of any
 *     process has it. Nothing was touched.
 *   - 38: the path is too long
 *   - other codes: the move or the removal failed. The code of the move is returned even when the
 *     directory was then deleted in place, so look whether it is there before you try again.
 */
int tnw_purge_cache(tnw_purge_opt_t* po);

/** @} */

OX_END_DECLS

#endif
