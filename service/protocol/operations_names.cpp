#include <algorithm>

#include "names/folded_path.h"
#include "names/share_path.h"
#include "ox_errno.h"
#include "protocol/operations.h"
#include "protocol/records.h"

namespace tarnd {
namespace {

/*
 * A listing is an open that asks for nothing: the client closes it like a file, or it ends with the
 * client's process.
 */
int add_listing(Session& session, const Request& request, const CloudEntry& folder,
                const std::string& path) {
  auto open = std::make_shared<OpenFile>();
  open->id = request->hdr.hdr_id;
  open->client_pid = session.client_pid;
  open->name = path;
  return session.service.files.add_listing(open, folder);
}

/* What the drive has in a folder: the cloud's, and what is not there yet. */
int list(Service& service, const CloudEntry& folder, const std::string& path, bool may_be_old,
         std::vector<CloudEntry>* entries) {
  CloudContext context = service.context();
  context.may_be_old = may_be_old;
  const CloudResult result = service.cloud->list(context, path, [&](CloudEntry&& entry) {
    entries->push_back(std::move(entry));
    return true;
  });
  if (result.ok()) {
    service.files.complete(folder.path, entries);
  }
  return result.error;
}

/* The item of a rename, delete or can-delete, and whether it may go. With the path reserved. */
int find_movable(Service& service, const std::string& path, const std::string& share,
                 CloudEntry* entry) {
  if (path == share) {
    return OX_EPERM;
  }
  const int err = service.files.look_up(path, entry);
  return err != 0 ? err : service.files.may_move(*entry);
}

/* As the delete would find it, without doing it. */
int check_delete(Service& service, const std::string& path, const std::string& share) {
  CloudEntry entry;
  std::vector<CloudEntry> children;
  int err = find_movable(service, path, share, &entry);
  if (err == 0 && entry.folder) {
    err = list(service, entry, path, false, &children);
  }
  if (err != 0 || !children.empty()) {
    return err != 0 ? err : OX_ENOTEMPTY;
  }
  return (entry.attributes & READ_ONLY_ATTRIBUTE) != 0 ? OX_EPERM : 0;
}

/* A status that is a moment old is better than a drive that waits for a slow rename. */
constexpr std::chrono::milliseconds MOVE_WAIT{500}; /* before the look and after it */
constexpr int LOOKS = 5;

/*
 * The cloud's entry with what is known here. While a file gets another name, the cloud has the new
 * one a moment before the cache has it, and the size would be the cloud's: so a look that a rename
 * overtook is repeated.
 */
int look_at(OpenFiles& files, const std::string& path, CloudEntry* entry) {
  const std::string key = folded_path(path);
  int err = 0;
  uint64_t before = 0;
  uint64_t after = files.reservations().wait_for_moves(key, MOVE_WAIT);
  for (int looks = 0; looks < LOOKS && (looks == 0 || before != after); looks++) {
    before = after;
    err = files.look_up_remembered(path, entry);
    if (err == 0) {
      files.overlay(entry);
    }
    after = files.reservations().wait_for_moves(key, MOVE_WAIT);
  }
  return err;
}

/* An entry is large, so it is not moved. */
std::vector<const CloudEntry*> by_name(const std::vector<CloudEntry>& entries) {
  std::vector<const CloudEntry*> order;
  order.reserve(entries.size());
  for (const CloudEntry& entry : entries) {
    order.push_back(&entry);
  }
  std::sort(order.begin(), order.end(),
            [](const CloudEntry* a, const CloudEntry* b) { return a->name < b->name; });
  return order;
}

}  // namespace

int serve_enumerate(Session& session, const Request& request, Reply* reply) {
  Service& service = session.service;
  std::string path;
  CloudEntry folder;
  std::vector<CloudEntry> entries;
  int err = request_path(session, request, int64_t{request->u.wdenum.wde_pathlen} - 1, &path);
  err = err != 0 ? err : service.files.look_up_remembered(path, &folder);
  err = err != 0 || folder.folder ? err : OX_ENOTDIR;
  err = err != 0 ? err : list(service, folder, path, true, &entries);
  err = err != 0 ? err : add_listing(session, request, folder, path);
  if (err != 0) {
    return err;
  }
  CloudEntry parent;
  const bool has_parent =
      !path.empty() && service.files.look_up_remembered(parent_path(path), &parent) == 0;
  reply->resp.u.wdenum.wde_fso = fso_of(folder, has_parent ? &parent : nullptr, 0);
  reply->resp.u.wdenum.wde_fi_len = entries.size();
  reply->listing = std::move(entries);
  reply->order = by_name(reply->listing);
  return 0;
}

int serve_stat(Session& session, const Request& request, Reply* reply) {
  Service& service = session.service;
  std::string path;
  CloudEntry entry;
  int err = request_path(session, request, int64_t{request->u.wstat.wstat_path_len} - 1, &path);
  err = err != 0 ? err : look_at(service.files, path, &entry);
  if (err == 0) {
    info_of(entry, &reply->resp.u.wstat.wstat_fi);
  }
  return err;
}

int serve_rename(Session& session, const Request& request, Reply*) {
  Service& service = session.service;
  const tnv_wrename_msg& rename = request->u.wrename;
  std::vector<std::string> texts;
  std::string from;
  std::string to;
  if (!request.texts({rename.wrename_msg_slen, rename.wrename_msg_dlen}, &texts)) {
    return OX_EINVAL;
  }
  int err = normalise_share_path(session.share, texts[0], &from);
  err = err != 0 ? err : normalise_share_path(session.share, texts[1], &to);
  if (err != 0) {
    return err;
  }
  const auto reserved =
      service.files.reservations().reserve({{folded_path(from), true}, {folded_path(to), true}});
  CloudEntry entry;
  err = find_movable(service, from, session.share, &entry);
  if (err != 0 || to == session.share) {
    return err != 0 ? err : OX_EEXIST;
  }
  return service.files.rename(entry, from, to);
}

int serve_can_delete(Session& session, const Request& request, Reply* reply) {
  Service& service = session.service;
  std::string path;
  if (const int err =
          request_path(session, request, request->u.wcandelete.wcandelete_msg_plen, &path)) {
    return err;
  }
  const int err = check_delete(service, path, session.share);
  reply->resp.u.wcandel.wcandel_check = err == 0 ? 1 : 0;
  /* That it may not is an answer; that there is nothing to ask about is an error. */
  const bool answered =
      err == OX_EACCES || err == OX_EBUSY || err == OX_EPERM || err == OX_ENOTEMPTY;
  return answered ? 0 : err;
}

int serve_delete(Session& session, const Request& request, Reply*) {
  Service& service = session.service;
  std::string path;
  if (const int err = request_path(session, request, request->u.wdelete.wdelete_msg_plen, &path)) {
    return err;
  }
  const auto reserved = service.files.reservations().reserve({{folded_path(path), true}});
  CloudEntry entry;
  const int err = find_movable(service, path, session.share, &entry);
  return err != 0 ? err : service.files.remove_item(entry, path);
}

}  // namespace tarnd
