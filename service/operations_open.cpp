#include "operations.h"
#include "ox_errno.h"
#include "ox_logging.h"
#include "records.h"

namespace tarnd {
namespace {

/* Create dispositions on the wire. */
enum : uint32_t { kCreateNew = 1, kCreateAlways, kOpenExisting, kOpenAlways, kTruncateExisting };
/* Open flags: native create options. */
enum : uint32_t { kWantFolder = 0x1, kWantFile = 0x40 };

bool Truncates(uint32_t disposition) {
  return disposition == kCreateAlways || disposition == kTruncateExisting;
}

/* Whether an item that is there may be opened so. */
int CheckExisting(const tnv_wopen_msg& open, const CloudEntry& entry) {
  if (open.wopen_cdisp == kCreateNew) {
    return OX_EEXIST;
  }
  if (entry.folder) {
    return (open.wopen_flags & kWantFile) != 0 || Truncates(open.wopen_cdisp) ? OX_EPERM : 0;
  }
  if ((open.wopen_flags & kWantFolder) != 0) {
    return OX_ENOTDIR;
  }
  const bool writes = (open.wopen_accmode & kAccessWrite) != 0 || Truncates(open.wopen_cdisp);
  return writes && (entry.attributes & kReadOnlyAttribute) != 0 ? OX_EPERM : 0;
}

/*
 * Makes an item that is not there: an empty file, at once, so that it is seen and nobody else makes
 * it.
 */
int Create(Cloud& cloud, const tnv_wopen_msg& open, const std::string& path) {
  if (open.wopen_cdisp == kOpenExisting || open.wopen_cdisp == kTruncateExisting) {
    return OX_ENOENT;
  }
  if ((open.wopen_flags & kWantFolder) != 0) {
    return cloud.MakeFolder(path);
  }
  return cloud.Write(path, 0, [](uint64_t, void*, size_t, size_t*) { return OX_EIO; });
}

/* Finds or makes the item: 0 or TNV_OPEN_EXISTED, or an error. With names() held. */
int FindOrCreate(Cloud& cloud, const tnv_wopen_msg& open, const std::string& path,
                 CloudEntry* entry) {
  const int found = cloud.Status(path, entry);
  if (found != 0 && found != OX_ENOENT) {
    return found;
  }
  if (found == 0) {
    const int err = CheckExisting(open, *entry);
    const bool may_create = open.wopen_cdisp == kCreateAlways || open.wopen_cdisp == kOpenAlways;
    return err != 0 ? err : may_create ? TNV_OPEN_EXISTED : 0;
  }
  const int err = Create(cloud, open, path);
  return err != 0 ? err : cloud.Status(path, entry);
}

bool IsValid(const tnv_wopen_msg& open) {
  const uint32_t both = kWantFolder | kWantFile;
  return open.wopen_cdisp >= kCreateNew && open.wopen_cdisp <= kTruncateExisting &&
         (open.wopen_flags & both) != both;
}

std::shared_ptr<OpenFile> NewOpen(const Request& request) {
  const tnv_wopen_msg& message = request->u.wopen;
  auto open = std::make_shared<OpenFile>();
  open->id = request->hdr.hdr_id;
  open->client_pid = message.wopen_clientid;
  open->client_fd = message.wopen_newfd;
  open->access = message.wopen_accmode & kAccessMask;
  open->share = message.wopen_shmode & kShareMask;
  return open;
}

void AnswerFile(const FileView& view, int shift, tnv_wopen_resp* answer) {
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
int AttachFile(Session& session, OpenFile& open, bool truncate, CloudEntry* entry, Reply* reply) {
  FileView view;
  if (const int err = open.file->Attach(&open.part, truncate, open.client_pid, &view)) {
    return err;
  }
  AnswerFile(view, session.service.options.region_shift, &reply->resp.u.wopen);
  reply->bulk = std::move(view.maps);
  *entry = view.entry;
  entry->size = view.size;
  entry->modified = view.modified;
  reply->resp.u.wopen.wopen_resp_fso.fso_seqno = view.fillings;
  return 0;
}

}  // namespace

int Open(Session& session, const Request& request, Reply* reply) {
  Service& service = session.service;
  const tnv_wopen_msg& message = request->u.wopen;
  std::string path;
  int err = RequestPath(session, request, int64_t{message.wopen_pathlen} - 1, &path);
  if (err != 0 || !IsValid(message)) {
    return err != 0 ? err : OX_EINVAL;
  }
  service.clients.Join(session.number, message.wopen_clientid);
  const std::shared_ptr<OpenFile> open = NewOpen(request);
  const bool truncates = Truncates(message.wopen_cdisp);
  CloudEntry entry;
  int found = 0;
  {
    const std::lock_guard names(service.files.names());
    found = FindOrCreate(*service.cloud, message, path, &entry);
    err = found == TNV_OPEN_EXISTED ? 0 : found;
    if (err == 0) {
      open->name = path;
      err = service.files.Add(open, entry, open->access | (truncates ? uint32_t{kAccessWrite} : 0));
    }
  }
  if (err == 0 && open->file != nullptr) {
    err = AttachFile(session, *open, truncates, &entry, reply);
    if (err != 0) {
      service.files.Remove(*open);
    }
  }
  if (err != 0) {
    return err;
  }
  CloudEntry parent;
  tnv_wopen_resp& answer = reply->resp.u.wopen;
  answer.wopen_resp_fso =
      FsoOf(entry, ParentOf(*service.cloud, path, &parent), answer.wopen_resp_fso.fso_seqno);
  answer.wopen_resp_stat = StatOf(entry);
  return found;
}

}  // namespace tarnd
