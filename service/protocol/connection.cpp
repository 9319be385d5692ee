#include "protocol/connection.h"

#include <winsock2.h>
/* after winsock2.h */
#include <windows.h>

#include <algorithm>
#include <exception>

#include "ox_errno.h"
#include "ox_logging.h"
#include "protocol/records.h"
#include "tnv_connio_win.h"

namespace tarnd {
namespace {

constexpr size_t MAX_SEND = size_t{1} << 30;
constexpr size_t INFOS_AT_ONCE = 256; /* 300 KiB */

bool is_stopping(vfs_handle* vh) { return static_cast<const Service*>(vh->vfs_private)->stopping; }

}  // namespace

Connection::Connection(Service& service, uint64_t number, int socket)
    : session_{.service = service, .number = number, .share = {}, .client = {}},
      reader_(static_cast<uint64_t>(socket), service.stopping) {
  vh_.vfs_fd = socket;
  vh_.vfs_private = &service;
  vh_.vfs_is_exiting = is_stopping;
  session_.peer_pid = peer_process(static_cast<uint64_t>(socket));
  session_.client_pid = session_.peer_pid;
}

void Connection::run() {
  /* Memory is the one thing that may run out in here; it ends the connection, not the service. */
  try {
    while (!session_.ends && read_request() && answer()) {
    }
  } catch (const std::exception& fault) {
    OX_LOG(OX_ERROR_LEVEL, OX_ENOMEM, "Connection %llu: %s", session_.number, fault.what());
  }
  if (open_) {
    closesocket(static_cast<SOCKET>(vh_.vfs_fd));
  }
  session_.service.connection_ended(session_.number);
  done_ = true;
}

/* The transport closes the socket of a peer that hung up, and says so with this error. */
bool Connection::broken(int err) {
  open_ = open_ && err != WSAECONNRESET;
  return err != 0;
}

/* The header first: its length decides how much there is to read. A secret is not dumped. */
bool Connection::read_request() {
  Request request(&storage_);
  request.clear();
  if (!reader_.take(request.msg(), sizeof(tnv_msghdr))) {
    return false;
  }
  clock_gettime(CLOCK_REALTIME, &vh_.vfs_curmsg_ts);
  tnv_debug_dump_msg(reinterpret_cast<char*>(request.msg()), sizeof(tnv_msghdr));
  if (!request.make_room()) {
    refuse_length();
    return false;
  }
  if (!reader_.take(request.rest(), request.rest_size())) {
    return false;
  }
  if (!request.has_secret()) {
    tnv_debug_dump_msg(request.rest(), static_cast<int>(request.rest_size()));
  }
  return true;
}

/* Where the next request would begin is unknown: the connection ends with this answer. */
void Connection::refuse_length() {
  const Request request(&storage_);
  OX_LOG(OX_ERROR_LEVEL, OX_EINVAL, "A request of %u bytes", request->hdr.hdr_len);
  session_.service.counters.malformed++;
  request.msg()->hdr.hdr_len = TNV_MSG_FIXED; /* what the trace may look at */
  Reply reply;
  reply.resp.rhdr.rhdr_errno = OX_EINVAL;
  send(request, &reply);
}

bool Connection::answer() {
  const Request request(&storage_);
  Reply reply;
  session_.service.counters.count_request(request->hdr.hdr_opcode);
  serve(request, &reply);
  if (request.has_secret()) {
    request.wipe_secret();
    reader_.wipe_taken();
  }
  delay(request->hdr.hdr_opcode);
  const bool sent = send(request, &reply);
  if (session_.stops) {
    session_.service.stopping = true;
  }
  return sent;
}

void Connection::serve(const Request& request, Reply* reply) {
  tnv_resphdr& header = reply->resp.rhdr;
  const Operation* operation = find_operation(request->hdr.hdr_opcode);
  if (operation == nullptr) {
    header.rhdr_errno = OX_ENOSYS;
    return;
  }
  header.rhdr_len = operation->payload;
  if (operation->needs_share && !session_.connected) {
    header.rhdr_errno = OX_EINVAL;
  } else if (operation->needs_token && !session_.service.credentials.authorised()) {
    header.rhdr_errno = OX_EPERM;
    header.rhdr_tn_unauthd = 1;
  } else {
    header.rhdr_errno = static_cast<ox_u32>(operation->run(session_, request, reply));
    const bool refused = header.rhdr_errno == OX_EPERM && session_.service.credentials.refused();
    header.rhdr_tn_unauthd |= refused ? 1 : 0;
  }
  if (request->hdr.hdr_opcode == TNV_OP_WIN_CONNECT && header.rhdr_errno == 0) {
    note_connect(request);
  }
}

/* What the traces of this connection say of it. */
void Connection::note_connect(const Request& request) {
  const tnv_wconn_msg& connect = request->u.wconn;
  copy_field(vh_.vfs_rhost, field_text(connect.wconmsg_rhost));
  copy_field(vh_.vfs_cache_dir, field_text(connect.wconmsg_cache_dir));
  copy_field(vh_.vfs_user, field_text(connect.wconmsg_user));
  copy_field(vh_.vfs_da_devid, field_text(connect.wconmsg_devid));
  vh_.vfs_share_path = session_.share.data();
  vh_.vfs_peer_tid = connect.wconmsg_pid;
  OX_LOG(OX_INFO_LEVEL, 0, "Connection %llu: share \"%s\"", session_.number,
         session_.share.c_str());
}

void Connection::delay(uint32_t opcode) const {
  const Options& options = session_.service.options;
  if (options.latency_ms != 0 &&
      (options.latency_ops.empty() || options.latency_ops.contains(opcode))) {
    Sleep(options.latency_ms);
  }
}

bool Connection::send(const Request& request, Reply* reply) {
  tnv_resphdr& header = reply->resp.rhdr;
  header.rhdr_id = request->hdr.hdr_id;
  header.rhdr_opcode = request->hdr.hdr_opcode;
  header.rhdr_fd2xfer = -1;
  if (session_.service.options.first_utxid != 0) {
    header.rhdr_utxid = session_.service.next_utxid++;
  }
  vh_.vfs_utxid = header.rhdr_utxid;
  vh_.vfs_target_path = reply->target.empty() ? nullptr : reply->target.c_str();
  const int err =
      tnv_send_response(&vh_, static_cast<int>(vh_.vfs_fd), request.msg(), &reply->resp);
  vh_.vfs_target_path = nullptr;
  return !broken(err) && send_bulk(reply->bulk.data(), reply->bulk.size()) &&
         send_listing(reply->order);
}

bool Connection::send_bulk(uint8_t* bytes, size_t size) {
  for (size_t sent = 0; sent < size;) {
    const size_t count = std::min(size - sent, MAX_SEND);
    if (broken(tnv_sendbytes(&vh_, static_cast<int>(vh_.vfs_fd), nullptr, bytes + sent,
                             static_cast<int>(count)))) {
      return false;
    }
    sent += count;
  }
  return true;
}

bool Connection::send_listing(const std::vector<const CloudEntry*>& listing) {
  std::vector<tnw_fileinfo> infos;
  for (size_t sent = 0; sent < listing.size(); sent += infos.size()) {
    infos.resize(std::min(listing.size() - sent, INFOS_AT_ONCE));
    for (size_t i = 0; i < infos.size(); i++) {
      info_of(*listing[sent + i], &infos[i]);
    }
    if (!send_bulk(reinterpret_cast<uint8_t*>(infos.data()), infos.size() * sizeof infos[0])) {
      return false;
    }
  }
  return true;
}

}  // namespace tarnd
