/*
 * Answers the requests of WebDAV, class 1 and 2, from a drive. The methods are in
 * content_methods.cpp (GET, HEAD, PUT), tree_methods.cpp (MKCOL, DELETE, COPY, MOVE),
 * property_methods.cpp (PROPFIND, PROPPATCH) and lock_methods.cpp (LOCK, UNLOCK).
 *
 * Threads: any number at a time, one for each request.
 */
#ifndef TNWDAV_DAV_SERVER_H
#define TNWDAV_DAV_SERVER_H

#include <string>
#include <vector>

#include "access.h"
#include "dav_locks.h"
#include "dead_properties.h"
#include "exchange.h"
#include "if_header.h"
#include "request_log.h"
#include "share.h"

namespace tnwdav {

/* What all requests use; each member guards itself. */
struct Parts {
  Share& share;
  DavLocks& locks;
  DeadProperties& properties;
  const Access& access;
  RequestLog& log;
  std::string incoming_folder; /* for contents that are being received */
};

enum class Depth { ZERO, ONE, WHOLE_TREE };

class Request {
 public:
  /* Throws an HttpError when the target names no path, or the If header cannot be read. */
  Request(Parts& parts, Exchange& http);

  Parts& parts;
  Exchange& http;
  const std::string path;
  const std::string key; /* path_key(path) */

  /* Throws 404 when there is nothing. */
  Item item() const;
  Depth depth(Depth when_missing) const;
  /* The Destination of a COPY or MOVE. */
  std::string destination() const;
  bool overwrites() const;

  /* 412 unless the If, If-Match and If-None-Match headers hold; `item` is null for nothing. */
  void require_conditions(const Item* item) const;
  /* 423 unless the request submits the tokens of the locks in its way. */
  void require_tokens(const std::vector<DavLock>& locks) const;
  /* The locks on a path, and on the folder that gets or loses a member. */
  void require_tokens_for_change(const std::string& changed) const;
  void require_tokens_for_member(const std::string& changed) const;
  void require_tokens_for_tree(const std::string& changed) const;
  /* 409 unless the folder that is to hold the path is there. */
  void require_parent(const std::string& changed) const;

  const std::vector<std::string>& tokens() const { return tokens_; }

 private:
  bool holds(const IfList& list, const Item* item) const;
  bool holds(const IfCondition& condition, const std::string& resource, const Item* item) const;

  std::vector<IfList> if_lists_;
  std::vector<std::string> tokens_; /* that the request submits */
};

class DavServer {
 public:
  explicit DavServer(Parts parts) : parts_(std::move(parts)) {}

  /* Answers a request, also one that fails, and writes its line to the log. */
  void handle(Exchange& exchange);

 private:
  void answer(Exchange& exchange);

  Parts parts_;
};

/* The methods. They throw an HttpError or a DriveError for an answer that is no success. */
void answer_get(Request& request);
void answer_put(Request& request);
void answer_mkcol(Request& request);
void answer_delete(Request& request);
void answer_copy(Request& request);
void answer_move(Request& request);
void answer_propfind(Request& request);
void answer_proppatch(Request& request);
void answer_lock(Request& request);
void answer_unlock(Request& request);

/* The status that tells a client of a Windows code. */
Status status_of_code(int code);
std::string status_line(Status status); /* "HTTP/1.1 404 Not Found" */

}  // namespace tnwdav

#endif
