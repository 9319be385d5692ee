/*
 * One request of WinHTTP and its answer, step by step. WinHTTP works in the background; each step
 * waits for it until the deadline, or until the caller gives up: then the request is let go, and
 * what WinHTTP still does with it happens without us.
 */
#ifndef SERVICE_WIN_HTTP_EXCHANGE_H
#define SERVICE_WIN_HTTP_EXCHANGE_H

#include <windows.h>

#include <wincrypt.h>
#include <winhttp.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "cloud/cloud_result.h"

namespace tarnd {

/* Closes what it holds. */
struct InternetClose {
  void operator()(void* handle) const { WinHttpCloseHandle(handle); }
};
using InternetHandle = std::unique_ptr<void, InternetClose>;

/* An own authority: the only one whose certificates count. Fixed after load(). */
class CertificateAuthority {
 public:
  ~CertificateAuthority();

  /* False with a text in `*error`. */
  bool load(const std::string& path, std::string* error);
  /* Whether the certificate that a request's server has shown is the authority's. */
  bool trusts_server_of(HINTERNET request) const;

 private:
  HCERTSTORE roots_ = nullptr;
  HCERTCHAINENGINE engine_ = nullptr;
};

/* The way to one server, through one proxy or none. Any thread. */
struct WinHttpConnection {
  InternetHandle session;
  InternetHandle connect;
  CloudCredentials proxy; /* without the token */

  static std::shared_ptr<WinHttpConnection> open(const std::string& host, uint16_t port,
                                                 const CloudCredentials& credentials,
                                                 std::chrono::milliseconds longest_wait);
  bool is_for(const CloudCredentials& credentials) const;
};

class WinHttpExchange {
 public:
  /* `authority` may be null: the system's count. */
  WinHttpExchange(std::shared_ptr<WinHttpConnection> connection,
                  std::shared_ptr<const CertificateAuthority> authority,
                  std::chrono::milliseconds longest_wait);
  ~WinHttpExchange();
  WinHttpExchange(const WinHttpExchange&) = delete;
  WinHttpExchange& operator=(const WinHttpExchange&) = delete;

  /*
   * Each of them is OK, or why the step did not come to an end. `headers` end in CRLF; `body` is
   * the whole of a small one, which leaves in one piece with them, or empty.
   */
  CloudResult begin(const CloudContext& context, const std::string& method,
                    const std::string& target, const std::string& headers, const std::string& body,
                    bool secure);
  CloudResult write(const CloudContext& context, const char* data, size_t size);
  CloudResult receive_headers(const CloudContext& context);
  /* `size` is 0 at the end of the body; the bytes stay until the next step. */
  CloudResult read(const CloudContext& context, const char** data, size_t* size);

  int status() const;
  std::string header(const wchar_t* name) const;

 private:
  struct State;

  CloudResult wait(const CloudContext& context);
  CloudResult failure(DWORD error) const;

  const std::shared_ptr<WinHttpConnection> connection_;
  const std::chrono::milliseconds longest_wait_;
  const std::shared_ptr<State> state_; /* shared with the callbacks */
};

}  // namespace tarnd

#endif
