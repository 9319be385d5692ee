#include "clients.h"

#include <winsock2.h>
/* after winsock2.h */
#include <afunix.h>
#include <windows.h>

#include <algorithm>

namespace tarnd {

void Clients::join(uint64_t connection, uint32_t pid) {
  const std::lock_guard guard(lock_);
  processes_[connection].insert(pid);
}

std::set<uint32_t> Clients::of(uint64_t connection) {
  const std::lock_guard guard(lock_);
  const auto it = processes_.find(connection);
  return it == processes_.end() ? std::set<uint32_t>{} : it->second;
}

std::set<uint32_t> Clients::leave(uint64_t connection) {
  const std::lock_guard guard(lock_);
  const auto it = processes_.find(connection);
  if (it == processes_.end()) {
    return {};
  }
  std::set<uint32_t> gone = std::move(it->second);
  processes_.erase(it);
  std::erase_if(gone, [this](uint32_t pid) {
    return std::any_of(processes_.begin(), processes_.end(),
                       [pid](const auto& other) { return other.second.contains(pid); });
  });
  return gone;
}

uint32_t peer_process(uint64_t socket) {
  ULONG pid = 0;
  DWORD size = 0;
  const int failed = WSAIoctl(static_cast<SOCKET>(socket), SIO_AF_UNIX_GETPEERPID, nullptr, 0, &pid,
                              sizeof pid, &size, nullptr, nullptr);
  return failed == 0 && size == sizeof pid ? pid : 0;
}

uint32_t process_of_thread(uint32_t thread_id) {
  const HANDLE thread = OpenThread(THREAD_QUERY_LIMITED_INFORMATION, FALSE, thread_id);
  if (thread == nullptr) {
    return 0;
  }
  const DWORD pid = GetProcessIdOfThread(thread);
  CloseHandle(thread);
  return pid;
}

}  // namespace tarnd
