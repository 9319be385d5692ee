/* How the WebDAV cloud is changed: new contents, moves, deletes and folders. */
#include <algorithm>

#include "cloud/webdav/name_spelling.h"
#include "cloud/webdav/part_name.h"
#include "cloud/webdav/webdav_cloud.h"
#include "names/folded_path.h"
#include "ox_logging.h"

namespace tarnd {
namespace {

constexpr uint64_t SMALL = uint64_t{1} << 20;       /* goes up without a look before */
constexpr uint64_t PIECE = uint64_t{4} << 20;       /* of one ranged PUT */
constexpr std::chrono::milliseconds TAG_TIME{250};  /* after which a server has another tag */
constexpr std::chrono::milliseconds ODD_PAUSE{500}; /* after a refusal that nothing explains */
constexpr std::chrono::seconds CLEANING{5};

using Overwrite = WebdavServer::Overwrite;

std::string last_name(const std::string& path) { return path.substr(path.rfind('/') + 1); }

/* Whether a version is a tag, which a condition can name. */
bool is_tag(const std::string& version) { return version.starts_with('"'); }

/* An answer that may mean that something is not as it was expected. */
bool wants_explanation(const CloudResult& result) {
  return result.code == CloudCode::CHANGED || result.code == CloudCode::NOT_FOUND ||
         result.code == CloudCode::UNAUTHORISED || result.code == CloudCode::REFUSED ||
         result.code == CloudCode::UNKNOWN_OUTCOME;
}

BodySource bytes_of(Snapshot& content, uint64_t from) {
  return [&content, from](uint64_t offset, char* buffer, size_t size) {
    return content.read(from + offset, buffer, size);
  };
}

}  // namespace

/* A hidden file beside its target, which goes with this unless it was moved away. */
class WebdavCloud::Part {
 public:
  Part(const CloudContext& context, WebdavServer& server, const std::string& target)
      : context_({.credentials = context.credentials}),
        server_(server),
        path(new_part_path(parent_path(target))) {}
  ~Part() {
    if (written) {
      context_.deadline = std::chrono::steady_clock::now() + CLEANING;
      server_.remove(context_, path);
    }
  }
  Part(const Part&) = delete;
  Part& operator=(const Part&) = delete;

 private:
  CloudContext context_;
  WebdavServer& server_;

 public:
  const std::string path;
  bool written = false; /* something may be there */
  DavItem item;         /* what is there, once it is complete */
};

/* ------------------------------------------------------------------ new contents */

CloudResult WebdavCloud::put(const CloudContext& context, const std::string& path,
                             const PutCondition& condition, Snapshot& content, CloudEntry* made) {
  CloudResult result = look_first(context, path, condition, content.size());
  if (!result.ok()) {
    return result;
  }
  Part part(context, *server_, spelled_for_cloud(path));
  result = fill(context, part, condition, content);
  return result.ok() ? publish(context, part, path, condition, made) : result;
}

/* Before much is moved for nothing. */
CloudResult WebdavCloud::look_first(const CloudContext& context, const std::string& path,
                                    const PutCondition& condition, uint64_t size) {
  WebdavAbilities can;
  if (condition.version.empty() && !is_spelling_of_new_name(last_name(path))) {
    return CloudResult::refused(OX_EINVAL);
  }
  const CloudResult result = abilities(context, &can);
  return result.ok() && size > SMALL ? expect(context, spelled_for_cloud(path), condition.version)
                                     : result;
}

/*
 * A server whose tags tell the time may give a content the tag of the one that it replaces, when
 * both came within its clock's step.
 */
CloudResult WebdavCloud::fill(const CloudContext& context, Part& part,
                              const PutCondition& condition, Snapshot& content) {
  constexpr int TRIES = 5;
  CloudResult result;
  for (int tries = 0; tries < TRIES && result.ok(); tries++) {
    part.written = true;
    result = harmless(server_->put(context, part.path, content.size(), bytes_of(content, 0)));
    if (result.ok()) {
      result = server_->look(context, part.path, &part.item);
    }
    if (result.ok() && part.item.size != content.size()) {
      result = CloudResult::of(CloudCode::OFFLINE);
    }
    if (!result.ok() || version_of(part.item) != condition.version) {
      return result;
    }
    result = sleep_within(context, TAG_TIME);
  }
  return result.ok() ? CloudResult::of(CloudCode::OFFLINE) : result;
}

CloudResult WebdavCloud::patch(const CloudContext& context, const std::string& path,
                               const PutCondition& condition, Snapshot& content, CloudEntry* made) {
  CloudResult result = look_first(context, path, condition, 0);
  if (!result.ok() || condition.version.empty() || !can_patch_) {
    return !result.ok() ? result : CloudResult::refused(can_patch_ ? OX_EINVAL : OX_ENOSYS);
  }
  const std::string target = spelled_for_cloud(path);
  Part part(context, *server_, target);
  result = fill_copy(context, part, target, condition, content);
  return result.ok() ? publish(context, part, path, condition, made) : result;
}

/* Servers cannot cut a file: a content that got shorter goes up as a whole. */
CloudResult WebdavCloud::fill_copy(const CloudContext& context, Part& part,
                                   const std::string& target, const PutCondition& condition,
                                   Snapshot& content) {
  CloudResult result = server_->look(context, target, &part.item);
  if (!result.ok() || part.item.folder) {
    return result.ok() ? CloudResult::refused(OX_EISDIR) : result;
  }
  if (version_of(part.item) != condition.version) {
    return CloudResult::of(CloudCode::CHANGED);
  }
  if (part.item.size > content.size()) {
    return CloudResult::refused(OX_ENOSYS);
  }
  part.written = true;
  result = harmless(server_->copy(context, target, part.path));
  if (result.ok()) { /* it must not have changed while it was copied */
    result = expect(context, target, condition.version);
  }
  return result.ok() ? write_changes(context, part, content) : result;
}

CloudResult WebdavCloud::write_changes(const CloudContext& context, Part& part, Snapshot& content) {
  CloudResult result;
  for (const ByteRange& range : content.changed()) {
    for (uint64_t at = range.offset; at < range.end() && result.ok(); at += PIECE) {
      const uint64_t size = std::min(PIECE, range.end() - at);
      const std::string where = "bytes " + std::to_string(at) + '-' +
                                std::to_string(at + size - 1) + '/' +
                                std::to_string(content.size());
      result = harmless(server_->put(context, part.path, size, bytes_of(content, at), where));
    }
  }
  if (result.ok()) {
    result = server_->look(context, part.path, &part.item);
  }
  if (result.ok() && part.item.size != content.size()) {
    doubt_abilities();
    return CloudResult::of(CloudCode::OFFLINE);
  }
  return result;
}

CloudResult WebdavCloud::publish(const CloudContext& context, Part& part, const std::string& path,
                                 const PutCondition& condition, CloudEntry* made) {
  const CloudResult result =
      move(context, {part.path, "", spelled_for_cloud(path), condition.version});
  if (!result.ok()) {
    return result;
  }
  part.written = false;
  return tell_moved(context, part.item, path, made);
}

CloudResult WebdavCloud::tell_moved(const CloudContext& context, const DavItem& item,
                                    const std::string& path, CloudEntry* made) {
  WebdavAbilities can;
  const CloudResult result = abilities(context, &can);
  if (result.ok() && (item.folder || can.moves_keep_tag)) {
    *made = entry_of(item, path);
    return result;
  }
  return status(context, path, made).ok() ? CloudResult{}
                                          : CloudResult::of(CloudCode::UNKNOWN_OUTCOME);
}

/* ------------------------------------------------------------------ moving */

CloudResult WebdavCloud::move(const CloudContext& context, const Move& what) {
  const FileGates::Gate gate = gates_.of(what.to);
  const std::unique_lock replacing(*gate);
  const CloudResult result = move_as_it_can(context, what);
  return wants_explanation(result) ? explain(context, what, result) : result;
}

CloudResult WebdavCloud::move_as_it_can(const CloudContext& context, const Move& what) {
  WebdavAbilities can;
  const CloudResult result = abilities(context, &can);
  if (!result.ok()) {
    return result;
  }
  const bool is_new = what.to_version.empty();
  if (is_new && what.from_version.empty() && can.strict_new_names) {
    return server_->move(context, what.from, what.to, Overwrite::NO);
  }
  const bool tags = (is_new || is_tag(what.to_version)) &&
                    (what.from_version.empty() || is_tag(what.from_version));
  if (can.tagged_moves && tags) {
    const std::string condition =
        (what.from_version.empty() ? "" : server_->has_tag(what.from, what.from_version)) +
        (is_new ? "" : server_->has_tag(what.to, what.to_version));
    return server_->move(context, what.from, what.to, is_new ? Overwrite::NO : Overwrite::YES,
                         condition);
  }
  if (can.locks && !is_new) {
    return under_lock(context, what.to, [&](const std::string& condition) {
      return move_after_look(context, what, condition);
    });
  }
  return move_after_look(context, what, "");
}

CloudResult WebdavCloud::move_after_look(const CloudContext& context, const Move& what,
                                         const std::string& condition) {
  CloudResult result;
  if (!what.from_version.empty()) {
    result = expect(context, what.from, what.from_version);
  }
  if (result.ok()) {
    result = expect(context, what.to, what.to_version);
  }
  return result.ok()
             ? server_->move(context, what.from, what.to,
                             what.to_version.empty() ? Overwrite::NO : Overwrite::YES, condition)
             : result;
}

CloudResult WebdavCloud::under_lock(const CloudContext& context, const std::string& path,
                                    const Step& step) {
  std::string token;
  CloudResult result = server_->lock(context, path, &token);
  if (result.ok()) {
    result = step(server_->has_lock(path, token));
    server_->unlock(context, path, token);
  } else if (result.code == CloudCode::REFUSED) {
    return try_again_in_doubt();
  }
  return result;
}

/* What was found of the server does not fit, or somebody was in between. */
CloudResult WebdavCloud::try_again_in_doubt() {
  doubt_abilities();
  return CloudResult::busy(ODD_PAUSE);
}

/* Servers tell only that a move did not come about, and some not even that as the others do. */
CloudResult WebdavCloud::explain(const CloudContext& context, const Move& what,
                                 const CloudResult& result) {
  DavItem item;
  CloudResult found = server_->look(context, parent_path(what.to), &item);
  if (!found.ok() || result.code == CloudCode::UNKNOWN_OUTCOME) {
    return found.code == CloudCode::NOT_FOUND ? found : result;
  }
  found = server_->look(context, what.from, &item);
  if (found.ok() && !what.from_version.empty() && version_of(item) != what.from_version) {
    return CloudResult::of(CloudCode::CHANGED);
  }
  if (found.ok()) {
    found = expect(context, what.to, what.to_version);
  }
  return found.ok() && result.code == CloudCode::CHANGED ? try_again_in_doubt()
         : found.ok()                                    ? result
                                                         : found;
}

CloudResult WebdavCloud::rename(const CloudContext& context, const std::string& from,
                                const std::string& to, const RenameConditions& conditions,
                                CloudEntry* made) {
  if (is_below(to, from)) {
    return CloudResult::refused(OX_EINVAL);
  }
  const Move what = {spelled_for_cloud(from), conditions.source_version, spelled_for_cloud(to),
                     conditions.target_version};
  DavItem item;
  CloudResult result = server_->look(context, what.from, &item);
  if (!result.ok()) {
    return result;
  }
  if (what.from == what.to) {
    const bool same = what.from_version.empty() || version_of(item) == what.from_version;
    *made = entry_of(item, to);
    return same ? result : CloudResult::of(CloudCode::CHANGED);
  }
  if (what.to_version.empty() && !is_spelling_of_new_name(last_name(to))) {
    return CloudResult::refused(OX_EINVAL);
  }
  result = move(context, what);
  return result.ok() ? tell_moved(context, item, to, made) : result;
}

/* ------------------------------------------------------------------ deleting, folders */

CloudResult WebdavCloud::remove(const CloudContext& context, const std::string& path,
                                const std::string& version) {
  const std::string target = spelled_for_cloud(path);
  DavItem item;
  if (path.empty()) {
    return CloudResult::refused(OX_EPERM);
  }
  const CloudResult result = server_->look(context, target, &item);
  if (!result.ok()) {
    return result;
  }
  if (item.folder) {
    return remove_folder(context, target);
  }
  const FileGates::Gate gate = gates_.of(target);
  const std::unique_lock replacing(*gate);
  return version.empty() || version_of(item) == version ? remove_file(context, target, version)
                                                        : CloudResult::of(CloudCode::CHANGED);
}

CloudResult WebdavCloud::remove_file(const CloudContext& context, const std::string& path,
                                     const std::string& version) {
  WebdavAbilities can;
  CloudResult result = abilities(context, &can);
  if (!result.ok() || version.empty()) {
    return result.ok() ? server_->remove(context, path) : result;
  }
  const auto look_and_remove = [&](const std::string& condition) {
    const CloudResult there = expect(context, path, version);
    return there.ok() ? server_->remove(context, path, condition) : there;
  };
  if (can.tagged_moves && is_tag(version)) {
    result = server_->remove(context, path, server_->has_tag(path, version));
  } else {
    result = can.locks ? under_lock(context, path, look_and_remove) : look_and_remove("");
  }
  if (result.code != CloudCode::CHANGED) {
    return result;
  }
  const CloudResult found = expect(context, path, version);
  return found.ok() ? try_again_in_doubt() : found;
}

CloudResult WebdavCloud::remove_folder(const CloudContext& context, const std::string& path) {
  CloudResult result = expect_empty(context, path);
  if (!result.ok()) {
    return result;
  }
  const std::string hidden = new_part_path(parent_path(path));
  result = server_->move(context, path, hidden, Overwrite::NO);
  if (!result.ok()) {
    return result;
  }
  result = expect_empty(context, hidden);
  if (result.ok()) {
    return server_->remove(context, hidden);
  }
  if (!server_->move(context, hidden, path, Overwrite::NO).ok()) {
    OX_LOG(OX_ERROR_LEVEL, result.error, "The folder %s is now %s", path.c_str(), hidden.c_str());
  }
  return result;
}

CloudResult WebdavCloud::expect_empty(const CloudContext& context, const std::string& path) {
  bool empty = true;
  const CloudResult result =
      server_->list(context, path, [&](const std::string& item_path, const DavItem& item) {
        const bool hidden = is_part_name(last_name(item_path)) && !item.folder;
        empty = item_path == path || hidden;
        return empty;
      });
  return result.ok() && !empty ? CloudResult::refused(OX_ENOTEMPTY) : result;
}

CloudResult WebdavCloud::make_folder(const CloudContext& context, const std::string& path,
                                     CloudEntry* made) {
  if (path.empty()) {
    return CloudResult::of(CloudCode::EXISTS);
  }
  if (!is_spelling_of_new_name(last_name(path))) {
    return CloudResult::refused(OX_EINVAL);
  }
  CloudResult result = server_->make_folder(context, spelled_for_cloud(path));
  if (!result.ok()) {
    return result;
  }
  result = status(context, path, made);
  return result.ok() ? result : CloudResult::of(CloudCode::UNKNOWN_OUTCOME);
}

}  // namespace tarnd
