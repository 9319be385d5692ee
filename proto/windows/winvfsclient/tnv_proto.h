/**
 * @file
 * @ingroup protocol
 * The records that cross the socket between the library and the cache service.
 *
 * Each exchange is one request (tnv_msg) and one response (tnv_resp) on a local stream socket.
 * Integers are little-endian. A flag is one byte, 0 or 1; of a flag that the service sends, only
 * the lowest bit is looked at. Padding is zero. There is no magic number and no version field. A
 * text that fills its field has no NUL, so every read of a text is bounded by the size of its
 * field.
 *
 * The length of a request (hdr_len) counts its header, and the length of a response (rhdr_len) does
 * not. Trailing texts begin at byte 504, and each has its NUL. The length fields of CONNECT, OPEN,
 * DENUM and STAT count the NUL; those of CANDELETE, DELETE, RENAME, SETPROXY and UPDATETOKEN do
 * not.
 *
 * The offset of every field is asserted in tnv_layout.cpp.
 */
#ifndef TNV_PROTO_H
#define TNV_PROTO_H

#include "ox_types.h"
#include "tnw.h"

OX_BEGIN_DECLS

/**
 * @defgroup protocol_parts Operations, flags and parts of records
 * @ingroup protocol
 * @{
 */

/** An identifier. */
typedef struct cfs_id {
  ox_u8 id[16]; /**< binary UUID, Windows layout */
} cfs_id_t;
typedef cfs_id_t tnv_msgid_t; /**< the identifier of a request */

/** A time on the wire and in files. */
typedef struct ox_timespec {
  ox_s64 tv_sec;  /**< since 1970-01-01 UTC */
  ox_s32 tv_nsec; /**< nanoseconds within the second */
  ox_s32 tv_pad;  /**< zero */
} ox_timespec_t;

/** The operations: hdr_opcode. */
typedef enum vfs_op {
  TNV_OP_WIN_CONNECT = 0,
  TNV_OP_WIN_DISCONNECT = 1, /**< never sent by the library */
  TNV_OP_WIN_OPEN = 2,       /**< answered 0 or 183: the two region maps follow the response */
  TNV_OP_WIN_DENUM = 3,      /**< answered 0: wde_fi_len tnw_fileinfo records follow */
  TNV_OP_WIN_STAT = 4,
  TNV_OP_WIN_CLOSE = 5,
  TNV_OP_WIN_RENAME = 6,
  TNV_OP_WIN_CANDELETE = 7,
  TNV_OP_WIN_DELETE = 8,
  TNV_OP_WIN_BRL = 9,
  TNV_OP_WIN_CLEANUP = 10,
  TNV_OP_WIN_SETPROXY = 11,
  TNV_OP_CACHE_REGION = 12,
  TNV_OP_DIRTY_REGION = 13,
  TNV_OP_FTRUNCATE = 14,
  TNV_OP_UPDATETOKEN = 15,
  TNV_OP_GET_VERSION = 16,
  TNV_OP_SHUTDOWN = 17,
  TNV_OP_MAX = 18
} vfs_op;

/** Lock kinds in wbrl_type. */
typedef enum tn_smblk_type {
  TN_SMBLK_LEASE = 1, /**< not sent by the library, nor are 5 and 6 */
  TN_SMBLK_SH_BRL = 2,
  TN_SMBLK_EX_BRL = 3,
  TN_SMBLK_UNLOCK_BRL = 4,
  TN_SMBLK_SHMODE = 5,
  TN_SMBLK_INVALID = 6
} tn_smblk_type;

/** Service flags of an open file: wopen_resp_tnflags, fdt_tnflags, wclose_tnflags. */
enum {
  TNV_FL_NEWER = 0x2,   /**< the cached file is newer than the cloud's */
  TNV_FL_MAPPED = 0x4,  /**< the file has region maps */
  TNV_FL_MODIFIED = 0x8 /**< set by the library: the file was modified through this open */
};

/**
 * OPEN may answer with this Windows code (ERROR_ALREADY_EXISTS) in the place of an error number. It
 * means success: the open could have created the file, and found it.
 */
enum { TNV_OPEN_EXISTED = 183 };

/**
 * What CACHE_REGION may answer instead of an error: the service has nothing to fetch for the range,
 * and: it will not cache the range.
 */
enum { TNV_NOTHING_TO_FETCH = 7, TNV_WILL_NOT_CACHE = 25 };

/** What the service knows a file or folder by. The library keeps it and sends it back unchanged. */
typedef struct tnvfso {
  cfs_id_t fso_handle;   /**< the item's id */
  cfs_id_t fso_phandle;  /**< the parent folder's id */
  cfs_id_t fso_version;  /**< the version of its content */
  cfs_id_t fso_pversion; /**< the version of the parent folder */
  ox_u32 fso_isdir;      /**< 1 for a folder */
  ox_u32 fso_state;      /**< not used by the library */
  ox_u32 fso_pstate;     /**< not used by the library */
  ox_u32 fso_pad;        /**< zero */
  ox_u64 fso_seqno;      /**< for the service only */
} tnvfso;
OX_STATIC_ASSERT(sizeof(tnvfso) == 88, "wire layout");

/** A file's status. */
typedef struct ox_statx_t {
  ox_u32 st_dev;   /**< like this field, most of the record is for traces; the library uses the size
                      alone */
  ox_u32 st_pad;   /**< zero */
  ox_u64 st_ino;   /**< a number of the item */
  ox_u32 st_nlink; /**< names of the item */
  ox_u16 st_mode;  /**< POSIX type and permissions */
  ox_u16 st_pad2;  /**< zero */
  ox_u64 st_size;  /**< bytes */
  ox_timespec_t st_atim; /**< last access */
  ox_timespec_t st_mtim; /**< last change of the content */
  ox_timespec_t st_ctim; /**< last change of the status */
  ox_timespec_t st_btim; /**< creation */
  ox_u32 st_blksize;     /**< bytes that are best read at once */
  ox_u32 st_uid;         /**< owner */
  ox_u32 st_gid;         /**< owner's group */
  ox_u32 st_gpad;        /**< zero */
  ox_u64 st_blocks;      /**< units of 512 bytes */
  ox_u32 st_rdev;        /**< zero */
  ox_u32 st_rpad;        /**< zero */
} ox_statx_t;
OX_STATIC_ASSERT(sizeof(ox_statx_t) == 128, "wire layout");

/** The service's start arguments. */
typedef struct ox_tn_args_t {
  char sa_addr[32];    /**< address of the cloud */
  char sa_user[32];    /**< user */
  char sa_cfs[64];     /**< cache directory */
  char sa_logfile[64]; /**< log file */
  ox_s32 sa_cfver;     /**< always 0 from the reference service */
  ox_s32 sa_recovery;  /**< files that the start brought back */
  ox_s32 sa_vfs;       /**< 1: drives are served */
  ox_s32 sa_smb;       /**< always 0 from the reference service */
  ox_s32 sa_pauseinit; /**< always 0 from the reference service */
} ox_tn_args_t;
OX_STATIC_ASSERT(sizeof(ox_tn_args_t) == 212, "wire layout");

/** What the service says of itself. All texts are bounded and NUL-padded. */
typedef struct ox_get_version_t {
  char gv_version[16];      /**< version of the service */
  char gv_git_hash[41];     /**< the commit that it was built from */
  char gv_host[32];         /**< the computer it runs on */
  char gv_mode[16];         /**< kind of service */
  char gv_state[16];        /**< "running", or how it is on its way */
  char gv_status[16];       /**< "ok", or what is wrong */
  char gv_build_date[32];   /**< when it was built */
  char gv_build_host[32];   /**< the computer it was built on */
  char gv_build_os[16];     /**< the system it was built on */
  char gv_build_user[16];   /**< who built it */
  char gv_build_type[8];    /**< build type */
  char gv_device_id[37];    /**< the service's device */
  char gv_da_device_id[37]; /**< the drive application's device */
  ox_u8 gv_vfs_enabled;     /**< 1: drives are served */
  ox_u8 gv_rest_enabled;    /**< as the service tells it; for traces */
  ox_u8 gv_authorized;      /**< 1: the cloud accepts the user's token */
  ox_u8 gv_red_connected;   /**< as the service tells it; for traces */
  ox_u8 gv_pad;             /**< zero */
  ox_s32 gv_process_id;     /**< the service's process */
  ox_tn_args_t gv_tn_args;  /**< what it was started with */
} ox_get_version_t;
OX_STATIC_ASSERT(sizeof(ox_get_version_t) == 536, "wire layout");

/** @} */

/**
 * @defgroup protocol_requests Requests
 * @ingroup protocol
 * @{
 */

/** Header of every request. */
typedef struct tnv_msghdr {
  ox_u32 hdr_opcode;     /**< vfs_op */
  ox_u32 hdr_len;        /**< bytes of the whole request: 504 and the trailing texts */
  tnv_msgid_t hdr_id;    /**< new for every request, made when it is sent */
  cfs_id_t hdr_drvid;    /**< drive id, or zero */
  char hdr_procname[32]; /**< the process on whose behalf, or zero */
} tnv_msghdr;
OX_STATIC_ASSERT(sizeof(tnv_msghdr) == 72, "wire layout");

/** CONNECT; the share path trails. */
typedef struct tnv_wconn_msg {
  ox_s32 wconmsg_share_path_len; /**< with the NUL */
  ox_u32 wconmsg_pid;            /**< the id of the connecting THREAD, in spite of the name */
  char wconmsg_devid[37];        /**< the drive application's device, a UUID text */
  char wconmsg_rhost[128];       /**< the client's computer */
  char wconmsg_cache_dir[128];   /**< the cache directory */
  char wconmsg_user[128];        /**< the user */
  ox_u8 wconmsg_pad[3];          /**< zero */
} tnv_wconn_msg;
OX_STATIC_ASSERT(sizeof(tnv_wconn_msg) == 432, "wire layout");

/** OPEN; the path trails. */
typedef struct tnv_wopen_msg {
  ox_s32 wopen_newfd;    /**< the descriptor reserved for this open */
  ox_s32 wopen_pathlen;  /**< with the NUL */
  ox_s32 wopen_origpid;  /**< the process on whose behalf */
  ox_u32 wopen_shmode;   /**< the Windows share mode */
  ox_u32 wopen_accmode;  /**< TNW_ACC_* */
  ox_u32 wopen_cdisp;    /**< a CreateFile disposition */
  ox_u32 wopen_flags;    /**< TNW_OPT_* and other create options */
  ox_u32 wopen_clientid; /**< the process that hosts the library */
} tnv_wopen_msg;
OX_STATIC_ASSERT(sizeof(tnv_wopen_msg) == 32, "wire layout");

/** DENUM; the path trails. */
typedef struct tnv_wdenum_msg {
  ox_s32 wde_pathlen; /**< with the NUL */
} tnv_wdenum_msg;
OX_STATIC_ASSERT(sizeof(tnv_wdenum_msg) == 4, "wire layout");

/** STAT; the path trails. */
typedef struct tnv_wstat_msg {
  ox_s32 wstat_path_len; /**< with the NUL */
} tnv_wstat_msg;
OX_STATIC_ASSERT(sizeof(tnv_wstat_msg) == 4, "wire layout");

/** CANDELETE; the path trails. */
typedef struct tnv_wcandelete_msg {
  ox_s32 wcandelete_msg_plen; /**< without the NUL */
} tnv_wcandelete_msg;
OX_STATIC_ASSERT(sizeof(tnv_wcandelete_msg) == 4, "wire layout");

/** DELETE; the path trails. */
typedef struct tnv_wdelete_msg {
  ox_s32 wdelete_msg_plen; /**< without the NUL */
} tnv_wdelete_msg;
OX_STATIC_ASSERT(sizeof(tnv_wdelete_msg) == 4, "wire layout");

/** RENAME; source and target trail. */
typedef struct tnv_wrename_msg {
  ox_s32 wrename_msg_slen; /**< without the NUL */
  ox_s32 wrename_msg_dlen; /**< without the NUL */
} tnv_wrename_msg;
OX_STATIC_ASSERT(sizeof(tnv_wrename_msg) == 8, "wire layout");

/** SETPROXY; server, user name and password trail. */
typedef struct tnv_wsetproxy_msg {
  ox_s32 wproxy_server_len; /**< each without the NUL */
  ox_s32 wproxy_uname_len;  /**< of the user name */
  ox_s32 wproxy_passwd_len; /**< of the password */
} tnv_wsetproxy_msg;
OX_STATIC_ASSERT(sizeof(tnv_wsetproxy_msg) == 12, "wire layout");

/** UPDATETOKEN; the token trails. */
typedef struct tnv_updatetoken_msg {
  ox_s32 ut_len; /**< without the NUL */
} tnv_updatetoken_msg;
OX_STATIC_ASSERT(sizeof(tnv_updatetoken_msg) == 4, "wire layout");

/** CLOSE. */
typedef struct tnv_wclose_msg {
  ox_s32 wclose_fd;          /**< client descriptor */
  ox_s32 wclose_origpid;     /**< the process that opened it */
  cfs_id_t wclose_id;        /**< the file's id */
  tnvfso wclose_fso;         /**< what OPEN answered */
  ox_u32 wclose_oamode;      /**< access mode of the open */
  ox_u32 wclose_oshmode;     /**< share mode of the open */
  ox_u32 wclose_oflags;      /**< create options of the open */
  ox_u32 wclose_tnflags;     /**< TNV_FL_*, widened from 16 bits */
  tnv_msgid_t wclose_omsgid; /**< id of the request that opened it */
} tnv_wclose_msg;
OX_STATIC_ASSERT(sizeof(tnv_wclose_msg) == 144, "wire layout");

/** CLEANUP: the record of CLOSE, except that wcl_id stays zero; the service finds the file by
 * wcl_omsgid. */
typedef struct tnv_wcleanup_msg {
  ox_s32 wcl_fd;          /**< client descriptor */
  ox_s32 wcl_origpid;     /**< the process that opened it */
  cfs_id_t wcl_id;        /**< zero */
  tnvfso wcl_fso;         /**< what OPEN answered */
  ox_u32 wcl_oamode;      /**< access mode of the open */
  ox_u32 wcl_oshmode;     /**< share mode of the open */
  ox_u32 wcl_oflags;      /**< create options of the open */
  ox_u32 wcl_tnflags;     /**< TNV_FL_*, widened from 16 bits */
  tnv_msgid_t wcl_omsgid; /**< id of the request that opened it */
} tnv_wcleanup_msg;
OX_STATIC_ASSERT(sizeof(tnv_wcleanup_msg) == 144, "wire layout");

/** BRL: byte-range lock. */
typedef struct tnv_wbrl_msg {
  ox_s32 wbrl_type;  /**< tn_smblk_type */
  ox_s32 wbrl_pid;   /**< the process that locks */
  ox_s32 wbrl_fd;    /**< client descriptor */
  ox_s32 wbrl_pad;   /**< zero */
  ox_u64 wbrl_off;   /**< first byte */
  ox_u64 wbrl_len;   /**< bytes */
  tnvfso wbrl_fso;   /**< what OPEN answered */
  cfs_id_t wbrl_gid; /**< the file's id */
} tnv_wbrl_msg;
OX_STATIC_ASSERT(sizeof(tnv_wbrl_msg) == 136, "wire layout");

/** CACHE_REGION: fetch a range into the cache file. */
typedef struct tnv_cache_region_msg {
  ox_u8 cache_read_trunc;        /**< 1: the range is asked for by a truncation */
  ox_u8 cache_read_pad[7];       /**< zero */
  ox_u64 cache_read_off;         /**< first byte */
  ox_u64 cache_read_len;         /**< bytes */
  tnv_msgid_t cache_read_omsgid; /**< id of the request that opened the file */
  tnvfso cache_read_fso;         /**< what OPEN answered */
} tnv_cache_region_msg;
OX_STATIC_ASSERT(sizeof(tnv_cache_region_msg) == 128, "wire layout");

/** DIRTY_REGION: a range is about to be written. */
typedef struct tnv_dirty_region_msg {
  ox_u64 cache_write_off;         /**< first byte */
  ox_u64 cache_write_len;         /**< bytes */
  tnv_msgid_t cache_write_omsgid; /**< id of the request that opened the file */
  tnvfso cache_write_fso;         /**< what OPEN answered */
} tnv_dirty_region_msg;
OX_STATIC_ASSERT(sizeof(tnv_dirty_region_msg) == 120, "wire layout");

/** FTRUNCATE: the file gets a new size. */
typedef struct tnv_ftruncate_msg {
  ox_u64 cache_trunc_nfsz;        /**< the new size in bytes */
  tnv_msgid_t cache_trunc_omsgid; /**< id of the request that opened the file */
  tnvfso cache_trunc_fso;         /**< what OPEN answered */
} tnv_ftruncate_msg;
OX_STATIC_ASSERT(sizeof(tnv_ftruncate_msg) == 112, "wire layout");

/** A request without its trailing texts: 504 bytes, of which the union takes 432. */
typedef struct tnv_msg {
  tnv_msghdr hdr; /**< the header */
  /** What each operation asks for. */
  union {
    ox_u8 bytes[432];
    tnv_wconn_msg wconn;
    tnv_wopen_msg wopen;
    tnv_wdenum_msg wdenum;
    tnv_wstat_msg wstat;
    tnv_wclose_msg wclose;
    tnv_wrename_msg wrename;
    tnv_wcandelete_msg wcandelete;
    tnv_wdelete_msg wdelete;
    tnv_wbrl_msg wbrl;
    tnv_wcleanup_msg wcleanup;
    tnv_wsetproxy_msg wsetproxy;
    tnv_cache_region_msg cache_region;
    tnv_dirty_region_msg dirty_region;
    tnv_ftruncate_msg ftruncate;
    tnv_updatetoken_msg updatetoken;
  } u;
} tnv_msg;
OX_STATIC_ASSERT(sizeof(tnv_msg) == 504, "wire layout");

/** The trailing texts begin at this byte. It is also the length of a request that has none. */
enum { TNV_MSG_FIXED = 504 };
static inline char* tnv_msg_payload(tnv_msg* msg) { return (char*)msg + TNV_MSG_FIXED; }

/** @} */

/**
 * @defgroup protocol_responses Responses
 * @ingroup protocol
 * @{
 */

/** Header of every response. */
typedef struct tnv_resphdr {
  tnv_msgid_t rhdr_id;   /**< the request's id; nobody compares it, for responses match by order */
  ox_u64 rhdr_utxid;     /**< the service's transaction id, for traces; 0: none */
  ox_u32 rhdr_opcode;    /**< the request's vfs_op */
  ox_u32 rhdr_len;       /**< payload bytes that follow these 48; at most 1168 */
  ox_u32 rhdr_errno;     /**< 0, a Unix error number, or for OPEN 183 */
  ox_s32 rhdr_fd2xfer;   /**< unused; the receiver writes -1 */
  ox_u8 rhdr_tn_unauthd; /**< 1: no valid authorisation for the user */
  ox_u8 rhdr_pad[7];     /**< zero */
} tnv_resphdr;
OX_STATIC_ASSERT(sizeof(tnv_resphdr) == 48, "wire layout");

/** CONNECT. */
typedef struct tnv_conn_resp {
  ox_u64 conresp_shandle;   /**< the service's handle of the connection */
  ox_u64 conresp_stid;      /**< the service's thread */
  ox_statx_t connresp_stat; /**< the share's status */
  cfs_id_t connresp_sfid;   /**< the share's id */
} tnv_conn_resp;
OX_STATIC_ASSERT(sizeof(tnv_conn_resp) == 160, "wire layout");

/**
 * OPEN. Two maps of wopen_resp_rmap_size bytes each follow the response; wopen_resp_dmap_size is
 * recorded and not used. The region shift counts only when maps follow. Maps with a shift that
 * cannot be break the connection, since nobody could say which bytes they mean: the open then ends
 * like one whose service is gone (1467).
 */
typedef struct tnv_wopen_resp {
  ox_s32 wopen_resp_region_shift; /**< log2 of the region size: 0 to 62 */
  ox_s32 wopen_resp_spad;         /**< zero */
  ox_u64 wopen_resp_rmap_size;    /**< bytes of each map; 0: the file has none */
  ox_u64 wopen_resp_dmap_size;    /**< not used */
  ox_u32 wopen_resp_tnflags;      /**< TNV_FL_* */
  ox_u32 wopen_resp_pad;          /**< zero */
  tnvfso wopen_resp_fso;          /**< sent back by later requests */
  ox_u64 wopen_resp_handle;       /**< a file handle of the client's process; 0 and -1: none */
  ox_statx_t wopen_resp_stat;     /**< the file's status */
} tnv_wopen_resp;
OX_STATIC_ASSERT(sizeof(tnv_wopen_resp) == 256, "wire layout");

/** DENUM. */
typedef struct tnv_wdenum_resp {
  tnvfso wde_fso;    /**< the folder */
  ox_u64 wde_fi_len; /**< records that follow the response */
} tnv_wdenum_resp;
OX_STATIC_ASSERT(sizeof(tnv_wdenum_resp) == 96, "wire layout");

/** STAT. */
typedef struct tnv_wstat_resp {
  tnw_fileinfo wstat_fi; /**< the item */
} tnv_wstat_resp;
OX_STATIC_ASSERT(sizeof(tnv_wstat_resp) == 1168, "wire layout");

/** CANDELETE. */
typedef struct tnv_wcandel_resp {
  ox_u8 wcandel_check; /**< 1: may be deleted */
} tnv_wcandel_resp;
OX_STATIC_ASSERT(sizeof(tnv_wcandel_resp) == 1, "wire layout");

/** CACHE_REGION. */
typedef struct tnv_cache_region_resp {
  ox_u64 cr_soff;  /**< start of what was fetched */
  ox_u64 cr_sz;    /**< bytes now cached from the requested offset on */
  ox_u64 cr_fsz;   /**< the file's size */
  ox_u8 cr_clear;  /**< 1: the file is empty, drop the maps */
  ox_u8 cr_pad[7]; /**< zero */
} tnv_cache_region_resp;
OX_STATIC_ASSERT(sizeof(tnv_cache_region_resp) == 32, "wire layout");

/** DIRTY_REGION. */
typedef struct tnv_dirty_region_resp {
  ox_u8 dr_clear; /**< 1: the file is empty, drop the maps */
} tnv_dirty_region_resp;
OX_STATIC_ASSERT(sizeof(tnv_dirty_region_resp) == 1, "wire layout");

/** UPDATETOKEN. */
typedef struct tnv_updatetoken_resp {
  ox_u8 wut_success; /**< 1: the token is accepted */
} tnv_updatetoken_resp;
OX_STATIC_ASSERT(sizeof(tnv_updatetoken_resp) == 1, "wire layout");

/** GET_VERSION. */
typedef struct tnv_get_version_resp {
  ox_get_version_t ver_fields; /**< the record */
} tnv_get_version_resp;
OX_STATIC_ASSERT(sizeof(tnv_get_version_resp) == 536, "wire layout");

/** A response: a header of 48 bytes, then rhdr_len bytes of the union. */
typedef struct tnv_resp {
  tnv_resphdr rhdr; /**< the header */
  /** What each operation answers. */
  union {
    ox_u8 bytes[1168];
    tnv_conn_resp conn;
    tnv_wopen_resp wopen;
    tnv_wdenum_resp wdenum;
    tnv_wstat_resp wstat;
    tnv_wcandel_resp wcandel;
    tnv_cache_region_resp cache_region;
    tnv_dirty_region_resp dirty_region;
    tnv_updatetoken_resp updatetoken;
    tnv_get_version_resp get_version;
  } u;
} tnv_resp;
OX_STATIC_ASSERT(sizeof(tnv_resp) == 1216, "wire layout");
enum { TNV_RESP_HDR = 48, TNV_RESP_MAX_PAYLOAD = 1168 };

/** The record for passing a descriptor that tnv_sendbytes takes. It is not used on Windows. */
typedef struct tnv_fdcntl {
  ox_s32 fdcntl_fd;    /**< the descriptor */
  ox_s32 fdcntl_len;   /**< bytes of the record */
  ox_s32 fdcntl_level; /**< level of the control message */
  ox_s32 fdcntl_type;  /**< type of the control message */
} tnv_fdcntl;
OX_STATIC_ASSERT(sizeof(tnv_fdcntl) == 16, "wire layout");

/** @} */

OX_END_DECLS

#endif
