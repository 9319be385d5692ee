#include "ox_errno.h"
#include "protocol/operations.h"

namespace tarnd {

/*
 * The request names its open by the client's descriptor and the file's id; the client is the one
 * behind the connection.
 */
int serve_range_lock(Session& session, const Request& request, Reply* reply) {
  const tnv_wbrl_msg& brl = request->u.wbrl;
  Service& service = session.service;
  const auto find = [&] {
    return service.files.find_descriptor(session.client_pid, brl.wbrl_fd, brl.wbrl_gid);
  };
  const std::shared_ptr<OpenFile> open = find();
  if (open == nullptr) {
    return OX_EBADF;
  }
  reply->target = open->name;
  const RangeLocks::Owner owner{open->part.number, brl.wbrl_pid};
  RangeLocks& locks = open->file->locks();
  int err = 0;
  switch (brl.wbrl_type) {
    case TN_SMBLK_SH_BRL:
    case TN_SMBLK_EX_BRL:
      err = locks.lock(owner, brl.wbrl_off, brl.wbrl_len, brl.wbrl_type == TN_SMBLK_EX_BRL);
      break;
    case TN_SMBLK_UNLOCK_BRL:
      err = locks.unlock(owner, brl.wbrl_off, brl.wbrl_len);
      break;
    default:
      err = OX_EINVAL;
  }
  /* An open that was closed meanwhile has released its locks already. */
  if (err == 0 && find() != open) {
    locks.release(open->part.number);
    return OX_EBADF;
  }
  return err;
}

}  // namespace tarnd
