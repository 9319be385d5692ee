#include "ox_errno.h"
#include "protocol/operations.h"

namespace tarnd {

/* Also ends a listing and a folder's open, which have nothing to write back. */
int serve_close(Session& session, const Request& request, Reply* reply) {
  const tnv_wclose_msg& close = request->u.wclose;
  const std::shared_ptr<OpenFile> open =
      session.service.files.find(close.wclose_omsgid, session.client_pid);
  if (open == nullptr) {
    return OX_EBADF;
  }
  reply->target = open->name;
  if (open->file != nullptr) {
    const bool modified = (close.wclose_tnflags & TNV_FL_MODIFIED) != 0;
    const int err =
        open->file->detach(&open->part, modified ? Closing::MODIFIED : Closing::UNMODIFIED);
    if (err != 0) {
      return err;
    }
  }
  session.service.files.remove(*open);
  session.service.files.trim();
  return 0;
}

/*
 * The user's last handle is closed: the open blocks nobody any more, and its range locks go. It may
 * still read and write, for a mapped file.
 */
int serve_cleanup(Session& session, const Request& request, Reply* reply) {
  const std::shared_ptr<OpenFile> open =
      session.service.files.find(request->u.wcleanup.wcl_omsgid, session.client_pid);
  if (open == nullptr) {
    return OX_EBADF;
  }
  reply->target = open->name;
  session.service.files.clean_up(*open);
  return 0;
}

}  // namespace tarnd
