#include "names/folded_path.h"
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

/* What an open finds or makes. */
struct Target {
  CloudEntry entry;
  CloudEntry parent;
  bool has_parent = false;
  bool existed = false;
  bool create = false; /* a file that is not in the cloud before its close */
};

/* Where an item that is not there would be: a folder at once, a file in the cache alone. */
int create(Service& service, const tnv_wopen_msg& open, const std::string& path, Target* target) {
  if (open.wopen_cdisp == DISP_OPEN_EXISTING || open.wopen_cdisp == DISP_TRUNCATE_EXISTING) {
    return OX_ENOENT;
  }
  if ((open.wopen_flags & WANT_FOLDER) != 0) {
    return service.cloud->make_folder(service.context(), path, &target->entry).error;
  }
  if (const int err = service.files.look_up_remembered(parent_path(path), &target->parent)) {
    return err;
  }
  if (!target->parent.folder) {
    return OX_ENOTDIR;
  }
  target->has_parent = true;
  target->create = true;
  target->entry.name = path.substr(path.rfind('/') + 1);
  target->entry.path = join_path(target->parent.path, target->entry.name);
  return 0;
}

/* The folder, if the cloud told of it with the item that is in it. It may lie behind a link. */
void take_parent(const std::string& path, Target* target) {
  const CloudEntry& entry = target->entry;
  target->has_parent = entry.folder_modified != 0 && folded_path(entry.path) == folded_path(path);
  if (target->has_parent) {
    target->parent.folder = true;
    target->parent.path = parent_path(entry.path);
    target->parent.id = entry.folder_id;
    target->parent.modified = entry.folder_modified;
  }
}

/* With the path reserved. */
int find_or_create(Service& service, const tnv_wopen_msg& open, const std::string& path,
                   Target* target) {
  const int found = service.files.look_up(path, &target->entry);
  if (found == OX_ENOENT) {
    return create(service, open, path, target);
  }
  target->existed = found == 0;
  take_parent(path, target);
  return found != 0 ? found : check_existing(open, target->entry);
}

bool is_valid(const tnv_wopen_msg& open) {
  const uint32_t both = WANT_FOLDER | WANT_FILE;
  return open.wopen_cdisp >= DISP_CREATE_NEW && open.wopen_cdisp <= DISP_TRUNCATE_EXISTING &&
         (open.wopen_flags & both) != both;
}

std::shared_ptr<OpenFile> new_open(const Request& request, const std::string& path) {
  const tnv_wopen_msg& message = request->u.wopen;
  auto open = std::make_shared<OpenFile>();
  open->id = request->hdr.hdr_id;
  open->client_pid = message.wopen_clientid;
  open->client_fd = message.wopen_newfd;
  open->access = message.wopen_accmode & ACCESS_MASK;
  open->share = message.wopen_shmode & SHARE_MASK;
  open->name = path;
  return open;
}

void answer_file(const FileView& view, tnv_wopen_resp* answer) {
  answer->wopen_resp_region_shift = view.shift;
  answer->wopen_resp_rmap_size = view.map_bytes;
  answer->wopen_resp_dmap_size = view.map_bytes;
  answer->wopen_resp_tnflags = (view.map_bytes != 0 ? uint32_t{TNV_FL_MAPPED} : 0) |
                               (view.newer ? uint32_t{TNV_FL_NEWER} : 0);
  answer->wopen_resp_handle = view.handle;
  answer->wopen_resp_fso.fso_seqno = view.fillings;
}

/* The client's process, which takes the local file's handle. It is opened once a connection. */
HANDLE client_of(Session& session) {
  if (!session.client.valid()) {
    const HANDLE process = OpenProcess(PROCESS_DUP_HANDLE, FALSE, session.client_pid);
    session.client = process != nullptr ? FileHandle(process) : FileHandle();
  }
  return session.client.get();
}

int attach_file(Session& session, OpenFile& open, bool empties, Target* target, Reply* reply) {
  FileView view;
  const AttachHow how = {client_of(session), empties, target->create, target->entry};
  if (!session.client.valid()) {
    return last_error();
  }
  if (const int err = open.file->attach(&open.part, target->entry.path, how, &view)) {
    return err;
  }
  answer_file(view, &reply->resp.u.wopen);
  reply->bulk = std::move(view.maps);
  target->entry = view.entry;
  open.item = view.entry.id;
  target->entry.size = view.size;
  target->entry.modified = view.modified;
  return 0;
}

/* OX_EAGAIN: the file took another path meanwhile, so the name is looked up again. */
int open_item(Session& session, const Request& request, const std::string& path, Target* target,
              Reply* reply) {
  Service& service = session.service;
  const tnv_wopen_msg& message = request->u.wopen;
  const bool empties = truncates(message.wopen_cdisp);
  const std::shared_ptr<OpenFile> open = new_open(request, path);
  int err = find_or_create(service, message, path, target);
  err = err != 0 ? err
                 : service.files.add(open, target->entry,
                                     open->access | (empties ? uint32_t{ACCESS_WRITE} : 0));
  if (err == 0 && open->file != nullptr) {
    err = attach_file(session, *open, empties && !target->create, target, reply);
    if (err != 0) {
      service.files.remove(*open);
    }
  }
  return err;
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
  if (!session.is_client(message.wopen_clientid)) {
    return OX_EPERM;
  }
  if (session.client_pid == 0) {
    session.client_pid = message.wopen_clientid;
    service.clients.join(session.number, session.client_pid);
  }
  Target target;
  {
    const auto reserved = service.files.reservations().reserve({{folded_path(path)}});
    err = OX_EAGAIN;
    for (int tries = 0; err == OX_EAGAIN && tries < 8; tries++) {
      target = {};
      err = open_item(session, request, path, &target, reply);
    }
  }
  if (err != 0) {
    return err;
  }
  if (!target.has_parent && !path.empty()) {
    target.has_parent = service.files.look_up_remembered(parent_path(path), &target.parent) == 0;
  }
  tnv_wopen_resp& answer = reply->resp.u.wopen;
  answer.wopen_resp_fso = fso_of(target.entry, target.has_parent ? &target.parent : nullptr,
                                 answer.wopen_resp_fso.fso_seqno);
  answer.wopen_resp_stat = stat_of(target.entry);
  const bool may_create =
      message.wopen_cdisp == DISP_CREATE_ALWAYS || message.wopen_cdisp == DISP_OPEN_ALWAYS;
  return target.existed && may_create ? TNV_OPEN_EXISTED : 0;
}

}  // namespace tarnd
