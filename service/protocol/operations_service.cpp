#include <windows.h>

#include <algorithm>

#include "build_info.h"
#include "names/share_path.h"
#include "ox_errno.h"
#include "ox_logging.h"
#include "protocol/operations.h"
#include "protocol/records.h"

namespace tarnd {
namespace {

std::string computer_name() {
  char name[MAX_COMPUTERNAME_LENGTH + 1];
  DWORD size = sizeof name;
  return GetComputerNameA(name, &size) != 0 ? std::string(name, size) : std::string();
}

ox_tn_args_t start_arguments(const Service& service) {
  ox_tn_args_t args = {};
  copy_field(args.sa_addr, service.options.addr);
  copy_field(args.sa_user, service.options.user);
  copy_field(args.sa_cfs, service.options.cfs);
  copy_field(args.sa_logfile, service.options.logfile);
  args.sa_recovery = static_cast<ox_s32>(service.recovered.load());
  args.sa_vfs = service.options.vfs ? 1 : 0;
  return args;
}

/* How many files have changes that are not in the cloud; the field has room for 15 characters. */
std::string status_text(size_t waiting) {
  return waiting == 0 ? "ok" : "ok, " + std::to_string(std::min<size_t>(waiting, 99999)) + " wait";
}

}  // namespace

/* The share must be there; the client's process is that of the connecting thread. */
int serve_connect(Session& session, const Request& request, Reply* reply) {
  const tnv_wconn_msg& connect = request->u.wconn;
  std::string text;
  std::string share;
  if (!request.text(int64_t{connect.wconmsg_share_path_len} - 1, &text)) {
    return OX_EINVAL;
  }
  int err = normalise_share_path("", text, &share);
  CloudEntry root;
  if (err == 0) {
    err = session.service.cloud->status(session.service.context(), share, &root).error;
  }
  if (err != 0 || !root.folder) {
    return err != 0 ? err : OX_ENOTDIR;
  }
  session.client_pid =
      session.peer_pid != 0 ? session.peer_pid : process_of_thread(connect.wconmsg_pid);
  if (session.client_pid != 0) {
    session.service.clients.join(session.number, session.client_pid);
  }
  session.share = share;
  session.connected = true;
  tnv_conn_resp& answer = reply->resp.u.conn;
  answer.conresp_shandle = session.number;
  answer.conresp_stid = GetCurrentThreadId();
  answer.connresp_stat = stat_of(root);
  answer.connresp_sfid = root.id;
  return 0;
}

int serve_disconnect(Session& session, const Request&, Reply*) {
  session.ends = true;
  return 0;
}

int serve_set_proxy(Session& session, const Request& request, Reply*) {
  const tnv_wsetproxy_msg& proxy = request->u.wsetproxy;
  std::vector<std::string> texts;
  if (!request.texts({proxy.wproxy_server_len, proxy.wproxy_uname_len, proxy.wproxy_passwd_len},
                     &texts)) {
    return OX_EINVAL;
  }
  OX_LOG(OX_INFO_LEVEL, 0, "Proxy %s for user %s", texts[0].c_str(), texts[1].c_str());
  session.service.credentials.set_proxy(texts[0], texts[1], texts[2]);
  return 0;
}

int serve_update_token(Session& session, const Request& request, Reply* reply) {
  std::string token;
  if (!request.text(request->u.updatetoken.ut_len, &token)) {
    return OX_EINVAL;
  }
  const bool accepted = session.service.credentials.set_token(token);
  if (accepted) {
    session.service.files.uploads().kick();
  }
  OX_LOG(OX_INFO_LEVEL, 0, "Token of %zu bytes %s", token.size(),
         accepted ? "accepted" : "not accepted");
  reply->resp.u.updatetoken.wut_success = accepted ? 1 : 0;
  reply->resp.rhdr.rhdr_tn_unauthd = accepted ? 0 : 1;
  return accepted ? 0 : OX_EPERM;
}

int serve_get_service_version(Session& session, const Request&, Reply* reply) {
  Service& service = session.service;
  const bool authorised = service.credentials.authorised() && !service.credentials.refused();
  ox_get_version_t& version = reply->resp.u.get_version.ver_fields;
  copy_field(version.gv_version, VERSION);
  copy_field(version.gv_git_hash, GIT_HASH);
  copy_field(version.gv_host, computer_name());
  copy_field(version.gv_mode, "reference");
  copy_field(version.gv_state, service.stopping ? "stopping" : "running");
  copy_field(version.gv_status, authorised ? status_text(service.files.unsaved()) : "unauthorised");
  copy_field(version.gv_build_date, BUILD_DATE);
  copy_field(version.gv_build_host, BUILD_HOST);
  copy_field(version.gv_build_os, BUILD_OS);
  copy_field(version.gv_build_user, BUILD_USER);
  copy_field(version.gv_build_type, BUILD_TYPE);
  copy_field(version.gv_device_id, service.options.tn_devid);
  copy_field(version.gv_da_device_id, service.options.da_devid);
  version.gv_vfs_enabled = service.options.vfs ? 1 : 0;
  version.gv_authorized = authorised ? 1 : 0;
  version.gv_process_id = static_cast<ox_s32>(GetCurrentProcessId());
  version.gv_tn_args = start_arguments(service);
  return 0;
}

int serve_shutdown(Session& session, const Request&, Reply*) {
  OX_LOG(OX_INFO_LEVEL, 0, "Shutdown requested");
  session.stops = true;
  return 0;
}

}  // namespace tarnd
