/*
 * The requests of WebDAV that the cloud is made of, each with its answer as a result. Paths are
 * those of the cloud, in its own spelling.
 */
#ifndef SERVICE_WEBDAV_SERVER_H
#define SERVICE_WEBDAV_SERVER_H

#include <functional>
#include <memory>
#include <string>

#include "cloud/webdav/http_client.h"
#include "cloud/webdav/multistatus.h"
#include "cloud/webdav/web_address.h"

namespace tarnd {

/* The source of a body: `size` bytes at `offset`, 0 or an error number. */
using BodySource = std::function<int(uint64_t offset, char* buffer, size_t size)>;
/* Takes an item of a listing with its path; false ends it. */
using DavSink = std::function<bool(const std::string& path, const DavItem& item)>;

/* Any thread. */
class WebdavServer {
 public:
  WebdavServer(WebAddress address, std::unique_ptr<HttpClient> client)
      : address_(std::move(address)), client_(std::move(client)) {}

  const WebAddress& address() const { return address_; }

  CloudResult look(const CloudContext& context, const std::string& path, DavItem* item,
                   std::string* own_path = nullptr);
  /* The item itself and, of a folder, what is in it. */
  CloudResult list(const CloudContext& context, const std::string& path, const DavSink& sink);

  /* `range` is the value of the Range header; bytes go to the sink whatever the status is. */
  CloudResult get(const CloudContext& context, const std::string& path, const std::string& range,
                  HttpAnswer* answer, const BodySink& sink);
  /* `range` is the value of the Content-Range header, or empty for the whole content. */
  CloudResult put(const CloudContext& context, const std::string& path, uint64_t size,
                  const BodySource& source, const std::string& range = "");

  enum class Overwrite { NO, YES };
  /* `condition` is the value of the If header, or empty. CHANGED: a condition did not hold. */
  CloudResult move(const CloudContext& context, const std::string& from, const std::string& to,
                   Overwrite overwrite, const std::string& condition = "");
  CloudResult copy(const CloudContext& context, const std::string& from, const std::string& to);
  /* A folder goes with all that is in it. */
  CloudResult remove(const CloudContext& context, const std::string& path,
                     const std::string& condition = "");
  CloudResult make_folder(const CloudContext& context, const std::string& path);

  /* Keeps other clients from changing a file for a minute. NOT_FOUND when there is none. */
  CloudResult lock(const CloudContext& context, const std::string& path, std::string* token);
  void unlock(const CloudContext& context, const std::string& path, const std::string& token);

  /* For the If header: the item has this tag, or is locked with this token. */
  std::string has_tag(const std::string& path, const std::string& tag) const;
  std::string has_lock(const std::string& path, const std::string& token) const;

 private:
  enum class Depth { ITEM, LISTING };
  CloudResult propfind(const CloudContext& context, const std::string& path, Depth depth,
                       const DavSink& sink);
  /* Sends it and notes whether the token was refused. */
  CloudResult send(const CloudContext& context, const HttpRequest& request, HttpAnswer* answer,
                   const BodySink& sink);
  /* The same, and judges the status; `answer` may be null. */
  CloudResult ask(const CloudContext& context, const HttpRequest& request, HttpAnswer* answer,
                  const BodySink& sink = {});
  HttpRequest transfer(const char* method, const std::string& from, const std::string& to,
                       Overwrite overwrite) const;
  std::string url(const std::string& path) const {
    return address_.server() + address_.target(path);
  }

  const WebAddress address_;
  const std::unique_ptr<HttpClient> client_;
};

/* What a status means where nothing special is known of the request. */
CloudResult result_of_http(const HttpAnswer& answer);
/* The same result for a request that changes nothing that anybody sees. */
CloudResult harmless(const CloudResult& result);

}  // namespace tarnd

#endif
