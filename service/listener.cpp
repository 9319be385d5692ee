#include "listener.h"

#include <winsock2.h>
/* after winsock2.h */
#include <afunix.h>
#include <windows.h>
/* after windows.h */
#include <sddl.h>

#include <system_error>

#include "ox_logging.h"
#include "private_access.h"
#include "tnv_connio_win.h"
#include "wide_text.h"

namespace tarnd {
namespace {

constexpr int POLL_MS = 250;
constexpr size_t MAX_PEERS = 1024;

/* The text in the process's code page, in which the client composes the socket's path. */
std::string narrow_from_wide(const std::wstring& text) {
  std::string out(text.size() * 4 + 1, '\0');
  const int bytes = WideCharToMultiByte(CP_ACP, 0, text.data(), static_cast<int>(text.size()),
                                        out.data(), static_cast<int>(out.size()), nullptr, nullptr);
  out.resize(static_cast<size_t>(bytes));
  return out;
}

std::string with_error(const std::string& text, int err) {
  return text + " (Windows error " + std::to_string(err) + ")";
}

bool address_of(const std::string& path, sockaddr_un* address) {
  *address = {};
  address->sun_family = AF_UNIX;
  if (path.size() >= sizeof address->sun_path) {
    return false;
  }
  path.copy(address->sun_path, path.size());
  return true;
}

/* Whether somebody listens on the socket file. */
bool is_alive(const sockaddr_un& address) {
  const SOCKET probe = socket(AF_UNIX, SOCK_STREAM, 0);
  const bool alive =
      connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  closesocket(probe);
  return alive;
}

}  // namespace

Listener::~Listener() {
  if (socket_ != INVALID_SOCKET) {
    closesocket(static_cast<SOCKET>(socket_));
    DeleteFileW(wide_path_.c_str());
  }
}

bool Listener::start(std::string* error) {
  std::wstring folder;
  if (!wide_from_utf8(socket_folder(service_.options), &folder) ||
      !wide_from_utf8(socket_path(service_.options), &wide_path_)) {
    *error = "The socket's path is not UTF-8";
    return false;
  }
  path_ = narrow_from_wide(wide_path_);
  if (const DWORD code = make_private_folder(folder)) {
    *error = with_error("Cannot make the socket's folder", static_cast<int>(code));
    return false;
  }
  return claim_for_user(folder, error) && bind_socket(error);
}

bool Listener::bind_socket(std::string* error) {
  sockaddr_un address;
  if (!address_of(path_, &address)) {
    *error = "Socket path too long: " + path_;
    return false;
  }
  if (is_alive(address)) {
    *error = "Another service listens on " + path_;
    return false;
  }
  DeleteFileW(wide_path_.c_str());
  socket_ = socket(AF_UNIX, SOCK_STREAM, 0);
  const SOCKET listener = static_cast<SOCKET>(socket_);
  if (listener == INVALID_SOCKET ||
      bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    *error = with_error("Cannot make the socket " + path_, WSAGetLastError());
    return false;
  }
  if (!claim_for_user(wide_path_, error)) {
    return false;
  }
  if (listen(listener, SOMAXCONN) != 0 || tnv_setsockopt(static_cast<int>(listener)) != 0) {
    *error = with_error("Cannot listen on " + path_, WSAGetLastError());
    return false;
  }
  OX_LOG(OX_INFO_LEVEL, 0, "Listening on %s", path_.c_str());
  return true;
}

void Listener::run() {
  tnv_signal_start(path_.data());
  while (!service_.stopping) {
    WSAPOLLFD ready = {static_cast<SOCKET>(socket_), POLLRDNORM, 0};
    const int count = WSAPoll(&ready, 1, POLL_MS);
    if (count > 0) {
      accept_peer();
    } else if (count < 0) {
      Sleep(POLL_MS);
    }
    reap(false);
  }
  reap(true);
}

void Listener::accept_peer() {
  const SOCKET peer = accept(static_cast<SOCKET>(socket_), nullptr, nullptr);
  if (peer == INVALID_SOCKET) {
    if (WSAGetLastError() != WSAEWOULDBLOCK) { /* the peer did not wait */
      OX_LOG(OX_ERROR_LEVEL, WSAGetLastError(), "Cannot accept a connection");
    }
    Sleep(1);
    return;
  }
  const int fd = static_cast<int>(peer);
  if (peers_.size() >= MAX_PEERS || tnv_setsockopt(fd) != 0 || !start_thread(fd)) {
    OX_LOG(OX_ERROR_LEVEL, 0, "A connection is refused; there are %zu", peers_.size());
    closesocket(peer);
  }
}

bool Listener::start_thread(int fd) {
  Peer& added = peers_.emplace_back();
  added.connection = std::make_unique<Connection>(service_, next_number_++, fd);
  try {
    added.thread = std::thread([connection = added.connection.get()] { connection->run(); });
  } catch (const std::system_error&) {
    peers_.pop_back();
    return false;
  }
  return true;
}

/* Joins the threads that have ended, or all. */
void Listener::reap(bool all) {
  for (auto it = peers_.begin(); it != peers_.end();) {
    if (all || it->connection->done()) {
      it->thread.join();
      it = peers_.erase(it);
    } else {
      ++it;
    }
  }
}

}  // namespace tarnd
