#include "cloud/webdav/http_client.h"

#include <algorithm>

#include "cloud/webdav/http_rules.h"

namespace tarnd {
namespace {

constexpr uint64_t PIECE = uint64_t{256} << 10;
constexpr uint64_t SMALL = uint64_t{32} << 10;

/*
 * A proxy that asks for the password after a body has gone in pieces would never get it: so it is
 * told with each request. Of an encrypted one it sees nothing; there WinHTTP tells it at the start.
 */
std::string proxy_authorisation(const CloudCredentials& credentials, bool secure) {
  const bool wanted =
      !secure && !credentials.proxy_server.empty() && !credentials.proxy_user.empty();
  return wanted ? basic_authorisation(credentials.proxy_user + ':' + credentials.proxy_password)
                : "";
}

std::string header_lines(const HttpRequest& request, const CloudCredentials& credentials,
                         bool secure) {
  std::string lines;
  const auto add = [&](const std::string& name, const std::string& value) {
    lines += value.empty() ? "" : name + ": " + value + "\r\n";
  };
  for (const auto& [name, value] : request.headers) {
    add(name, value);
  }
  if (request.body_size == 0 ? request.method == "PUT" : request.body_size > SMALL) {
    add("Content-Length", std::to_string(request.body_size));
  }
  add("Authorization", authorisation_of(credentials.token));
  add("Proxy-Authorization", proxy_authorisation(credentials, secure));
  return lines;
}

bool has_line_end(const CloudCredentials& credentials) {
  return credentials.token.find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos;
}

void read_headers(const WinHttpExchange& exchange, HttpAnswer* answer) {
  *answer = {exchange.status(),
             exchange.header(L"ETag"),
             exchange.header(L"Last-Modified"),
             exchange.header(L"Content-Range"),
             exchange.header(L"Location"),
             exchange.header(L"Lock-Token"),
             exchange.header(L"Retry-After"),
             exchange.header(L"Date"),
             exchange.header(L"Content-Length")};
}

}  // namespace

std::unique_ptr<HttpClient> HttpClient::open(const WebAddress& address,
                                             const HttpSettings& settings, std::string* error) {
  std::unique_ptr<HttpClient> client(new HttpClient(address, settings));
  if (!settings.ca_file.empty()) {
    client->authority_ = std::make_shared<CertificateAuthority>();
    if (!client->authority_->load(settings.ca_file, error)) {
      return nullptr;
    }
  }
  if (client->connection({}) == nullptr) {
    *error = "the system's HTTP client does not start";
    return nullptr;
  }
  return client;
}

/* The proxy's change makes a new connection; the old one goes with its last request. */
std::shared_ptr<WinHttpConnection> HttpClient::connection(const CloudCredentials& credentials) {
  const std::lock_guard guard(lock_);
  if (connection_ == nullptr || !connection_->is_for(credentials)) {
    connection_ =
        WinHttpConnection::open(address_.host, address_.port, credentials, settings_.longest_wait);
  }
  return connection_;
}

CloudResult HttpClient::send(const CloudContext& context, const HttpRequest& request,
                             HttpAnswer* answer, const BodySink& sink) {
  CloudResult result = take_turn(context);
  if (result.ok()) {
    result = exchange(context, request, answer, sink);
    end_turn();
  }
  return result;
}

/* Waits until fewer requests are under way than connections are allowed. */
CloudResult HttpClient::take_turn(const CloudContext& context) {
  constexpr std::chrono::milliseconds STEP{20}; /* after which the caller may have given up */
  std::unique_lock lock(lock_);
  CloudResult may = check(context);
  while (may.ok() && free_ == 0) {
    freed_.wait_for(lock, STEP);
    may = check(context);
  }
  if (may.ok()) {
    free_--;
  }
  return may;
}

void HttpClient::end_turn() {
  const std::lock_guard guard(lock_);
  free_++;
  freed_.notify_one();
}

CloudResult HttpClient::exchange(const CloudContext& context, const HttpRequest& request,
                                 HttpAnswer* answer, const BodySink& sink) {
  *answer = {};
  const CloudCredentials nobody;
  const CloudCredentials& credentials =
      context.credentials != nullptr ? *context.credentials : nobody;
  if (has_line_end(credentials)) {
    return CloudResult::of(CloudCode::UNAUTHORISED);
  }
  const std::shared_ptr<WinHttpConnection> way = connection(credentials);
  if (way == nullptr) {
    return CloudResult::of(CloudCode::OFFLINE);
  }
  WinHttpExchange exchange(way, authority_, settings_.longest_wait);
  std::string body(request.body_size <= SMALL ? static_cast<size_t>(request.body_size) : 0, '\0');
  if (const int err = body.empty() ? 0 : request.body(0, body.data(), body.size())) {
    return CloudResult::refused(err);
  }
  CloudResult result =
      exchange.begin(context, request.method, request.target,
                     header_lines(request, credentials, address_.secure), body, address_.secure);
  if (result.ok() && body.empty()) {
    result = send_body(context, request, exchange);
  }
  if (result.ok()) {
    result = exchange.receive_headers(context);
  }
  if (!result.ok()) {
    return result;
  }
  read_headers(exchange, answer);
  uint64_t got = 0;
  const auto count = [&](const char* data, size_t size) {
    got += size;
    return sink ? sink(data, size) : 0;
  };
  result = receive_body(context, exchange, count);
  const bool cut = result.ok() && !answer->length.empty() && answer->length != std::to_string(got);
  return cut ? CloudResult::of(CloudCode::UNKNOWN_OUTCOME) : result;
}

CloudResult HttpClient::send_body(const CloudContext& context, const HttpRequest& request,
                                  WinHttpExchange& exchange) {
  std::string piece;
  for (uint64_t at = 0; at < request.body_size; at += piece.size()) {
    piece.resize(std::min<uint64_t>(PIECE, request.body_size - at));
    if (const int err = request.body(at, piece.data(), piece.size())) {
      return CloudResult::refused(err);
    }
    CloudResult result = check(context);
    if (result.ok()) {
      result = exchange.write(context, piece.data(), piece.size());
    }
    if (!result.ok()) {
      return result;
    }
  }
  return {};
}

CloudResult HttpClient::receive_body(const CloudContext& context, WinHttpExchange& exchange,
                                     const BodySink& sink) {
  for (;;) {
    const char* data = nullptr;
    size_t size = 0;
    CloudResult result = check(context);
    if (result.ok()) {
      result = exchange.read(context, &data, &size);
    }
    if (!result.ok() || size == 0) {
      return result;
    }
    if (const int err = sink(data, size)) {
      return CloudResult::refused(err);
    }
  }
}

}  // namespace tarnd
