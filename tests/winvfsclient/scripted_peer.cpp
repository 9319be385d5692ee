#include "scripted_peer.h"

#include <winsock2.h>
/* after winsock2.h */
#include <afunix.h>
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <stdexcept>

namespace {

constexpr ox_u32 LONGEST_REQUEST = 1 << 20;

SOCKET unix_socket(const std::string& path, sockaddr_un* addr) {
  *addr = {};
  addr->sun_family = AF_UNIX;
  if (path.size() >= sizeof(addr->sun_path)) {
    throw std::runtime_error("socket path too long");
  }
  memcpy(addr->sun_path, path.c_str(), path.size() + 1);
  const SOCKET sock = socket(AF_UNIX, SOCK_STREAM, 0);
  if (sock == INVALID_SOCKET) {
    throw std::runtime_error("no AF_UNIX socket");
  }
  return sock;
}

SOCKET listen_at(const std::string& path) {
  WSADATA data;
  WSAStartup(MAKEWORD(2, 2), &data);
  DeleteFileA(path.c_str());
  sockaddr_un addr;
  const SOCKET sock = unix_socket(path, &addr);
  if (bind(sock, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
      listen(sock, SOMAXCONN) != 0) {
    throw std::runtime_error("cannot listen at " + path);
  }
  return sock;
}

}  // namespace

Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

/* ------------------------------------------------------------------- one connection */

PeerConnection::~PeerConnection() {
  if (thread_.joinable()) {
    thread_.join();
  }
  close();
}

tnv_resphdr PeerConnection::header(ox_u32 err, ox_u32 len) const {
  tnv_resphdr hdr = {};
  hdr.rhdr_id = request_.msg().hdr.hdr_id;
  hdr.rhdr_opcode = request_.opcode();
  hdr.rhdr_errno = err;
  hdr.rhdr_len = len;
  return hdr;
}

void PeerConnection::answer(ox_u32 err, const Bytes& payload) {
  send(bytes_of(header(err, static_cast<ox_u32>(payload.size()))) + payload);
}

void PeerConnection::send(const Bytes& bytes) {
  size_t sent = 0;
  while (sent < bytes.size()) {
    const int count = ::send(sock_, reinterpret_cast<const char*>(bytes.data()) + sent,
                             static_cast<int>(bytes.size() - sent), 0);
    if (count <= 0) {
      return; /* the client went: the script need not care */
    }
    sent += static_cast<size_t>(count);
  }
}

void PeerConnection::close() {
  const std::lock_guard lock(mutex_);
  if (sock_ == INVALID_SOCKET) {
    return;
  }
  closesocket(sock_);
  sock_ = INVALID_SOCKET;
}

void PeerConnection::reset() {
  const linger abort = {1, 0};
  setsockopt(sock_, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&abort), sizeof(abort));
  close();
}

void PeerConnection::end_sending() { shutdown(sock_, SD_SEND); }

void PeerConnection::stall() {
  std::unique_lock lock(peer_.mutex_);
  peer_.changed_.wait(lock, [this] { return peer_.resumed_ || peer_.ending_; });
}

void PeerConnection::hang_up() {
  const std::lock_guard lock(mutex_);
  hung_up_ = true;
  if (sock_ != INVALID_SOCKET) {
    shutdown(sock_, SD_BOTH);
  }
}

/* A shutdown by another thread does not end a blocked recv everywhere, so this looks up now and
 * then. */
bool PeerConnection::wait_readable() {
  WSAPOLLFD polled = {sock_, POLLRDNORM, 0};
  while (!hung_up_) {
    if (WSAPoll(&polled, 1, 20) != 0) {
      return true;
    }
  }
  return false;
}

bool PeerConnection::receive(ox_u8* data, size_t nbytes) {
  size_t got = 0;
  while (got < nbytes && sock_ != INVALID_SOCKET) {
    if (!wait_readable()) {
      return false;
    }
    const int count =
        recv(sock_, reinterpret_cast<char*>(data) + got, static_cast<int>(nbytes - got), 0);
    if (count <= 0) {
      return false;
    }
    got += static_cast<size_t>(count);
  }
  return got == nbytes;
}

bool PeerConnection::receive_request() {
  request_.bytes.assign(sizeof(tnv_msg), 0);
  if (!receive(request_.bytes.data(), sizeof(tnv_msg))) {
    return false;
  }
  const ox_u32 len = request_.msg().hdr.hdr_len;
  if (len < sizeof(tnv_msg) || len > LONGEST_REQUEST) {
    return false;
  }
  request_.bytes.resize(len);
  return receive(request_.bytes.data() + sizeof(tnv_msg), len - sizeof(tnv_msg));
}

void PeerConnection::serve() {
  peer_.run(*this);
  close();
  const std::lock_guard lock(peer_.mutex_);
  peer_.ended_++;
  peer_.changed_.notify_all();
}

/* ------------------------------------------------------------------- the peer */

ScriptedPeer::ScriptedPeer(Script on_request, std::string path)
    : path_(std::move(path)),
      listener_(listen_at(path_)),
      on_request_(std::move(on_request)),
      on_accept_([](PeerConnection&) {}),
      acceptor_([this] { accept_all(); }) {}

ScriptedPeer::~ScriptedPeer() {
  {
    const std::lock_guard lock(mutex_);
    ending_ = true;
    changed_.notify_all();
  }
  hang_up();
  closesocket(listener_); /* ends the accept; the socket file may be gone already */
  acceptor_.join();
  connections_.clear();
  DeleteFileA(path_.c_str());
  WSACleanup();
}

std::string ScriptedPeer::fresh_path() {
  static std::atomic<int> number = 0;
  char folder[MAX_PATH + 1];
  GetTempPathA(sizeof(folder), folder);
  return folder + std::string("p") + std::to_string(GetCurrentProcessId()) + "_" +
         std::to_string(number++) + ".sock";
}

void ScriptedPeer::on_request(Script script) {
  const std::lock_guard lock(mutex_);
  on_request_ = std::move(script);
}

void ScriptedPeer::on_accept(Script script) {
  const std::lock_guard lock(mutex_);
  on_accept_ = std::move(script);
}

void ScriptedPeer::resume() {
  const std::lock_guard lock(mutex_);
  resumed_ = true;
  changed_.notify_all();
}

void ScriptedPeer::hang_up() {
  const std::lock_guard lock(mutex_);
  for (auto& conn : connections_) {
    conn->hang_up();
  }
}

std::vector<PeerRequest> ScriptedPeer::requests() const {
  const std::lock_guard lock(mutex_);
  return requests_;
}

size_t ScriptedPeer::count(ox_u32 opcode) const {
  const std::lock_guard lock(mutex_);
  return static_cast<size_t>(
      std::count_if(requests_.begin(), requests_.end(),
                    [opcode](const PeerRequest& req) { return req.opcode() == opcode; }));
}

bool ScriptedPeer::wait_for_ended(size_t count) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, std::chrono::seconds(10), [&] { return ended_ >= count; });
}

void ScriptedPeer::accept_all() {
  for (;;) {
    const SOCKET sock = accept(listener_, nullptr, nullptr);
    const std::lock_guard lock(mutex_);
    if (ending_ || sock == INVALID_SOCKET) {
      if (sock != INVALID_SOCKET) {
        closesocket(sock);
      }
      return;
    }
    auto& conn = connections_.emplace_back(std::make_unique<PeerConnection>(*this, sock));
    conn->thread_ = std::thread([served = conn.get()] { served->serve(); });
  }
}

void ScriptedPeer::run(PeerConnection& conn) {
  const auto script = [this](Script ScriptedPeer::*which) {
    const std::lock_guard lock(mutex_);
    return this->*which;
  };
  script (&ScriptedPeer::on_accept_)(conn);
  while (conn.receive_request()) {
    {
      const std::lock_guard lock(mutex_);
      requests_.push_back(conn.request());
    }
    script (&ScriptedPeer::on_request_)(conn);
  }
}
