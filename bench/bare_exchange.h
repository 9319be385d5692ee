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

class BareExchange {
 public:
  explicit BareExchange(const std::string& socket_path);
  ~BareExchange();
  BareExchange(const BareExchange&) = delete;

  /* One request and its answer, of so many bytes. One thread at a time. */
  void run(uint32_t request, uint32_t answer);
  /* The same with an answer that is received in pieces of at most 64 KiB, as they come. */
  void run_long(uint32_t request, uint32_t answer);

 private:
  void serve();

  std::vector<char> buffer_;
  uintptr_t listener_;
  uintptr_t client_;
  uintptr_t server_;
  std::thread thread_;
};

#endif
