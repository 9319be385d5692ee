/* One connection: reads requests, answers each, in order, on a thread of its own. */
#ifndef SERVICE_CONNECTION_H
#define SERVICE_CONNECTION_H

#include <atomic>
#include <cstdint>
#include <vector>

#include "protocol/operations.h"
#include "protocol/socket_reader.h"
#include "vfs_handle.h"

namespace tarnd {

/* Used by its thread alone, but for done(). */
class Connection {
 public:
  /* Takes the socket, which is in non-blocking mode. */
  Connection(Service& service, uint64_t number, int socket);

  /*
   * Serves until the peer leaves, sends what is no request, or the service stops; then closes the
   * socket and ends what the client left open.
   */
  void run();
  bool done() const { return done_; }

 private:
  bool read_request();
  void refuse_length();
  bool answer();
  void serve(const Request& request, Reply* reply);
  void delay(uint32_t opcode) const;
  bool send(const Request& request, Reply* reply);
  bool send_bulk(uint8_t* bytes, size_t size);
  bool send_listing(const std::vector<const CloudEntry*>& listing);
  void note_connect(const Request& request);
  bool broken(int err);

  Session session_;
  SocketReader reader_;
  vfs_handle vh_ = {};
  std::vector<uint64_t> storage_; /* the request */
  bool open_ = true;              /* the socket is still ours to close */
  std::atomic<bool> done_ = false;
};

}  // namespace tarnd

#endif
