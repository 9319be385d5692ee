/*
 * The offset of every field in the records that leave the library: those of the calls in tnw.h,
 * those that cross the socket, and those in cloud file lists. A field that moves breaks the build
 * here. The size of each record is asserted behind the record itself.
 */
#include "tn_cffl.h"
#include "tnv_proto.h"
#include "tnw.h"

#define AT(record, field, offset) static_assert(offsetof(record, field) == (offset))

/* ------------------------------------------------------------------- tnw.h */

AT(tnw_tninit, tnw_min_threads, 4);
AT(tnw_tninit, tnw_max_threads, 8);
AT(tnw_tninit, tnw_user_id, 16);
AT(tnw_tninit, tnw_username, 24);
AT(tnw_tninit, tnw_workdir, 88);
AT(tnw_tninit, tnw_uds_workdir, 5088);
AT(tnw_tninit, tnw_logdir, 5184);
AT(tnw_tninit, tnw_sharepath, 10184);
AT(tnw_tninit, tnw_binpath, 11208);
AT(tnw_tninit, tnw_regpath, 16208);
AT(tnw_tninit, tnw_api_addr, 17232);
AT(tnw_tninit, tnw_config_addr, 17360);
AT(tnw_tninit, tnw_workgroup_id, 17488);
AT(tnw_tninit, tnw_da_device_id, 17525);
AT(tnw_tninit, tnw_da_drive_id, 17562);
AT(tnw_tninit, tnw_tn_device_id, 17599);
AT(tnw_tninit, tnw_authtoken, 17636);
AT(tnw_tninit, tnw_domain, 18148);
AT(tnw_tninit, tnw_proxy_server, 18199);
AT(tnw_tninit, tnw_proxy_uname, 18455);
AT(tnw_tninit, tnw_proxy_password, 18519);

AT(tnw_cfs_lock, lk_uname, 8);

AT(tnw_fileinfo, fi_ctime, 8);
AT(tnw_fileinfo, fi_atime, 16);
AT(tnw_fileinfo, fi_mtime, 24);
AT(tnw_fileinfo, fi_size, 32);
AT(tnw_fileinfo, fi_locked, 40);
AT(tnw_fileinfo, fi_id, 41);
AT(tnw_fileinfo, fi_collab, 78);
AT(tnw_fileinfo, fi_name, 590);
AT(tnw_fileinfo, fi_cksum, 835);
AT(tnw_fileinfo, fi_lockowner, 1096);

AT(tnw_purge_opt_t, po_workdir, 4);
AT(tnw_purge_opt_t, po_domain, 5004);
AT(tnw_purge_opt_t, po_username, 5055);

/* ------------------------------------------------------------------- tnv_proto.h */

AT(tnvfso, fso_phandle, 16);
AT(tnvfso, fso_version, 32);
AT(tnvfso, fso_pversion, 48);
AT(tnvfso, fso_isdir, 64);
AT(tnvfso, fso_state, 68);
AT(tnvfso, fso_pstate, 72);
AT(tnvfso, fso_seqno, 80);

AT(ox_statx_t, st_ino, 8);
AT(ox_statx_t, st_nlink, 16);
AT(ox_statx_t, st_mode, 20);
AT(ox_statx_t, st_size, 24);
AT(ox_statx_t, st_atim, 32);
AT(ox_statx_t, st_mtim, 48);
AT(ox_statx_t, st_ctim, 64);
AT(ox_statx_t, st_btim, 80);
AT(ox_statx_t, st_blksize, 96);
AT(ox_statx_t, st_uid, 100);
AT(ox_statx_t, st_gid, 104);
AT(ox_statx_t, st_blocks, 112);
AT(ox_statx_t, st_rdev, 120);

AT(ox_tn_args_t, sa_user, 32);
AT(ox_tn_args_t, sa_cfs, 64);
AT(ox_tn_args_t, sa_logfile, 128);
AT(ox_tn_args_t, sa_cfver, 192);
AT(ox_tn_args_t, sa_recovery, 196);
AT(ox_tn_args_t, sa_vfs, 200);
AT(ox_tn_args_t, sa_smb, 204);
AT(ox_tn_args_t, sa_pauseinit, 208);

AT(ox_get_version_t, gv_git_hash, 16);
AT(ox_get_version_t, gv_host, 57);
AT(ox_get_version_t, gv_mode, 89);
AT(ox_get_version_t, gv_state, 105);
AT(ox_get_version_t, gv_status, 121);
AT(ox_get_version_t, gv_build_date, 137);
AT(ox_get_version_t, gv_build_host, 169);
AT(ox_get_version_t, gv_build_os, 201);
AT(ox_get_version_t, gv_build_user, 217);
AT(ox_get_version_t, gv_build_type, 233);
AT(ox_get_version_t, gv_device_id, 241);
AT(ox_get_version_t, gv_da_device_id, 278);
AT(ox_get_version_t, gv_vfs_enabled, 315);
AT(ox_get_version_t, gv_rest_enabled, 316);
AT(ox_get_version_t, gv_authorized, 317);
AT(ox_get_version_t, gv_red_connected, 318);
AT(ox_get_version_t, gv_process_id, 320);
AT(ox_get_version_t, gv_tn_args, 324);

AT(tnv_msghdr, hdr_len, 4);
AT(tnv_msghdr, hdr_id, 8);
AT(tnv_msghdr, hdr_drvid, 24);
AT(tnv_msghdr, hdr_procname, 40);

AT(tnv_wconn_msg, wconmsg_pid, 4);
AT(tnv_wconn_msg, wconmsg_devid, 8);
AT(tnv_wconn_msg, wconmsg_rhost, 45);
AT(tnv_wconn_msg, wconmsg_cache_dir, 173);
AT(tnv_wconn_msg, wconmsg_user, 301);

AT(tnv_wopen_msg, wopen_pathlen, 4);
AT(tnv_wopen_msg, wopen_origpid, 8);
AT(tnv_wopen_msg, wopen_shmode, 12);
AT(tnv_wopen_msg, wopen_accmode, 16);
AT(tnv_wopen_msg, wopen_cdisp, 20);
AT(tnv_wopen_msg, wopen_flags, 24);
AT(tnv_wopen_msg, wopen_clientid, 28);

AT(tnv_wrename_msg, wrename_msg_dlen, 4);

AT(tnv_wsetproxy_msg, wproxy_uname_len, 4);
AT(tnv_wsetproxy_msg, wproxy_passwd_len, 8);

AT(tnv_wclose_msg, wclose_origpid, 4);
AT(tnv_wclose_msg, wclose_id, 8);
AT(tnv_wclose_msg, wclose_fso, 24);
AT(tnv_wclose_msg, wclose_oamode, 112);
AT(tnv_wclose_msg, wclose_oshmode, 116);
AT(tnv_wclose_msg, wclose_oflags, 120);
AT(tnv_wclose_msg, wclose_tnflags, 124);
AT(tnv_wclose_msg, wclose_omsgid, 128);

AT(tnv_wcleanup_msg, wcl_origpid, 4);
AT(tnv_wcleanup_msg, wcl_id, 8);
AT(tnv_wcleanup_msg, wcl_fso, 24);
AT(tnv_wcleanup_msg, wcl_oamode, 112);
AT(tnv_wcleanup_msg, wcl_oshmode, 116);
AT(tnv_wcleanup_msg, wcl_oflags, 120);
AT(tnv_wcleanup_msg, wcl_tnflags, 124);
AT(tnv_wcleanup_msg, wcl_omsgid, 128);

AT(tnv_wbrl_msg, wbrl_pid, 4);
AT(tnv_wbrl_msg, wbrl_fd, 8);
AT(tnv_wbrl_msg, wbrl_off, 16);
AT(tnv_wbrl_msg, wbrl_len, 24);
AT(tnv_wbrl_msg, wbrl_fso, 32);
AT(tnv_wbrl_msg, wbrl_gid, 120);

AT(tnv_cache_region_msg, cache_read_off, 8);
AT(tnv_cache_region_msg, cache_read_len, 16);
AT(tnv_cache_region_msg, cache_read_omsgid, 24);
AT(tnv_cache_region_msg, cache_read_fso, 40);

AT(tnv_dirty_region_msg, cache_write_len, 8);
AT(tnv_dirty_region_msg, cache_write_omsgid, 16);
AT(tnv_dirty_region_msg, cache_write_fso, 32);

AT(tnv_ftruncate_msg, cache_trunc_omsgid, 8);
AT(tnv_ftruncate_msg, cache_trunc_fso, 24);

AT(tnv_msg, u, 72);

AT(tnv_resphdr, rhdr_utxid, 16);
AT(tnv_resphdr, rhdr_opcode, 24);
AT(tnv_resphdr, rhdr_len, 28);
AT(tnv_resphdr, rhdr_errno, 32);
AT(tnv_resphdr, rhdr_fd2xfer, 36);
AT(tnv_resphdr, rhdr_tn_unauthd, 40);

AT(tnv_conn_resp, conresp_stid, 8);
AT(tnv_conn_resp, connresp_stat, 16);
AT(tnv_conn_resp, connresp_sfid, 144);

AT(tnv_wopen_resp, wopen_resp_rmap_size, 8);
AT(tnv_wopen_resp, wopen_resp_dmap_size, 16);
AT(tnv_wopen_resp, wopen_resp_tnflags, 24);
AT(tnv_wopen_resp, wopen_resp_fso, 32);
AT(tnv_wopen_resp, wopen_resp_handle, 120);
AT(tnv_wopen_resp, wopen_resp_stat, 128);

AT(tnv_wdenum_resp, wde_fi_len, 88);

AT(tnv_cache_region_resp, cr_sz, 8);
AT(tnv_cache_region_resp, cr_fsz, 16);
AT(tnv_cache_region_resp, cr_clear, 24);

AT(tnv_resp, u, 48);

/* ------------------------------------------------------------------- tn_cffl.h */

AT(cfs_cffl_header_v3, cf_dcount, 16);
AT(cfs_cffl_header_v3, cf_fid, 24);
AT(cfs_cffl_header_v3, cf_size, 56);
AT(cfs_cffl_header_v3, cf_btime, 64);
AT(cfs_cffl_header_v3, cf_perms, 128);
AT(cfs_cffl_header_v3, cf_ihtoff, 136);
AT(cfs_cffl_header_v3, cf_etag, 152);

AT(cfs_cffl, cfh_name, 768);

AT(cfs_cksum, ck_csize, 8);
AT(cfs_cksum, ck_sha512, 16);

AT(cfs_path, mp_id, 16);
AT(cfs_path, mp_size, 48);
AT(cfs_path, mp_checksum, 64);
AT(cfs_path, mp_btime, 144);
AT(cfs_path, mp_username, 176);

AT(cfs_cffl_hash, cfh_next, 4);
AT(cfs_cffl_hash, cfh_prev, 8);
AT(cfs_cffl_hash, cfh_offset, 12);
AT(cfs_cffl_hash, cfh_sha256, 16);

AT(tn_sbpflist_ent, pfle_pseq, 16);
AT(tn_sbpflist_ent, pfle_ptyp, 24);
AT(tn_sbpflist_ent, pfle_status, 25);
AT(tn_sbpflist_ent, pfle_pad, 26);
