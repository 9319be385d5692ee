#include "operations.h"
#include "ox_errno.h"

namespace tarnd {

// The request names its open by the client's descriptor and the file's id; the client is the one
// behind the connection.
int RangeLock(Session& session, const Request& request, Reply* reply) {
  const tnv_wbrl_msg& brl = request->u.wbrl;
  Service& service = session.service;
  const std::shared_ptr<OpenFile> open =
      service.files.FindDescriptor(service.clients.Of(session.number), brl.wbrl_fd, brl.wbrl_gid);
  if (open == nullptr) {
    return OX_EBADF;
  }
  reply->target = open->name;
  const RangeLocks::Owner owner{open->part.number, brl.wbrl_pid};
  RangeLocks& locks = open->file->locks();
  switch (brl.wbrl_type) {
    case TN_SMBLK_SH_BRL:
    case TN_SMBLK_EX_BRL:
      return locks.Lock(owner, brl.wbrl_off, brl.wbrl_len, brl.wbrl_type == TN_SMBLK_EX_BRL);
    case TN_SMBLK_UNLOCK_BRL:
      return locks.Unlock(owner, brl.wbrl_off, brl.wbrl_len);
    default:
      return OX_EINVAL;
  }
}

}  // namespace tarnd
