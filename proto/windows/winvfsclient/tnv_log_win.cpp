/*
 * What each operation leaves in the log: one function for its request, one for its response, and
 * the table of both.
 */
#include <algorithm>
#include <cstring>

#include "tn_text.h"
#include "tnv_log.h"

#define REQUEST_LINE(fmt, ...) OX_LOG(OX_DEBUG_LEVEL, 0, fmt, ##__VA_ARGS__)
#define EVENT(vh, msg, resp, fso, finfo, name, args)                                             \
  tnv_log_vfs_event((vh), (msg), (resp), (fso), nullptr, (finfo), (name), (args), __FILE_NAME__, \
                    __LINE__)

namespace {

/* ------------------------------------------------------------------- texts in requests */

/* The bytes of the request behind its fixed part. */
ox_u64 trailing_size(const tnv_msg* msg) {
  return msg->hdr.hdr_len > TNV_MSG_FIXED ? msg->hdr.hdr_len - TNV_MSG_FIXED : 0;
}

int trailing_len(const tnv_msg* msg) { return static_cast<int>(msg->hdr.hdr_len - TNV_MSG_FIXED); }

/*
 * The trailing text that begins `skip` bytes behind the fixed part and is `len` bytes long, with or
 * without its NUL. Both numbers may be wrong: nothing outside hdr_len is read.
 */
tn_text trailing(const tnv_msg* msg, ox_s64 skip, ox_s32 len) {
  const ox_u64 size = trailing_size(msg);
  if (skip < 0 || static_cast<ox_u64>(skip) >= size || len <= 0) {
    return {0, ""};
  }
  const char* at = reinterpret_cast<const char*>(msg) + TNV_MSG_FIXED + skip;
  const ox_u64 room = std::min(size - static_cast<ox_u64>(skip), static_cast<ox_u64>(len));
  return {static_cast<int>(strnlen(at, room)), at};
}

/* The second text of a RENAME or SETPROXY, which stands behind the first one's NUL. */
tn_text rename_target(const tnv_msg* msg) {
  const tnv_wrename_msg& m = msg->u.wrename;
  return trailing(msg, ox_s64{m.wrename_msg_slen} + 1, m.wrename_msg_dlen);
}

tn_text proxy_user(const tnv_msg* msg) {
  const tnv_wsetproxy_msg& m = msg->u.wsetproxy;
  return trailing(msg, ox_s64{m.wproxy_server_len} + 1, m.wproxy_uname_len);
}

/* The file name of a request that carries none. */
tn_text target_path(const vfs_handle* vh) {
  constexpr size_t LONGEST = 5000;
  const char* path = vh->vfs_target_path != nullptr ? vh->vfs_target_path : "[unknown]";
  return {static_cast<int>(strnlen(path, LONGEST)), path};
}

/* CLOSE or CLEANUP: only the names of the fields differ in their records. */
struct EndOfOpen {
  int fd;
  const tnvfso& fso;
  ox_u32 oamode;
  ox_u32 oshmode;
  ox_u32 oflags;
  ox_u32 tnflags;
  const tnv_msgid_t& omsgid;
};

EndOfOpen end_of_open(const tnv_wclose_msg& m) {
  return {m.wclose_fd,     m.wclose_fso,     m.wclose_oamode, m.wclose_oshmode,
          m.wclose_oflags, m.wclose_tnflags, m.wclose_omsgid};
}

EndOfOpen end_of_open(const tnv_wcleanup_msg& m) {
  return {m.wcl_fd,     m.wcl_fso,     m.wcl_oamode, m.wcl_oshmode,
          m.wcl_oflags, m.wcl_tnflags, m.wcl_omsgid};
}

/* ------------------------------------------------------------------- requests */

/* The two texts at the end of most lines. */
struct Origin {
  tn_id_text drive;
  tn_text proc;
  explicit Origin(const tnv_msghdr& hdr) : drive(hdr.hdr_drvid), proc{TN_FIELD(hdr.hdr_procname)} {}
};

/* The ids of a file that a line shows. */
struct FileIds {
  tn_id_text id;
  tn_id_text eid;
  tn_id_text pfid;
  explicit FileIds(const tnvfso& fso)
      : id(fso.fso_handle), eid(fso.fso_version), pfid(fso.fso_phandle) {}
};

void request_connect(const vfs_handle*, const tnv_msg* msg) {
  const tnv_wconn_msg& m = msg->u.wconn;
  const tn_text share = trailing(msg, 0, m.wconmsg_share_path_len);
  REQUEST_LINE(
      "Message: connect(share_path %.*s, user %.*s, cache_dir %.*s, remote_host %.*s, "
      "remote_pid %u, drive_id %s)",
      TN_TEXT(share), TN_FIELD(m.wconmsg_user), TN_FIELD(m.wconmsg_cache_dir),
      TN_FIELD(m.wconmsg_rhost), m.wconmsg_pid, tn_id_text(msg->hdr.hdr_drvid).text);
}

void request_open(const vfs_handle*, const tnv_msg* msg) {
  const tnv_wopen_msg& m = msg->u.wopen;
  const tn_text path = trailing(msg, 0, m.wopen_pathlen);
  const Origin from(msg->hdr);
  REQUEST_LINE(
      "Message: open(clfd %d, fname %.*s, accmode 0x%x, shmode 0x%x, cdisp = 0x%x, flags 0x%x, "
      "len %d, drive_id %s, proc_name %.*s)",
      m.wopen_newfd, TN_TEXT(path), m.wopen_accmode, m.wopen_shmode, m.wopen_cdisp, m.wopen_flags,
      trailing_len(msg), from.drive.text, TN_TEXT(from.proc));
}

/* A request with one path. */
void request_path(const char* name, const tnv_msg* msg, ox_s32 len) {
  const tn_text path = trailing(msg, 0, len);
  const Origin from(msg->hdr);
  REQUEST_LINE("Message: %s(path %.*s, len %d, drive_id %s, proc_name %.*s)", name, TN_TEXT(path),
               trailing_len(msg), from.drive.text, TN_TEXT(from.proc));
}

void request_denum(const vfs_handle*, const tnv_msg* msg) {
  request_path("direnum", msg, msg->u.wdenum.wde_pathlen);
}

void request_stat(const vfs_handle*, const tnv_msg* msg) {
  request_path("stat", msg, msg->u.wstat.wstat_path_len);
}

void request_delete(const vfs_handle*, const tnv_msg* msg) {
  request_path("delete", msg, msg->u.wdelete.wdelete_msg_plen);
}

/* This one carries no process name. */
void request_candelete(const vfs_handle*, const tnv_msg* msg) {
  const tn_text path = trailing(msg, 0, msg->u.wcandelete.wcandelete_msg_plen);
  REQUEST_LINE("Message: candelete(path %.*s, len %d, drive_id %s)", TN_TEXT(path),
               trailing_len(msg), tn_id_text(msg->hdr.hdr_drvid).text);
}

void request_end_of_open(const char* name, const vfs_handle* vh, const tnv_msg* msg,
                         const EndOfOpen& m) {
  const tn_text path = target_path(vh);
  const FileIds file(m.fso);
  const Origin from(msg->hdr);
  REQUEST_LINE(
      "Message: %s(path %.*s, fd %d, id %s, eid %s, pfid %s, fsostate %d, accmode 0x%x, "
      "shmode 0x%x, flags 0x%x, tnflags 0x%x, drive_id %s, proc_name %.*s)",
      name, TN_TEXT(path), m.fd, file.id.text, file.eid.text, file.pfid.text,
      static_cast<int>(m.fso.fso_state), m.oamode, m.oshmode, m.oflags, m.tnflags, from.drive.text,
      TN_TEXT(from.proc));
}

void request_close(const vfs_handle* vh, const tnv_msg* msg) {
  request_end_of_open("close", vh, msg, end_of_open(msg->u.wclose));
}

void request_cleanup(const vfs_handle* vh, const tnv_msg* msg) {
  request_end_of_open("cleanup", vh, msg, end_of_open(msg->u.wcleanup));
}

void request_rename(const vfs_handle*, const tnv_msg* msg) {
  const tnv_wrename_msg& m = msg->u.wrename;
  const tn_text source = trailing(msg, 0, m.wrename_msg_slen);
  const tn_text target = rename_target(msg);
  const Origin from(msg->hdr);
  REQUEST_LINE(
      "Message: rename(srcpath %.*s, dstpath %.*s slen %d dlen %d, drive_id %s, proc_name %.*s)",
      TN_TEXT(source), TN_TEXT(target), static_cast<int>(ox_s64{m.wrename_msg_slen} + 1),
      static_cast<int>(ox_s64{m.wrename_msg_dlen} + 1), from.drive.text, TN_TEXT(from.proc));
}

void request_brl(const vfs_handle*, const tnv_msg* msg) {
  const tnv_wbrl_msg& m = msg->u.wbrl;
  const Origin from(msg->hdr);
  REQUEST_LINE(
      "Message: brl(id %s, type %d, off %llu, len %llu, pid %d, drive_id %s, proc_name %.*s)",
      tn_id_text(m.wbrl_gid).text, m.wbrl_type, tn_llu(m.wbrl_off), tn_llu(m.wbrl_len), m.wbrl_pid,
      from.drive.text, TN_TEXT(from.proc));
}

/* Without the password, which only the line of a start shows (tnw_service_process.cpp). */
void request_setproxy(const vfs_handle*, const tnv_msg* msg) {
  const tn_text server = trailing(msg, 0, msg->u.wsetproxy.wproxy_server_len);
  const tn_text user = proxy_user(msg);
  REQUEST_LINE("Message: setproxy(proxy_server %.*s, username %.*s)", TN_TEXT(server),
               TN_TEXT(user));
}

void request_cache_region(const vfs_handle*, const tnv_msg* msg) {
  const tnv_cache_region_msg& m = msg->u.cache_region;
  const FileIds file(m.cache_read_fso);
  REQUEST_LINE("Message: %s(id %s, eid %s, pfid %s off %llu len %llu trunc %d)",
               "TNV_OP_CACHE_REGION", file.id.text, file.eid.text, file.pfid.text,
               tn_llu(m.cache_read_off), tn_llu(m.cache_read_len), m.cache_read_trunc & 1);
}

void request_of_file(const char* name, const tnvfso& fso) {
  const FileIds file(fso);
  REQUEST_LINE("Message: %s(id %s, eid %s, pfid %s)", name, file.id.text, file.eid.text,
               file.pfid.text);
}

void request_dirty_region(const vfs_handle*, const tnv_msg* msg) {
  request_of_file("TNV_OP_DIRTY_REGION", msg->u.dirty_region.cache_write_fso);
}

void request_ftruncate(const vfs_handle*, const tnv_msg* msg) {
  request_of_file("TNV_OP_FTRUNCATE", msg->u.ftruncate.cache_trunc_fso);
}

void request_updatetoken(const vfs_handle*, const tnv_msg* msg) {
  const ox_s32 len = msg->u.updatetoken.ut_len;
  const tn_text token = trailing(msg, 0, len);
  REQUEST_LINE("Token: %.*s of length %d received for update", TN_TEXT(token), len);
}

void request_get_version(const vfs_handle*, const tnv_msg*) {
  REQUEST_LINE("Message: get_version");
}

void request_shutdown(const vfs_handle*, const tnv_msg*) { REQUEST_LINE("Message: shutdown"); }

/* ------------------------------------------------------------------- responses */

void response_connect(vfs_handle* vh, const tnv_msg* msg, const tnv_resp* resp) {
  const tnv_wconn_msg& m = msg->u.wconn;
  const tn_text share = trailing(msg, 0, m.wconmsg_share_path_len);
  EVENT(vh, msg, resp, nullptr, nullptr, "TNV_OP_WIN_CONNECT",
        tnv_event_args("\"vfs_args\":{\"vfs_user\":\"%.*s\", \"vfs_rhost\":\"%.*s\","
                       "\"cache_dir\":\"%.*s\", \"share_dir\":\"%.*s\"}",
                       TN_FIELD(m.wconmsg_user), TN_FIELD(m.wconmsg_rhost),
                       TN_FIELD(m.wconmsg_cache_dir), TN_TEXT(share)));
}

void response_open(vfs_handle* vh, const tnv_msg* msg, const tnv_resp* resp) {
  const tnv_wopen_msg& m = msg->u.wopen;
  const tnv_wopen_resp& r = resp->u.wopen;
  const tn_text path = trailing(msg, 0, m.wopen_pathlen);
  EVENT(
      vh, msg, resp, &r.wopen_resp_fso, nullptr, "TNV_OP_WIN_OPEN",
      tnv_event_args(
          "\"vfs_args\":{\"fd\":%d, \"file_fd\":\"%p\", \"filename\":\"%.*s\", "
          "\"region_shift\":%d, \"rmap_size\":%llu, \"dmap_size\":%llu, \"accmode\":\"0x%x\", "
          "\"shmode\":\"0x%x\", \"cdisp\":\"0x%x\", \"flags\":\"0x%x\", \"tnflags\":\"0x%x\"}",
          m.wopen_newfd, reinterpret_cast<void*>(r.wopen_resp_handle), TN_TEXT(path),
          r.wopen_resp_region_shift, tn_llu(r.wopen_resp_rmap_size), tn_llu(r.wopen_resp_dmap_size),
          m.wopen_accmode, m.wopen_shmode, m.wopen_cdisp, m.wopen_flags, r.wopen_resp_tnflags));
}

const char* end_of_open_args(const vfs_handle* vh, const EndOfOpen& m) {
  const tn_text path = target_path(vh);
  return tnv_event_args(
      "\"vfs_args\":{\"fd\":%d, \"id\":\"%s\", \"accmode\":\"0x%x\", \"shmode\":\"0x%x\", "
      "\"flags\":\"0x%x\", \"tnflags\":\"0x%x\", \"open_msgid\":\"%s\", \"filename\":\"%.*s\"}",
      m.fd, tn_id_text(m.fso.fso_handle).text, m.oamode, m.oshmode, m.oflags, m.tnflags,
      tn_id_text(m.omsgid).text, TN_TEXT(path));
}

void response_close(vfs_handle* vh, const tnv_msg* msg, const tnv_resp* resp) {
  EVENT(vh, msg, resp, &msg->u.wclose.wclose_fso, nullptr, "TNV_OP_WIN_CLOSE",
        end_of_open_args(vh, end_of_open(msg->u.wclose)));
}

void response_cleanup(vfs_handle* vh, const tnv_msg* msg, const tnv_resp* resp) {
  EVENT(vh, msg, resp, &msg->u.wcleanup.wcl_fso, nullptr, "TNV_OP_WIN_CLEANUP",
        end_of_open_args(vh, end_of_open(msg->u.wcleanup)));
}

/* The argument object of an operation on one path, under the key of the operation. */
const char* path_args(const char* key, const tnv_msg* msg, ox_s32 len) {
  const tn_text path = trailing(msg, 0, len);
  return tnv_event_args("\"vfs_args\":{\"%s\":\"%.*s\"}", key, TN_TEXT(path));
}

void response_denum(vfs_handle* vh, const tnv_msg* msg, const tnv_resp* resp) {
  EVENT(vh, msg, resp, &resp->u.wdenum.wde_fso, nullptr, "TNV_OP_WIN_DENUM",
        path_args("path", msg, msg->u.wdenum.wde_pathlen));
}

void response_stat(vfs_handle* vh, const tnv_msg* msg, const tnv_resp* resp) {
  EVENT(vh, msg, resp, nullptr, &resp->u.wstat.wstat_fi, "TNV_OP_WIN_STAT",
        path_args("path", msg, msg->u.wstat.wstat_path_len));
}

void response_candelete(vfs_handle* vh, const tnv_msg* msg, const tnv_resp* resp) {
  EVENT(vh, msg, resp, nullptr, nullptr, "TNV_OP_WIN_CANDELETE",
        path_args("path", msg, msg->u.wcandelete.wcandelete_msg_plen));
}

void response_delete(vfs_handle* vh, const tnv_msg* msg, const tnv_resp* resp) {
  EVENT(vh, msg, resp, nullptr, nullptr, "TNV_OP_WIN_DELETE",
        path_args("filename", msg, msg->u.wdelete.wdelete_msg_plen));
}

void response_rename(vfs_handle* vh, const tnv_msg* msg, const tnv_resp* resp) {
  const tn_text source = trailing(msg, 0, msg->u.wrename.wrename_msg_slen);
  const tn_text target = rename_target(msg);
  EVENT(vh, msg, resp, nullptr, nullptr, "TNV_OP_WIN_RENAME",
        tnv_event_args("\"vfs_args\":{\"src_path\":\"%.*s\", \"dst_path\":\"%.*s\"}",
                       TN_TEXT(source), TN_TEXT(target)));
}

void response_brl(vfs_handle* vh, const tnv_msg* msg, const tnv_resp* resp) {
  const tnv_wbrl_msg& m = msg->u.wbrl;
  EVENT(vh, msg, resp, &m.wbrl_fso, nullptr, "TNV_OP_WIN_BRL",
        tnv_event_args("\"vfs_args\":{\"id\":\"%s\", \"off\":%llu, \"type\":\"%d\", \"len\":%llu, "
                       "\"pid\":%d}",
                       tn_id_text(m.wbrl_gid).text, tn_llu(m.wbrl_off), m.wbrl_type,
                       tn_llu(m.wbrl_len), m.wbrl_pid));
}

/* Without the password, which only the line of a start shows (tnw_service_process.cpp). */
void response_setproxy(vfs_handle* vh, const tnv_msg* msg, const tnv_resp* resp) {
  const tn_text server = trailing(msg, 0, msg->u.wsetproxy.wproxy_server_len);
  const tn_text user = proxy_user(msg);
  EVENT(vh, msg, resp, nullptr, nullptr, "TNV_OP_WIN_SETPROXY",
        tnv_event_args("\"vfs_args\":{\"proxy_server\":\"%.*s\", \"proxy_username\":\"%.*s\"}",
                       TN_TEXT(server), TN_TEXT(user)));
}

void response_cache_region(vfs_handle* vh, const tnv_msg* msg, const tnv_resp* resp) {
  const tnv_cache_region_msg& m = msg->u.cache_region;
  const tnv_cache_region_resp& r = resp->u.cache_region;
  const tn_text path = target_path(vh);
  EVENT(vh, msg, resp, &m.cache_read_fso, nullptr, "TNV_OP_CACHE_REGION",
        tnv_event_args("\"vfs_args\":{\"req_coff\":%llu, \"req_clen\":%llu, \"resp_coff\":%llu, "
                       "\"resp_clen\":%llu, \"resp_fsz\":%llu, \"id\":\"%s\", "
                       "\"open_msgid\":\"%s\", \"filename\":\"%.*s\"}",
                       tn_llu(m.cache_read_off), tn_llu(m.cache_read_len), tn_llu(r.cr_soff),
                       tn_llu(r.cr_sz), tn_llu(r.cr_fsz),
                       tn_id_text(m.cache_read_fso.fso_handle).text,
                       tn_id_text(m.cache_read_omsgid).text, TN_TEXT(path)));
}

void response_dirty_region(vfs_handle* vh, const tnv_msg* msg, const tnv_resp* resp) {
  const tnv_dirty_region_msg& m = msg->u.dirty_region;
  const tn_text path = target_path(vh);
  EVENT(vh, msg, resp, &m.cache_write_fso, nullptr, "TNV_OP_DIRTY_REGION",
        tnv_event_args("\"vfs_args\":{\"offset\":%llu, \"len\":%llu, \"id\":\"%s\", "
                       "\"open_msgid\":\"%s\", \"filename\":\"%.*s\"}",
                       tn_llu(m.cache_write_off), tn_llu(m.cache_write_len),
                       tn_id_text(m.cache_write_fso.fso_handle).text,
                       tn_id_text(m.cache_write_omsgid).text, TN_TEXT(path)));
}

void response_ftruncate(vfs_handle* vh, const tnv_msg* msg, const tnv_resp* resp) {
  const tnv_ftruncate_msg& m = msg->u.ftruncate;
  const tn_text path = target_path(vh);
  EVENT(vh, msg, resp, &m.cache_trunc_fso, nullptr, "TNV_OP_FTRUNCATE",
        tnv_event_args("\"vfs_args\":{\"nfsz\":%llu, \"id\":\"%s\", \"open_msgid\":\"%s\", "
                       "\"filename\":\"%.*s\"}",
                       tn_llu(m.cache_trunc_nfsz), tn_id_text(m.cache_trunc_fso.fso_handle).text,
                       tn_id_text(m.cache_trunc_omsgid).text, TN_TEXT(path)));
}

void response_updatetoken(vfs_handle* vh, const tnv_msg* msg, const tnv_resp* resp) {
  const tn_text token = trailing(msg, 0, msg->u.updatetoken.ut_len);
  EVENT(vh, msg, resp, nullptr, nullptr, "TNV_OP_UPDATETOKEN",
        tnv_event_args("\"vfs_args\":{\"enc_token\":\"%.*s\"}", TN_TEXT(token)));
}

void response_get_version(vfs_handle* vh, const tnv_msg* msg, const tnv_resp* resp) {
  const ox_get_version_t& v = resp->u.get_version.ver_fields;
  const ox_tn_args_t& a = v.gv_tn_args;
  EVENT(
      vh, msg, resp, nullptr, nullptr, "TNV_OP_GET_VERSION",
      tnv_event_args(
          "\"vfs_args\":{\"version\":\"%.*s\", \"git_hash\":\"%.*s\", \"host\":\"%.*s\", "
          "\"mode\":\"%.*s\", \"state\":\"%.*s\", \"status\":\"%.*s\", \"build_date\":\"%.*s\", "
          "\"build_host\":\"%.*s\", \"build_os\":\"%.*s\", \"build_user\":\"%.*s\", "
          "\"build_type\":\"%.*s\", \"device_id\":\"%.*s\", \"da_device_id\":\"%.*s\", "
          "\"vfs_enabled\":%d, \"rest_enabled\":%d, \"authorized\":%d, \"red_connected\":%d, "
          "\"process_id\":%d, \"tn_args\":{\"addr\":\"%.*s\", \"user\":\"%.*s\", "
          "\"cfs\":\"%.*s\", \"logfile\":\"%.*s\", \"cfver\":%d, \"recovery\":%d, \"vfs\":%d, "
          "\"smb\":%d, \"pauseinit\":%d}}",
          TN_FIELD(v.gv_version), TN_FIELD(v.gv_git_hash), TN_FIELD(v.gv_host), TN_FIELD(v.gv_mode),
          TN_FIELD(v.gv_state), TN_FIELD(v.gv_status), TN_FIELD(v.gv_build_date),
          TN_FIELD(v.gv_build_host), TN_FIELD(v.gv_build_os), TN_FIELD(v.gv_build_user),
          TN_FIELD(v.gv_build_type), TN_FIELD(v.gv_device_id), TN_FIELD(v.gv_da_device_id),
          v.gv_vfs_enabled & 1, v.gv_rest_enabled & 1, v.gv_authorized & 1, v.gv_red_connected & 1,
          v.gv_process_id, TN_FIELD(a.sa_addr), TN_FIELD(a.sa_user), TN_FIELD(a.sa_cfs),
          TN_FIELD(a.sa_logfile), a.sa_cfver, a.sa_recovery, a.sa_vfs, a.sa_smb, a.sa_pauseinit));
}

void response_shutdown(vfs_handle* vh, const tnv_msg* msg, const tnv_resp* resp) {
  EVENT(vh, msg, resp, nullptr, nullptr, "TNV_OP_SHUTDOWN", tnv_event_args("\"vfs_args\":{}"));
}

}  // namespace

/* In the order of vfs_op. */
const tnv_op_trace tnv_op_traces[TNV_OP_MAX] = {
    {request_connect, response_connect},
    {nullptr, nullptr}, /* DISCONNECT */
    {request_open, response_open},
    {request_denum, response_denum},
    {request_stat, response_stat},
    {request_close, response_close},
    {request_rename, response_rename},
    {request_candelete, response_candelete},
    {request_delete, response_delete},
    {request_brl, response_brl},
    {request_cleanup, response_cleanup},
    {request_setproxy, response_setproxy},
    {request_cache_region, response_cache_region},
    {request_dirty_region, response_dirty_region},
    {request_ftruncate, response_ftruncate},
    {request_updatetoken, response_updatetoken},
    {request_get_version, response_get_version},
    {request_shutdown, response_shutdown},
};
