#include "ox_errno.h"
#include "protocol/operations.h"

namespace tarnd {
namespace {

/*
 * The open file that a region request is about: null, and the error in `*err`, when there is none.
 */
std::shared_ptr<OpenFile> find_file(Session& session, const cfs_id_t& id, Reply* reply, int* err) {
  std::shared_ptr<OpenFile> open = session.service.files.find(id, session.client_pid);
  if (open == nullptr || open->file == nullptr) {
    *err = open == nullptr ? OX_EBADF : OX_EISDIR;
    return nullptr;
  }
  reply->target = open->name;
  return open;
}

}  // namespace

int serve_cache_region(Session& session, const Request& request, Reply* reply) {
  const tnv_cache_region_msg& asked = request->u.cache_region;
  int err = 0;
  const auto open = find_file(session, asked.cache_read_omsgid, reply, &err);
  if (open == nullptr) {
    return err;
  }
  RegionAnswer answer;
  err = open->file->cache_regions(&open->part, asked.cache_read_off, asked.cache_read_len,
                                  (asked.cache_read_trunc & 1) != 0, &answer);
  tnv_cache_region_resp& resp = reply->resp.u.cache_region;
  resp.cr_soff = answer.start;
  resp.cr_sz = answer.cached;
  resp.cr_fsz = answer.size;
  resp.cr_clear = answer.clear ? 1 : 0;
  return err;
}

int serve_dirty_region(Session& session, const Request& request, Reply* reply) {
  const tnv_dirty_region_msg& asked = request->u.dirty_region;
  int err = 0;
  const auto open = find_file(session, asked.cache_write_omsgid, reply, &err);
  if (open == nullptr) {
    return err;
  }
  RegionAnswer answer;
  err =
      open->file->dirty_regions(&open->part, asked.cache_write_off, asked.cache_write_len, &answer);
  reply->resp.u.dirty_region.dr_clear = answer.clear ? 1 : 0;
  return err;
}

int serve_truncate(Session& session, const Request& request, Reply* reply) {
  int err = 0;
  const auto open = find_file(session, request->u.ftruncate.cache_trunc_omsgid, reply, &err);
  return open == nullptr ? err
                         : open->file->truncate(&open->part, request->u.ftruncate.cache_trunc_nfsz);
}

}  // namespace tarnd
