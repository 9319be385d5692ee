/*
 * What a client sends, as a stream of bytes. One system call brings all that has come, and a wait
 * for more costs no call of its own: the receive is under way already.
 */
#ifndef SERVICE_SOCKET_READER_H
#define SERVICE_SOCKET_READER_H

#include <winsock2.h>
/* after winsock2.h */
#include <windows.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace tarnd {

/* Used by one thread. The socket outlives it. */
class SocketReader {
 public:
  SocketReader(uint64_t socket, const std::atomic<bool>& stopping);
  ~SocketReader();
  SocketReader(const SocketReader&) = delete;
  SocketReader& operator=(const SocketReader&) = delete;

  /*
   * Takes exactly `count` bytes. False when the client has left, the socket fails, or the service
   * stops while nothing comes.
   */
  bool take(void* to, size_t count);
  /* Overwrites what was taken: it was a secret. */
  void wipe_taken();

 private:
  bool receive_more();
  bool start(DWORD* got);
  bool wait(DWORD* got);
  bool is_hung_up() const;
  void cancel();

  const SOCKET socket_;
  const std::atomic<bool>& stopping_;
  const WSAEVENT ready_; /* an auto-reset event */
  WSAOVERLAPPED receive_ = {};
  /* A receive under way writes here. What is in [begin_, end_) has come and was not taken yet. */
  std::array<char, 4096> buffer_ = {};
  size_t begin_ = 0;
  size_t end_ = 0;
};

}  // namespace tarnd

#endif
