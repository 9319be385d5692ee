#include <windows.h>

#include "build_info.h"
#include "operations.h"
#include "ox_errno.h"
#include "ox_logging.h"
#include "records.h"
#include "share_path.h"

namespace tarnd {
namespace {

std::string ComputerName() {
  char name[MAX_COMPUTERNAME_LENGTH + 1];
  DWORD size = sizeof name;
  return GetComputerNameA(name, &size) != 0 ? std::string(name, size) : std::string();
}

ox_tn_args_t StartArguments(const Service& service) {
  ox_tn_args_t args = {};
  CopyField(args.sa_addr, service.options.addr);
  CopyField(args.sa_user, service.options.user);
  CopyField(args.sa_cfs, service.options.cfs);
  CopyField(args.sa_logfile, service.options.logfile);
  args.sa_recovery = static_cast<ox_s32>(service.recovered.load());
  args.sa_vfs = service.options.vfs ? 1 : 0;
  return args;
}

}  // namespace

/* The share must be there; the client's process is that of the connecting thread. */
int Connect(Session& session, const Request& request, Reply* reply) {
  const tnv_wconn_msg& connect = request->u.wconn;
  std::string text;
  std::string share;
  if (!request.Text(int64_t{connect.wconmsg_share_path_len} - 1, &text)) {
    return OX_EINVAL;
  }
  int err = NormaliseSharePath("", text, &share);
  CloudEntry root;
  if (err == 0) {
    err = session.service.cloud->Status(share, &root);
  }
  if (err != 0 || !root.folder) {
    return err != 0 ? err : OX_ENOTDIR;
  }
  if (const uint32_t pid = ProcessOfThread(connect.wconmsg_pid)) {
    session.service.clients.Join(session.number, pid);
  }
  session.share = share;
  session.connected = true;
  tnv_conn_resp& answer = reply->resp.u.conn;
  answer.conresp_shandle = session.number;
  answer.conresp_stid = GetCurrentThreadId();
  answer.connresp_stat = StatOf(root);
  answer.connresp_sfid = root.id;
  return 0;
}

int Disconnect(Session& session, const Request&, Reply*) {
  session.ends = true;
  return 0;
}

int SetProxy(Session& session, const Request& request, Reply*) {
  const tnv_wsetproxy_msg& proxy = request->u.wsetproxy;
  std::vector<std::string> texts;
  if (!request.Texts({proxy.wproxy_server_len, proxy.wproxy_uname_len, proxy.wproxy_passwd_len},
                     &texts)) {
    return OX_EINVAL;
  }
  OX_LOG(OX_INFO_LEVEL, 0, "Proxy %s for user %s", texts[0].c_str(), texts[1].c_str());
  session.service.credentials.SetProxy({texts[0], texts[1], texts[2]});
  return 0;
}

int UpdateToken(Session& session, const Request& request, Reply* reply) {
  std::string token;
  if (!request.Text(request->u.updatetoken.ut_len, &token)) {
    return OX_EINVAL;
  }
  const bool accepted = session.service.credentials.SetToken(token);
  OX_LOG(OX_INFO_LEVEL, 0, "Token of %zu bytes %s", token.size(),
         accepted ? "accepted" : "not accepted");
  reply->resp.u.updatetoken.wut_success = accepted ? 1 : 0;
  reply->resp.rhdr.rhdr_tn_unauthd = accepted ? 0 : 1;
  return accepted ? 0 : OX_EPERM;
}

int GetServiceVersion(Session& session, const Request&, Reply* reply) {
  Service& service = session.service;
  const bool authorised = service.credentials.Authorised();
  ox_get_version_t& version = reply->resp.u.get_version.ver_fields;
  CopyField(version.gv_version, kVersion);
  CopyField(version.gv_git_hash, kGitHash);
  CopyField(version.gv_host, ComputerName());
  CopyField(version.gv_mode, "reference");
  CopyField(version.gv_state, service.stopping ? "stopping" : "running");
  CopyField(version.gv_status, authorised ? "ok" : "unauthorised");
  CopyField(version.gv_build_date, kBuildDate);
  CopyField(version.gv_build_host, kBuildHost);
  CopyField(version.gv_build_os, kBuildOs);
  CopyField(version.gv_build_user, kBuildUser);
  CopyField(version.gv_build_type, kBuildType);
  CopyField(version.gv_device_id, service.options.tn_devid);
  CopyField(version.gv_da_device_id, service.options.da_devid);
  version.gv_vfs_enabled = service.options.vfs ? 1 : 0;
  version.gv_authorized = authorised ? 1 : 0;
  version.gv_process_id = static_cast<ox_s32>(GetCurrentProcessId());
  version.gv_tn_args = StartArguments(service);
  return 0;
}

int Shutdown(Session& session, const Request&, Reply*) {
  OX_LOG(OX_INFO_LEVEL, 0, "Shutdown requested");
  session.stops = true;
  return 0;
}

}  // namespace tarnd
