#include "dav_server.h"

#include <fmt/format.h>
#include <windows.h>

#include <algorithm>
#include <map>

#include "dav_path.h"
#include "live_properties.h"
#include "tools/drive/drive_path.h"

namespace tnwdav {
namespace {

constexpr char METHODS[] =
    "OPTIONS, GET, HEAD, PUT, DELETE, MKCOL, COPY, MOVE, PROPFIND, PROPPATCH, LOCK, UNLOCK";

using Method = void (*)(Request& request);

Method method_of(std::string_view name) {
  static const std::map<std::string_view, Method> TABLE = {
      {"GET", answer_get},       {"HEAD", answer_get},          {"PUT", answer_put},
      {"DELETE", answer_delete}, {"MKCOL", answer_mkcol},       {"COPY", answer_copy},
      {"MOVE", answer_move},     {"PROPFIND", answer_propfind}, {"PROPPATCH", answer_proppatch},
      {"LOCK", answer_lock},     {"UNLOCK", answer_unlock}};
  const auto found = TABLE.find(name);
  return found == TABLE.end() ? nullptr : found->second;
}

std::string path_of(const Exchange& http) {
  std::optional<std::string> path = path_of_address(http.target(), http.header("Host"));
  if (!path) {
    throw HttpError(Status::bad_request, "the address names no path of the drive");
  }
  return *std::move(path);
}

bool names_tag(std::string_view header, const Item& item) {
  return header == "*" || header.find(tag_of(item)) != std::string_view::npos;
}

void answer_options(Exchange& exchange) {
  exchange.set_header("DAV", "1, 2");
  exchange.set_header("MS-Author-Via", "DAV"); /* without it Windows takes us for another kind */
  exchange.set_header("Allow", METHODS);
  exchange.answer(Status::ok);
}

/* Once the answer's header has gone, a failure can only end the connection. */
void answer_failure(Exchange& exchange, Status status, const std::string& reason,
                    const std::string& condition) {
  if (exchange.answered()) {
    throw ConnectionEnd(reason);
  }
  if (status == Status::service_unavailable) {
    exchange.set_header("Retry-After", "1");
  }
  if (condition.empty()) {
    return exchange.answer(status, reason + '\n', "text/plain; charset=utf-8");
  }
  exchange.answer(
      status, fmt::format("{}<D:error xmlns:D=\"DAV:\"><D:{}/></D:error>\n", XML_BEGIN, condition),
      XML_TYPE);
}

}  // namespace

Status status_of_code(int code) {
  switch (code) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
      return Status::not_found;
    case ERROR_ACCESS_DENIED:
      return Status::forbidden;
    case ERROR_SHARING_VIOLATION:
    case ERROR_LOCK_VIOLATION:
    case ERROR_BUSY:
      return Status::locked;
    case ERROR_FILE_EXISTS:
    case ERROR_ALREADY_EXISTS:
      return Status::precondition_failed;
    case ERROR_DIR_NOT_EMPTY:
      return Status::conflict;
    case ERROR_DISK_FULL:
      return Status::insufficient_storage;
    case ERROR_INVALID_DATA:
    case ERROR_INVALID_NAME:
      return Status::bad_request;
    case ERROR_LOGON_FAILURE:
    case ERROR_READ_FAULT:
    case ERROR_IO_DEVICE:
      return Status::bad_gateway;
    case TNW_ERROR_NO_SERVICE:
    case ERROR_GEN_FAILURE:
      return Status::service_unavailable;
    default:
      return Status::internal_server_error;
  }
}

std::string status_line(Status status) {
  const std::string_view reason = boost::beast::http::obsolete_reason(status);
  return fmt::format("HTTP/1.1 {} {}", static_cast<unsigned>(status), reason);
}

Request::Request(Parts& all, Exchange& exchange)
    : parts(all), http(exchange), path(path_of(exchange)), key(tools::path_key(path)) {
  const std::string_view header = http.header("If");
  if (header.empty()) {
    return;
  }
  std::optional<std::vector<IfList>> lists = parse_if_header(header);
  if (!lists) {
    throw HttpError(Status::bad_request, "the If header cannot be read");
  }
  if_lists_ = *std::move(lists);
  tokens_ = submitted_tokens(if_lists_);
}

Item Request::item() const {
  std::optional<Item> found = parts.share.find(path);
  if (!found) {
    throw HttpError(Status::not_found, "there is nothing at this address");
  }
  return *std::move(found);
}

Depth Request::depth(Depth when_missing) const {
  const std::string_view header = http.header("Depth");
  if (header.empty()) {
    return when_missing;
  }
  if (header != "0" && header != "1" && !boost::beast::iequals(header, "infinity")) {
    throw HttpError(Status::bad_request, "the Depth header is neither 0, 1 nor infinity");
  }
  return header == "0" ? Depth::ZERO : header == "1" ? Depth::ONE : Depth::WHOLE_TREE;
}

std::string Request::destination() const {
  const std::string_view header = http.header("Destination");
  if (header.empty()) {
    throw HttpError(Status::bad_request, "the Destination header is missing");
  }
  std::optional<std::string> to = path_of_address(header, http.header("Host"));
  if (!to) {
    throw HttpError(Status::bad_gateway, "the Destination header names no path of this drive");
  }
  return *std::move(to);
}

bool Request::overwrites() const { return !boost::beast::iequals(http.header("Overwrite"), "F"); }

bool Request::holds(const IfCondition& condition, const std::string& resource,
                    const Item* item) const {
  bool holds = false;
  if (condition.tag) {
    holds = item != nullptr && condition.value == tag_of(*item);
  } else {
    const std::vector<DavLock> locks = parts.locks.covering(tools::path_key(resource));
    holds = std::any_of(locks.begin(), locks.end(),
                        [&](const DavLock& lock) { return lock.token == condition.value; });
  }
  return holds != condition.negated;
}

bool Request::holds(const IfList& list, const Item* item) const {
  std::string resource = path;
  std::optional<Item> other;
  if (!list.resource.empty()) {
    std::optional<std::string> named = path_of_address(list.resource, http.header("Host"));
    if (!named) {
      return false;
    }
    resource = *std::move(named);
    other = parts.share.find(resource);
    item = other ? &*other : nullptr;
  }
  return std::all_of(
      list.conditions.begin(), list.conditions.end(),
      [&](const IfCondition& condition) { return holds(condition, resource, item); });
}

void Request::require_conditions(const Item* item) const {
  const std::string_view match = http.header("If-Match");
  const std::string_view none = http.header("If-None-Match");
  const bool lists_hold =
      if_lists_.empty() || std::any_of(if_lists_.begin(), if_lists_.end(),
                                       [&](const IfList& list) { return holds(list, item); });
  if (!lists_hold || (!match.empty() && (item == nullptr || !names_tag(match, *item))) ||
      (!none.empty() && item != nullptr && names_tag(none, *item))) {
    throw HttpError(Status::precondition_failed, "a condition of the request does not hold");
  }
}

/* Of several shared locks on one resource, the token of one is enough. */
void Request::require_tokens(const std::vector<DavLock>& locks) const {
  std::map<std::string, bool> opened; /* by the locked resource */
  for (const DavLock& lock : locks) {
    opened[lock.key] |= std::find(tokens_.begin(), tokens_.end(), lock.token) != tokens_.end();
  }
  for (const auto& [resource, is_open] : opened) {
    if (!is_open) {
      throw HttpError(Status::locked, "it is locked", "lock-token-submitted");
    }
  }
}

void Request::require_tokens_for_change(const std::string& changed) const {
  require_tokens(parts.locks.covering(tools::path_key(changed)));
}

void Request::require_tokens_for_member(const std::string& changed) const {
  require_tokens_for_change(parent_of(changed));
}

void Request::require_tokens_for_tree(const std::string& changed) const {
  require_tokens(parts.locks.touching(tools::path_key(changed)));
  require_tokens_for_member(changed);
}

void Request::require_parent(const std::string& changed) const {
  const std::optional<Item> parent = parts.share.find(parent_of(changed));
  if (!parent || !parent->folder) {
    throw HttpError(Status::conflict, "there is no folder to hold it");
  }
}

void DavServer::answer(Exchange& exchange) {
  if (!parts_.access.admit(exchange)) {
    return exchange.answer(Status::unauthorized, "The password is asked for.\n", "text/plain");
  }
  if (exchange.method() == "OPTIONS") {
    return answer_options(exchange);
  }
  const Method method = method_of(exchange.method());
  if (method == nullptr) {
    exchange.set_header("Allow", METHODS);
    throw HttpError(Status::method_not_allowed, "the method is not known here");
  }
  Request request(parts_, exchange);
  method(request);
}

void DavServer::handle(Exchange& exchange) {
  const RequestLog::Line line(parts_.log, exchange);
  try {
    answer(exchange);
  } catch (const HttpError& error) {
    line.tell(error.what());
    answer_failure(exchange, error.status(), error.what(), error.condition());
  } catch (const DriveError& error) {
    line.tell(error.what());
    answer_failure(exchange, status_of_code(error.code()), error.what(), {});
  } catch (const ConnectionEnd& end) {
    line.tell(end.what());
    throw;
  } catch (const std::exception& error) {
    line.tell(error.what());
    answer_failure(exchange, Status::internal_server_error, error.what(), {});
  }
}

}  // namespace tnwdav
