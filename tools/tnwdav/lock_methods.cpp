/* LOCK and UNLOCK. */
#include <fmt/format.h>

#include <algorithm>
#include <charconv>

#include "dav_server.h"
#include "live_properties.h"
#include "tools/drive/drive_path.h"

namespace tnwdav {
namespace {

constexpr size_t LONGEST_BODY = size_t{64} * 1024;
constexpr std::chrono::seconds USUAL_TIME{600};
constexpr std::chrono::seconds LONGEST_TIME{3600};

/* "Second-600", "Infinite, Second-4100000000" */
std::chrono::seconds wanted_time(std::string_view header) {
  constexpr std::string_view SECONDS = "Second-";
  const size_t at = header.find(SECONDS);
  if (at == std::string_view::npos) {
    return header.starts_with("Infinite") ? LONGEST_TIME : USUAL_TIME;
  }
  header.remove_prefix(at + SECONDS.size());
  uint64_t seconds = 0;
  std::from_chars(header.data(), header.data() + header.size(), seconds);
  const auto most = static_cast<uint64_t>(LONGEST_TIME.count());
  return std::chrono::seconds(std::clamp<uint64_t>(seconds, 1, most));
}

void answer_with_lock(Request& request, Status status, const DavLock& lock) {
  request.http.answer(status,
                      fmt::format("{}<D:prop xmlns:D=\"DAV:\"><D:lockdiscovery>{}"
                                  "</D:lockdiscovery></D:prop>\n",
                                  XML_BEGIN, lock_discovery({lock})),
                      XML_TYPE);
}

/* A LOCK without a body makes the time of a lock on the resource, or around it, begin anew. */
void refresh_lock(Request& request) {
  const Item item = request.item();
  request.require_conditions(&item);
  for (const DavLock& held : request.parts.locks.covering(request.key)) {
    const auto& tokens = request.tokens();
    if (std::find(tokens.begin(), tokens.end(), held.token) != tokens.end()) {
      const auto lock =
          request.parts.locks.refresh(held.token, wanted_time(request.http.header("Timeout")));
      if (lock) {
        return answer_with_lock(request, Status::ok, *lock);
      }
    }
  }
  throw HttpError(Status::precondition_failed, "there is no such lock here",
                  "lock-token-matches-request-uri");
}

/* A file's lock is one of the service, too, which other programs with the drive respect. */
void lock_with_service(Request& request, const DavLock& lock) {
  try {
    auto file = std::make_shared<OpenFile>(request.parts.share, request.path, OpenMode::READ);
    file->lock(lock.exclusive);
    request.parts.locks.attach(lock.token, std::move(file));
  } catch (...) {
    request.parts.locks.remove(lock.token);
    throw;
  }
}

/* A lock on a name that is free makes an empty file, which the lock's owner then fills. */
void make_empty_file(Request& request) {
  request.require_parent(request.path);
  request.require_tokens_for_member(request.path);
  OpenFile file(request.parts.share, request.path, OpenMode::CREATE);
  file.close();
}

DavLock new_lock(Request& request, const LockRequest& wanted) {
  const Depth depth = request.depth(Depth::WHOLE_TREE);
  if (depth == Depth::ONE) {
    throw HttpError(Status::bad_request, "a lock has the depth 0 or infinity");
  }
  DavLock lock;
  lock.path = request.path;
  lock.key = request.key;
  lock.deep = depth == Depth::WHOLE_TREE;
  lock.exclusive = wanted.exclusive;
  lock.owner = wanted.owner;
  lock.timeout = wanted_time(request.http.header("Timeout"));
  if (!request.parts.locks.add(&lock)) {
    throw HttpError(Status::locked, "another lock is in the way", "no-conflicting-lock");
  }
  return lock;
}

}  // namespace

void answer_lock(Request& request) {
  const std::string body = request.http.read_body(LONGEST_BODY);
  if (body.empty()) {
    return refresh_lock(request);
  }
  const LockRequest wanted = parse_lockinfo(body);
  const std::optional<Item> item = request.parts.share.find(request.path);
  request.require_conditions(item ? &*item : nullptr);
  if (!item) {
    make_empty_file(request);
  }
  const DavLock lock = new_lock(request, wanted);
  if (!item || !item->folder) {
    lock_with_service(request, lock);
  }
  request.http.set_header("Lock-Token", '<' + lock.token + '>');
  answer_with_lock(request, item ? Status::ok : Status::created, lock);
}

void answer_unlock(Request& request) {
  std::string_view token = request.http.header("Lock-Token");
  if (!token.starts_with('<') || !token.ends_with('>')) {
    throw HttpError(Status::bad_request, "the Lock-Token header is missing or cannot be read");
  }
  token = token.substr(1, token.size() - 2);
  const std::vector<DavLock> locks = request.parts.locks.covering(request.key);
  const bool here = std::any_of(locks.begin(), locks.end(),
                                [&](const DavLock& lock) { return lock.token == token; });
  if (!here || !request.parts.locks.remove(std::string(token))) {
    throw HttpError(Status::conflict, "there is no such lock here",
                    "lock-token-matches-request-uri");
  }
  request.http.answer(Status::no_content);
}

}  // namespace tnwdav
