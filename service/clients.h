/*
 * Which client processes stand behind which connections: when the last connection of a process
 * ends, so do its opens. Any thread.
 */
#ifndef SERVICE_CLIENTS_H
#define SERVICE_CLIENTS_H

#include <cstdint>
#include <map>
#include <mutex>
#include <set>

namespace tarnd {

class Clients {
 public:
  void join(uint64_t connection, uint32_t pid);
  /* The processes behind a connection. */
  std::set<uint32_t> of(uint64_t connection);
  /* The connection ends: returns the processes that have no other one. */
  std::set<uint32_t> leave(uint64_t connection);

 private:
  std::mutex lock_;
  std::map<uint64_t, std::set<uint32_t>> processes_; /* by connection; guarded by lock_ */
};

/* The process at the other end of a connected socket; 0 where the system does not tell. */
uint32_t peer_process(uint64_t socket);
/* The process of a living thread; 0 when there is none. */
uint32_t process_of_thread(uint32_t thread_id);

}  // namespace tarnd

#endif
