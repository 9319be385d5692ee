/*
 * Requests to one web server, over the system's own HTTP client: connections are kept and shared,
 * and every wait has an end.
 *
 * Certificates are always checked. With an authority's file, the server's certificate must be of
 * that authority, and the system's own do not count.
 *
 * Threads: any number; each request blocks the thread that makes it.
 */
#ifndef SERVICE_HTTP_CLIENT_H
#define SERVICE_HTTP_CLIENT_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "cloud/cloud.h"
#include "cloud/webdav/web_address.h"
#include "cloud/webdav/win_http_exchange.h"

namespace tarnd {

struct HttpSettings {
  unsigned connections = 8; /* requests at a time */
  std::string ca_file = {}; /* a certificate, PEM or DER; UTF-8; empty: the system's authorities */
  std::chrono::milliseconds longest_wait{30'000}; /* for the server's next sign of life */
};

struct HttpRequest {
  std::string method;
  std::string target; /* encoded */
  std::vector<std::pair<std::string, std::string>> headers = {};
  uint64_t body_size = 0;
  /* `size` bytes at `offset`: 0 or an error number, which ends the request as REFUSED. */
  std::function<int(uint64_t offset, char* buffer, size_t size)> body = {};
};

struct HttpAnswer {
  int status = 0;
  std::string tag;
  std::string last_modified;
  std::string content_range;
  std::string location;
  std::string lock_token;
  std::string retry_after;
  std::string date;
  std::string length; /* of the body, where the server tells it */
};

/*
 * Takes the next bytes of an answer's body, after `answer` was filled in: 0, or an error number,
 * which ends the request as REFUSED with this number.
 */
using BodySink = std::function<int(const char* data, size_t size)>;

class HttpClient {
 public:
  /* Null with a text in `*error`: the authority's file, or the system has no HTTP client. */
  static std::unique_ptr<HttpClient> open(const WebAddress& address, const HttpSettings& settings,
                                          std::string* error);

  /*
   * OK when all of an answer came, whatever its status; an empty sink lets its body go. OFFLINE
   * when the server was not reached; UNKNOWN_OUTCOME when it may have had the request, but its
   * answer did not come or broke off.
   */
  CloudResult send(const CloudContext& context, const HttpRequest& request, HttpAnswer* answer,
                   const BodySink& sink = {});

 private:
  HttpClient(const WebAddress& address, const HttpSettings& settings)
      : address_(address), settings_(settings), free_(settings.connections) {}

  CloudResult take_turn(const CloudContext& context);
  void end_turn();
  CloudResult exchange(const CloudContext& context, const HttpRequest& request, HttpAnswer* answer,
                       const BodySink& sink);
  CloudResult send_body(const CloudContext& context, const HttpRequest& request,
                        WinHttpExchange& exchange);
  CloudResult receive_body(const CloudContext& context, WinHttpExchange& exchange,
                           const BodySink& sink);
  std::shared_ptr<WinHttpConnection> connection(const CloudCredentials& credentials);

  const WebAddress address_;
  const HttpSettings settings_;
  /* Fixed after open(); null: the system's. */
  std::shared_ptr<CertificateAuthority> authority_;
  std::mutex lock_;                               /* guards the next two */
  unsigned free_;                                 /* requests that may begin */
  std::shared_ptr<WinHttpConnection> connection_; /* for one proxy */
  std::condition_variable freed_;
};

}  // namespace tarnd

#endif
