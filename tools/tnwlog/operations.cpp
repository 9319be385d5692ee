#include "operations.h"

#include <algorithm>

namespace tnwlog {
namespace {

#define FSO                                                                                 \
  R"(, "fso":{"id":"<N:file>", "pfid":"<N>", "eid":"<N>", "peid": "<N>", "fsostate":<d>, )" \
  R"("pfsostate":<d>, "isdir":<d>, "fsoseqno":<d>})"
#define FINFO                                                                       \
  R"(, "finfo":{"fi_attr":"<h>", "fi_ctime":<d>, "fi_mtime":<d>, "fi_atime":<d>, )" \
  R"("fi_size":<d>, "fi_locked":<d>, "fi_ownid":<o>, "fi_owner":"<N>", "fi_name":"<P>"})"
#define SENDER ", drive_id <N>, proc_name <N>)"
#define END_OF_OPEN                                                                           \
  "path <P:path>, fd <d>, id <N>, eid <N>, pfid <N>, fsostate <d>, accmode <h>, shmode <h>, " \
  "flags <h>, tnflags <h>" SENDER
#define END_OF_OPEN_EVENT                                                                   \
  R"(, "vfs_args":{"fd":<d>, "id":"<N>", "accmode":"<h>", "shmode":"<h>", "flags":"<h>", )" \
  R"("tnflags":"<h>", "open_msgid":"<m>", "filename":"<P:path>"})" FSO "}"
#define FILE_OF_REQUEST "id <N>, eid <N>, pfid <N>"
#define CLIENT_EVENT(args) FSO R"(, "vfs_args":{"fd":<d>, "id":"<N>", "eid":"<N>")" args "}}"

/* `request` and `arguments` are those of Operation. Both may be empty. */
Operation make(std::string_view event, std::string_view request, std::string_view arguments) {
  std::string_view name = event.substr(7); /* behind "TNV_OP_" */
  if (name.starts_with("WIN_")) {
    name.remove_prefix(4);
  }
  return {name, event, request.substr(0, request.find('<')), TextPattern(request),
          TextPattern(arguments)};
}

/* The operations in the order of their codes, then the calls that have no code. */
std::vector<Operation> make_operations() {
  return {
      make("TNV_OP_WIN_CONNECT",
           "Message: connect(share_path <P:path>, user <N>, cache_dir <P>, remote_host <N>, "
           "remote_pid <d>, drive_id <N>)",
           R"(, "vfs_args":{"vfs_user":"<N>", "vfs_rhost":"<N>","cache_dir":"<P>", )"
           R"("share_dir":"<P:path>"}})"),
      make("TNV_OP_WIN_DISCONNECT", "", ""),
      make("TNV_OP_WIN_OPEN",
           "Message: open(clfd <d>, fname <P:path>, accmode <h>, shmode <h>, cdisp = <h>, "
           "flags <h>, len <d>" SENDER,
           R"(, "vfs_args":{"fd":<d>, "file_fd":"<h>", "filename":"<P:path>", "region_shift":<d>, )"
           R"("rmap_size":<d>, "dmap_size":<d>, "accmode":"<h>", "shmode":"<h>", "cdisp":"<h>", )"
           R"("flags":"<h>", "tnflags":"<h>"})" FSO "}"),
      make("TNV_OP_WIN_DENUM", "Message: direnum(path <P:path>, len <d>" SENDER,
           R"(, "vfs_args":{"path":"<P:path>"})" FSO "}"),
      make("TNV_OP_WIN_STAT", "Message: stat(path <P:path>, len <d>" SENDER,
           R"(, "vfs_args":{"path":"<P:path>"})" FINFO "}"),
      make("TNV_OP_WIN_CLOSE", "Message: close(" END_OF_OPEN, END_OF_OPEN_EVENT),
      make("TNV_OP_WIN_RENAME",
           "Message: rename(srcpath <P:path>, dstpath <P:target> slen <d> dlen <d>" SENDER,
           R"(, "vfs_args":{"src_path":"<P:path>", "dst_path":"<P:target>"}})"),
      make("TNV_OP_WIN_CANDELETE", "Message: candelete(path <P:path>, len <d>, drive_id <N>)",
           R"(, "vfs_args":{"path":"<P:path>"}})"),
      make("TNV_OP_WIN_DELETE", "Message: delete(path <P:path>, len <d>" SENDER,
           R"(, "vfs_args":{"filename":"<P:path>"}})"),
      make("TNV_OP_WIN_BRL", "Message: brl(id <N>, type <d>, off <d>, len <d>, pid <d>" SENDER,
           R"(, "vfs_args":{"id":"<N>", "off":<d>, "type":"<d>", "len":<d>, "pid":<d>})" FSO "}"),
      make("TNV_OP_WIN_CLEANUP", "Message: cleanup(" END_OF_OPEN, END_OF_OPEN_EVENT),
      make("TNV_OP_WIN_SETPROXY", "Message: setproxy(proxy_server <S>, username <S>)",
           R"(, "vfs_args":{"proxy_server":"<S>", "proxy_username":"<S>"}})"),
      make("TNV_OP_CACHE_REGION",
           "Message: TNV_OP_CACHE_REGION(" FILE_OF_REQUEST " off <d> len <d> trunc <d>)",
           R"(, "vfs_args":{"req_coff":<d>, "req_clen":<d>, "resp_coff":<d>, "resp_clen":<d>, )"
           R"("resp_fsz":<d>, "id":"<N>", "open_msgid":"<m>", "filename":"<P:path>"})" FSO "}"),
      make("TNV_OP_DIRTY_REGION", "Message: TNV_OP_DIRTY_REGION(" FILE_OF_REQUEST ")",
           R"(, "vfs_args":{"offset":<d>, "len":<d>, "id":"<N>", "open_msgid":"<m>", )"
           R"("filename":"<P:path>"})" FSO "}"),
      make("TNV_OP_FTRUNCATE", "Message: TNV_OP_FTRUNCATE(" FILE_OF_REQUEST ")",
           R"(, "vfs_args":{"nfsz":<d>, "id":"<N>", "open_msgid":"<m>", "filename":"<P:path>"})" FSO
           "}"),
      make("TNV_OP_UPDATETOKEN", "Token: <S> of length <d> received for update",
           R"(, "vfs_args":{"enc_token":"<S>"}})"),
      make("TNV_OP_GET_VERSION", "Message: get_version",
           R"(, "vfs_args":{"version":"<v>", "git_hash":"<v>", "host":"<N>", "mode":"<w>", )"
           R"("state":"<w>", "status":"<w>", "build_date":"<v>", "build_host":"<N>", )"
           R"("build_os":"<w>", "build_user":"<N>", "build_type":"<w>", "device_id":"<N>", )"
           R"("da_device_id":"<N>", "vfs_enabled":<d>, "rest_enabled":<d>, "authorized":<d>, )"
           R"("red_connected":<d>, "process_id":<d>, "tn_args":{"addr":"<P>", "user":"<N>", )"
           R"("cfs":"<P>", "logfile":"<P>", "cfver":<d>, "recovery":<d>, "vfs":<d>, "smb":<d>, )"
           R"("pauseinit":<d>}}})"),
      make("TNV_OP_SHUTDOWN", "Message: shutdown", R"(, "vfs_args":{}})"),
      make("TNV_OP_WIN_READ", "", CLIENT_EVENT(R"(, "offset":<d>, "size":<d>)")),
      make("TNV_OP_WIN_WRITE", "", CLIENT_EVENT(R"(, "offset":<d>, "size":<d>)")),
      make("TNV_OP_WIN_FOLDEREMPTY", "", CLIENT_EVENT(R"(,"isempty":<d>)")),
      make("TNV_OP_WIN_FINDNEXT", "", CLIENT_EVENT("")),
      make("TNV_OP_WIN_SETFSIZE", "", CLIENT_EVENT(R"(,"size":<d>)")),
  };
}

}  // namespace

const std::vector<Operation>& operations() {
  static const std::vector<Operation> OPERATIONS = make_operations();
  return OPERATIONS;
}

OperationCode operation_of_event(std::string_view event) {
  const std::vector<Operation>& all = operations();
  const auto found = std::find_if(all.begin(), all.end(),
                                  [event](const Operation& op) { return op.event == event; });
  return found == all.end() ? NO_OPERATION : static_cast<OperationCode>(found - all.begin());
}

OperationCode operation_of_request(std::string_view text) {
  const std::vector<Operation>& all = operations();
  const auto found = std::find_if(all.begin(), all.end(), [text](const Operation& op) {
    return !op.request_start.empty() && text.starts_with(op.request_start);
  });
  return found == all.end() ? NO_OPERATION : static_cast<OperationCode>(found - all.begin());
}

}  // namespace tnwlog
