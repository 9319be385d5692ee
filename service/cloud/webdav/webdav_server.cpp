#include "cloud/webdav/webdav_server.h"

#include <cstring>

#include "cloud/webdav/http_rules.h"
#include "ox_logging.h"

namespace tarnd {
namespace {

constexpr const char* LOCK_BODY =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?><D:lockinfo xmlns:D=\"DAV:\"><D:lockscope>"
    "<D:exclusive/></D:lockscope><D:locktype><D:write/></D:locktype></D:lockinfo>";

void set_body(const char* text, HttpRequest* request) {
  request->headers.emplace_back("Content-Type", "application/xml; charset=utf-8");
  request->body_size = std::strlen(text);
  request->body = [text](uint64_t offset, char* buffer, size_t size) {
    std::memcpy(buffer, text + offset, size);
    return 0;
  };
}

bool is_redirect(int status) {
  return status == 301 || status == 302 || status == 307 || status == 308;
}

}  // namespace

CloudResult result_of_http(const HttpAnswer& answer) {
  constexpr std::chrono::seconds LOCKED_PAUSE{1};
  switch (answer.status) {
    case 200:
    case 201:
    case 204:
    case 206:
      return {};
    case 401:
    case 403:
      return CloudResult::of(CloudCode::UNAUTHORISED);
    case 404:
    case 409: /* a folder above is missing */
    case 410:
      return CloudResult::of(CloudCode::NOT_FOUND);
    case 405:
    case 400:
      return CloudResult::refused(OX_EINVAL);
    case 407:
      return CloudResult::of(CloudCode::OFFLINE);
    case 412:
      return CloudResult::of(CloudCode::CHANGED);
    case 413:
      return CloudResult::refused(OX_EFBIG);
    case 414:
      return CloudResult::refused(OX_ENAMETOOLONG);
    case 423:
      return CloudResult::busy(LOCKED_PAUSE);
    case 429:
    case 503:
      return CloudResult::busy(retry_after(answer.retry_after, answer.date));
    case 501:
      return CloudResult::refused(OX_ENOSYS);
    case 507:
      return CloudResult::of(CloudCode::NO_SPACE);
    default: /* 207 of a change, too: parts of it failed */
      return answer.status < 500 && answer.status != 207
                 ? CloudResult::refused(OX_EIO)
                 : CloudResult::of(CloudCode::UNKNOWN_OUTCOME);
  }
}

CloudResult harmless(const CloudResult& result) {
  return result.code == CloudCode::UNKNOWN_OUTCOME ? CloudResult::of(CloudCode::OFFLINE) : result;
}

/* ------------------------------------------------------------------ sending */

CloudResult WebdavServer::send(const CloudContext& context, const HttpRequest& request,
                               HttpAnswer* answer, const BodySink& sink) {
  const CloudResult result = client_->send(context, request, answer, sink);
  if (context.credentials != nullptr && answer->status != 0) {
    *context.credentials->refused = answer->status == 401 || answer->status == 403;
  }
  return result;
}

CloudResult WebdavServer::ask(const CloudContext& context, const HttpRequest& request,
                              HttpAnswer* answer, const BodySink& sink) {
  HttpAnswer own;
  HttpAnswer& got = answer != nullptr ? *answer : own;
  CloudResult result = send(context, request, &got, sink);
  if (result.ok()) {
    result = result_of_http(got);
  }
  if (!result.ok()) {
    OX_LOG_DEBUG(1, "%s %s: status %d (%s)", request.method.c_str(), request.target.c_str(),
                 got.status, name_of(result.code));
  }
  return result;
}

/* ------------------------------------------------------------------ looking */

CloudResult WebdavServer::propfind(const CloudContext& context, const std::string& path,
                                   Depth depth, const DavSink& sink) {
  HttpRequest request = {
      "PROPFIND", address_.target(path), {{"Depth", depth == Depth::ITEM ? "0" : "1"}}};
  if (depth == Depth::LISTING) { /* of one item all that is known fits into a packet */
    set_body(PROPFIND_BODY, &request);
  }
  bool enough = false;
  HttpAnswer answer;
  CloudResult result;
  for (int tries = 0; tries < 2; tries++) {
    MultistatusReader reader([&](const DavItem& item) {
      std::string own_path;
      enough = cloud_path_of(address_, item.href, &own_path) && !sink(own_path, item);
      return !enough;
    });
    result = harmless(send(context, request, &answer, [&](const char* data, size_t size) {
      return answer.status != 207 || reader.feed(data, size) ? 0 : static_cast<int>(OX_EIO);
    }));
    if (enough) {
      return {};
    }
    if (result.ok() && answer.status == 207) {
      return reader.complete() ? result : CloudResult::of(CloudCode::OFFLINE);
    }
    if (!is_redirect(answer.status) || request.target.ends_with('/')) {
      break;
    }
    request.target += '/'; /* some servers want it of folders */
  }
  if (!result.ok()) {
    return result;
  }
  result = harmless(result_of_http(answer));
  return result.ok() ? CloudResult::refused(OX_EIO) : result; /* no WebDAV server */
}

CloudResult WebdavServer::look(const CloudContext& context, const std::string& path, DavItem* item,
                               std::string* own_path) {
  bool found = false;
  const CloudResult result = propfind(
      context, path, Depth::ITEM, [&](const std::string& found_path, const DavItem& found_item) {
        found = true;
        *item = found_item;
        if (own_path != nullptr) {
          *own_path = found_path;
        }
        return true;
      });
  return result.ok() && !found ? CloudResult::refused(OX_EIO) : result;
}

CloudResult WebdavServer::list(const CloudContext& context, const std::string& path,
                               const DavSink& sink) {
  return propfind(context, path, Depth::LISTING, sink);
}

/* ------------------------------------------------------------------ contents */

CloudResult WebdavServer::get(const CloudContext& context, const std::string& path,
                              const std::string& range, HttpAnswer* answer, const BodySink& sink) {
  return harmless(ask(context, {"GET", address_.target(path), {{"Range", range}}}, answer, sink));
}

CloudResult WebdavServer::put(const CloudContext& context, const std::string& path, uint64_t size,
                              const BodySource& source, const std::string& range) {
  const HttpRequest request = {
      "PUT", address_.target(path), {{"Content-Range", range}}, size, source};
  return ask(context, request, nullptr);
}

/* ------------------------------------------------------------------ names */

HttpRequest WebdavServer::transfer(const char* method, const std::string& from,
                                   const std::string& to, Overwrite overwrite) const {
  return {method,
          address_.target(from),
          {{"Destination", url(to)}, {"Overwrite", overwrite == Overwrite::YES ? "T" : "F"}}};
}

CloudResult WebdavServer::move(const CloudContext& context, const std::string& from,
                               const std::string& to, Overwrite overwrite,
                               const std::string& condition) {
  HttpRequest request = transfer("MOVE", from, to, overwrite);
  request.headers.emplace_back("If", condition);
  return ask(context, request, nullptr);
}

CloudResult WebdavServer::copy(const CloudContext& context, const std::string& from,
                               const std::string& to) {
  return ask(context, transfer("COPY", from, to, Overwrite::NO), nullptr);
}

CloudResult WebdavServer::remove(const CloudContext& context, const std::string& path,
                                 const std::string& condition) {
  return ask(context, {"DELETE", address_.target(path), {{"If", condition}}}, nullptr);
}

CloudResult WebdavServer::make_folder(const CloudContext& context, const std::string& path) {
  HttpAnswer answer;
  const CloudResult result = ask(context, {"MKCOL", address_.target(path)}, &answer);
  return answer.status == 405 ? CloudResult::of(CloudCode::EXISTS) : result;
}

/* ------------------------------------------------------------------ locks and conditions */

CloudResult WebdavServer::lock(const CloudContext& context, const std::string& path,
                               std::string* token) {
  HttpRequest request = {"LOCK", address_.target(path), {{"Depth", "0"}, {"Timeout", "Second-60"}}};
  set_body(LOCK_BODY, &request);
  HttpAnswer answer;
  const CloudResult result = harmless(ask(context, request, &answer));
  if (!result.ok()) {
    return result;
  }
  *token = answer.lock_token;
  if (answer.status == 201) { /* nothing was there, so the server made an empty file */
    remove(context, path, has_lock(path, *token));
    unlock(context, path, *token);
    return CloudResult::of(CloudCode::NOT_FOUND);
  }
  return token->empty() ? CloudResult::refused(OX_ENOSYS) : result;
}

/* One that does not arrive ends by its time. */
void WebdavServer::unlock(const CloudContext& context, const std::string& path,
                          const std::string& token) {
  CloudContext anyway = {.credentials = context.credentials};
  anyway.deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  ask(anyway, {"UNLOCK", address_.target(path), {{"Lock-Token", token}}}, nullptr);
}

std::string WebdavServer::has_tag(const std::string& path, const std::string& tag) const {
  return '<' + url(path) + "> ([" + tag + "]) ";
}

std::string WebdavServer::has_lock(const std::string& path, const std::string& token) const {
  return '<' + url(path) + "> (" + token + ") ";
}

}  // namespace tarnd
