#include "ox_errno.h"
#include "ox_logging.h"
#include "protocol/operations.h"
#include "protocol/records.h"

namespace tarnd {
namespace {

/* Create dispositions on the wire. */
enum : uint32_t {
  DISP_CREATE_NEW = 1,
  DISP_CREATE_ALWAYS,
  DISP_OPEN_EXISTING,
  DISP_OPEN_ALWAYS,
  DISP_TRUNCATE_EXISTING
};
/* Open flags: native create options. */
enum : uint32_t { WANT_FOLDER = 0x1, WANT_FILE = 0x40 };

bool truncates(uint32_t disposition) {
  return disposition == DISP_CREATE_ALWAYS || disposition == DISP_TRUNCATE_EXISTING;
}

/* Whether an item that is there may be opened so. */
int check_existing(const tnv_wopen_msg& open, const CloudEntry& entry) {
  if (open.wopen_cdisp == DISP_CREATE_NEW) {
    return OX_EEXIST;
  }
  if (entry.folder) {
    return (open.wopen_flags & WANT_FILE) != 0 || truncates(open.wopen_cdisp) ? OX_EPERM : 0;
  }
  if ((open.wopen_flags & WANT_FOLDER) != 0) {
    return OX_ENOTDIR;
  }
  const bool writes = (open.wopen_accmode & ACCESS_WRITE) != 0 || truncates(open.wopen_cdisp);
  return writes && (entry.attributes & READ_ONLY_ATTRIBUTE) != 0 ? OX_EPERM : 0;
}

/*
 * Makes an item that is not there: an empty file, at once, so that it is seen and nobody else makes
 * it.
 */
int create(Cloud& cloud, const tnv_wopen_msg& open, const std::string& path) {
  if (open.wopen_cdisp == DISP_OPEN_EXISTING || open.wopen_cdisp == DISP_TRUNCATE_EXISTING) {
    return OX_ENOENT;
  }
  if ((open.wopen_flags & WANT_FOLDER) != 0) {
    return cloud.make_folder(path);
  }
  return cloud.write(path, 0, [](uint64_t, void*, size_t, size_t*) { return OX_EIO; });
}

/* Finds or makes the item: 0 or TNV_OPEN_EXISTED, or an error. With names() held. */
int find_or_create(Cloud& cloud, const tnv_wopen_msg& open, const std::string& path,
                   CloudEntry* entry) {
  const int found = cloud.status(path, entry);
  if (found != 0 && found != OX_ENOENT) {
    return found;
  }
  if (found == 0) {
    const int err = check_existing(open, *entry);
    const bool may_create =
        open.wopen_cdisp == DISP_CREATE_ALWAYS || open.wopen_cdisp == DISP_OPEN_ALWAYS;
    return err != 0 ? err : may_create ? TNV_OPEN_EXISTED : 0;
  }
  const int err = create(cloud, open, path);
  return err != 0 ? err : cloud.status(path, entry);
}

bool is_valid(const tnv_wopen_msg& open) {
  const uint32_t both = WANT_FOLDER | WANT_FILE;
  return open.wopen_cdisp >= DISP_CREATE_NEW && open.wopen_cdisp <= DISP_TRUNCATE_EXISTING &&
         (open.wopen_flags & both) != both;
}

std::shared_ptr<OpenFile> new_open(const Request& request) {
  const tnv_wopen_msg& message = request->u.wopen;
  auto open = std::make_shared<OpenFile>();
  open->id = request->hdr.hdr_id;
  open->client_pid = message.wopen_clientid;
  open->client_fd = message.wopen_newfd;
  open->access = message.wopen_accmode & ACCESS_MASK;
  open->share = message.wopen_shmode & SHARE_MASK;
  return open;
}

void answer_file(const FileView& view, int shift, tnv_wopen_resp* answer) {
  answer->wopen_resp_region_shift = shift;
  answer->wopen_resp_rmap_size = view.map_bytes;
  answer->wopen_resp_dmap_size = view.map_bytes;
  answer->wopen_resp_tnflags = TNV_FL_MAPPED | (view.newer ? uint32_t{TNV_FL_NEWER} : 0);
  answer->wopen_resp_handle = view.handle;
}

/*
 * The part that concerns one file only: without the namespace lock, since it may wait for a fetch
 * or a write-back of that file.
 */
int attach_file(Session& session, OpenFile& open, bool truncate, CloudEntry* entry, Reply* reply) {
  FileView view;
  if (const int err = open.file->attach(&open.part, truncate, open.client_pid, &view)) {
    return err;
  }
  answer_file(view, session.service.options.region_shift, &reply->resp.u.wopen);
  reply->bulk = std::move(view.maps);
  *entry = view.entry;
  entry->size = view.size;
  entry->modified = view.modified;
  reply->resp.u.wopen.wopen_resp_fso.fso_seqno = view.fillings;
  return 0;
}

}  // namespace

int serve_open(Session& session, const Request& request, Reply* reply) {
  Service& service = session.service;
  const tnv_wopen_msg& message = request->u.wopen;
  std::string path;
  int err = request_path(session, request, int64_t{message.wopen_pathlen} - 1, &path);
  if (err != 0 || !is_valid(message)) {
    return err != 0 ? err : OX_EINVAL;
  }
  service.clients.join(session.number, message.wopen_clientid);
  const std::shared_ptr<OpenFile> open = new_open(request);
  const bool empties = truncates(message.wopen_cdisp);
  CloudEntry entry;
  int found = 0;
  {
    const std::lock_guard names(service.files.names());
    found = find_or_create(*service.cloud, message, path, &entry);
    err = found == TNV_OPEN_EXISTED ? 0 : found;
    if (err == 0) {
      open->name = path;
      err = service.files.add(open, entry, open->access | (empties ? uint32_t{ACCESS_WRITE} : 0));
    }
  }
  if (err == 0 && open->file != nullptr) {
    err = attach_file(session, *open, empties, &entry, reply);
    if (err != 0) {
      service.files.remove(*open);
    }
  }
  if (err != 0) {
    return err;
  }
  CloudEntry parent;
  tnv_wopen_resp& answer = reply->resp.u.wopen;
  answer.wopen_resp_fso =
      fso_of(entry, parent_of(*service.cloud, path, &parent), answer.wopen_resp_fso.fso_seqno);
  answer.wopen_resp_stat = stat_of(entry);
  return found;
}

}  // namespace tarnd
