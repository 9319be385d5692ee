#include <algorithm>

#include "operations.h"
#include "ox_errno.h"
#include "ox_logging.h"
#include "records.h"
#include "share_path.h"

namespace tarnd {
namespace {

/* The listing's records, in the order of their names. */
void AppendInfos(Service& service, std::vector<CloudEntry> entries, Reply* reply) {
  std::sort(entries.begin(), entries.end(),
            [](const CloudEntry& a, const CloudEntry& b) { return a.name < b.name; });
  reply->bulk.reserve(entries.size() * sizeof(tnw_fileinfo));
  for (CloudEntry& entry : entries) {
    tnw_fileinfo info;
    service.files.Overlay(&entry);
    if (!InfoOf(entry, &info)) {
      OX_LOG(OX_WARN_LEVEL, 0, "A name too long for a listing: %s", entry.name.c_str());
      continue;
    }
    const uint8_t* bytes = reinterpret_cast<const uint8_t*>(&info);
    reply->bulk.insert(reply->bulk.end(), bytes, bytes + sizeof info);
  }
  reply->resp.u.wdenum.wde_fi_len = reply->bulk.size() / sizeof(tnw_fileinfo);
}

/*
 * A listing is an open that asks for nothing: the client closes it like a file, or it ends with the
 * client's process.
 */
int AddListing(Session& session, const Request& request, const CloudEntry& folder,
               const std::string& path) {
  Service& service = session.service;
  const std::set<uint32_t> processes = service.clients.Of(session.number);
  auto open = std::make_shared<OpenFile>();
  open->id = request->hdr.hdr_id;
  open->client_pid = processes.empty() ? 0 : *processes.begin();
  open->name = path;
  return service.files.AddListing(open, folder);
}

/* The item of a rename, delete or can-delete, and whether it may go. With names() held. */
int FindMovable(Service& service, const std::string& path, const std::string& share,
                CloudEntry* entry) {
  if (path == share) {
    return OX_EPERM;
  }
  const int err = service.cloud->Status(path, entry);
  return err != 0 ? err : service.files.MayMove(*entry);
}

/* As the delete would find it, without doing it. */
int CheckDelete(Service& service, const std::string& path, const std::string& share) {
  CloudEntry entry;
  std::vector<CloudEntry> children;
  int err = FindMovable(service, path, share, &entry);
  if (err == 0 && entry.folder) {
    err = service.cloud->List(path, &children);
  }
  if (err != 0 || !children.empty()) {
    return err != 0 ? err : OX_ENOTEMPTY;
  }
  return (entry.attributes & kReadOnlyAttribute) != 0 ? OX_EPERM : 0;
}

}  // namespace

int Enumerate(Session& session, const Request& request, Reply* reply) {
  Service& service = session.service;
  std::string path;
  CloudEntry folder;
  std::vector<CloudEntry> entries;
  int err = RequestPath(session, request, int64_t{request->u.wdenum.wde_pathlen} - 1, &path);
  if (err == 0) {
    err = service.cloud->Status(path, &folder);
  }
  if (err == 0) {
    err = folder.folder ? service.cloud->List(path, &entries) : OX_ENOTDIR;
  }
  if (err == 0) {
    err = AddListing(session, request, folder, path);
  }
  if (err != 0) {
    return err;
  }
  CloudEntry parent;
  reply->resp.u.wdenum.wde_fso = FsoOf(folder, ParentOf(*service.cloud, path, &parent), 0);
  AppendInfos(service, std::move(entries), reply);
  return 0;
}

int Stat(Session& session, const Request& request, Reply* reply) {
  Service& service = session.service;
  std::string path;
  CloudEntry entry;
  int err = RequestPath(session, request, int64_t{request->u.wstat.wstat_path_len} - 1, &path);
  if (err == 0) {
    err = service.cloud->Status(path, &entry);
  }
  if (err == 0) {
    service.files.Overlay(&entry);
    err = InfoOf(entry, &reply->resp.u.wstat.wstat_fi) ? 0 : OX_EINVAL;
  }
  return err;
}

int Rename(Session& session, const Request& request, Reply*) {
  Service& service = session.service;
  const tnv_wrename_msg& rename = request->u.wrename;
  std::vector<std::string> texts;
  std::string from;
  std::string to;
  if (!request.Texts({rename.wrename_msg_slen, rename.wrename_msg_dlen}, &texts)) {
    return OX_EINVAL;
  }
  int err = NormaliseSharePath(session.share, texts[0], &from);
  err = err != 0 ? err : NormaliseSharePath(session.share, texts[1], &to);
  if (err != 0) {
    return err;
  }
  const std::lock_guard names(service.files.names());
  CloudEntry entry;
  err = FindMovable(service, from, session.share, &entry);
  if (err != 0 || to == session.share) {
    return err != 0 ? err : OX_EEXIST;
  }
  return service.files.Rename(entry, from, to);
}

int CanDelete(Session& session, const Request& request, Reply* reply) {
  Service& service = session.service;
  std::string path;
  if (const int err =
          RequestPath(session, request, request->u.wcandelete.wcandelete_msg_plen, &path)) {
    return err;
  }
  const std::lock_guard names(service.files.names());
  const int err = CheckDelete(service, path, session.share);
  reply->resp.u.wcandel.wcandel_check = err == 0 ? 1 : 0;
  /* That it may not is an answer; that there is nothing to ask about is an error. */
  const bool answered =
      err == OX_EACCES || err == OX_EBUSY || err == OX_EPERM || err == OX_ENOTEMPTY;
  return answered ? 0 : err;
}

int Delete(Session& session, const Request& request, Reply*) {
  Service& service = session.service;
  std::string path;
  if (const int err = RequestPath(session, request, request->u.wdelete.wdelete_msg_plen, &path)) {
    return err;
  }
  const std::lock_guard names(service.files.names());
  CloudEntry entry;
  const int err = FindMovable(service, path, session.share, &entry);
  return err != 0 ? err : service.files.Delete(entry, path);
}

}  // namespace tarnd
