/*
 * The limit of a call that asks the service: the same bytes over an AF_UNIX socket, with a thread
 * of this program at the other end that does nothing but answer.
 */
#ifndef BARE_EXCHANGE_H
#define BARE_EXCHANGE_H

#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "tnv_proto.h"

/* Bytes of a request without a text, and of answers. */
constexpr size_t REQUEST = TNV_MSG_FIXED;
constexpr size_t ANSWER = sizeof(tnv_resphdr);
constexpr size_t STAT_ANSWER = ANSWER + sizeof(tnv_wstat_resp);
constexpr size_t OPEN_ANSWER = ANSWER + sizeof(tnv_wopen_resp) + 130; /* with two maps */

class BareExchange {
 public:
  explicit BareExchange(const std::string& socket_path);
  ~BareExchange();
  BareExchange(const BareExchange&) = delete;

  /* One request and its answer, of so many bytes. One thread at a time. An answer is received in
   * pieces of at most 64 KiB, as they come. */
  void run(size_t request, size_t answer);

 private:
  void serve();

  std::vector<char> buffer_;
  uintptr_t client_;
  uintptr_t server_;
  std::thread thread_;
};

#endif
