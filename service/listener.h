/* The service's socket and the threads of its connections. */
#ifndef SERVICE_LISTENER_H
#define SERVICE_LISTENER_H

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <thread>

#include "protocol/connection.h"

namespace tarnd {

/* Used by one thread. */
class Listener {
 public:
  explicit Listener(Service& service) : service_(service) {}
  ~Listener();

  /*
   * Makes the socket's folder if need be, removes the socket file of a service that is gone, and
   * listens. Folder and file are for this user only before anybody can connect. False with a text
   * in `*error`, also when they belong to somebody else.
   */
  bool start(std::string* error);
  /* Accepts connections until the service stops, then waits until they have ended. */
  void run();

 private:
  struct Peer {
    std::unique_ptr<Connection> connection;
    std::thread thread;
  };

  bool bind_socket(std::string* error);
  void accept_peer();
  bool start_thread(int fd);
  void reap(bool all);

  Service& service_;
  std::string path_; /* as the client composes it: in the process's code page */
  std::wstring wide_path_;
  uint64_t socket_ = UINT64_MAX;
  uint64_t next_number_ = 1;
  std::list<Peer> peers_;
};

}  // namespace tarnd

#endif
