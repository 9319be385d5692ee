#include "bare_exchange.h"

#include <winsock2.h>
/* after winsock2.h */
#include <afunix.h>

#include <algorithm>
#include <cstring>

#include "bench.h"

namespace {

constexpr size_t PIECE = 65536;

/* The first bytes of a request say how long it is, and how long its answer is to be. */
struct BareHeader {
  uint32_t request;
  uint32_t answer;
};

bool receive(SOCKET sock, char* data, size_t size) {
  for (size_t have = 0; have < size;) {
    const int got = recv(sock, data + have, static_cast<int>(size - have), 0);
    if (got <= 0) {
      return false;
    }
    have += static_cast<size_t>(got);
  }
  return true;
}

void send_all(SOCKET sock, const char* data, size_t size) {
  must(send(sock, data, static_cast<int>(size), 0) == static_cast<int>(size), "send");
}

/* A whole request, as a rule with one call. False at the end of the stream. */
bool receive_request(SOCKET sock, std::vector<char>& bytes) {
  BareHeader header = {sizeof header, 0};
  for (size_t have = 0; have < header.request;) {
    const int got = recv(sock, bytes.data() + have, static_cast<int>(bytes.size() - have), 0);
    if (got <= 0) {
      return false;
    }
    have += static_cast<size_t>(got);
    if (have >= sizeof header) {
      memcpy(&header, bytes.data(), sizeof header);
    }
  }
  return true;
}

}  // namespace

BareExchange::BareExchange(const std::string& socket_path) : buffer_(PIECE) {
  WSADATA data;
  must(WSAStartup(MAKEWORD(2, 2), &data) == 0, "WSAStartup");
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  must(socket_path.size() < sizeof address.sun_path, "a short socket path");
  socket_path.copy(address.sun_path, sizeof address.sun_path - 1);
  const auto* where = reinterpret_cast<const sockaddr*>(&address);
  listener_ = socket(AF_UNIX, SOCK_STREAM, 0);
  client_ = socket(AF_UNIX, SOCK_STREAM, 0);
  must(bind(listener_, where, sizeof address) == 0 && listen(listener_, 1) == 0, "listen");
  must(connect(client_, where, sizeof address) == 0, "connect");
  server_ = accept(listener_, nullptr, nullptr);
  thread_ = std::thread([this] { serve(); });
}

BareExchange::~BareExchange() {
  closesocket(client_);
  thread_.join();
  closesocket(server_);
  closesocket(listener_);
}

void BareExchange::serve() {
  std::vector<char> bytes(PIECE);
  while (receive_request(server_, bytes)) {
    BareHeader header;
    memcpy(&header, bytes.data(), sizeof header);
    for (size_t left = header.answer; left != 0;) {
      const size_t piece = std::min(left, PIECE);
      send_all(server_, bytes.data(), piece);
      left -= piece;
    }
  }
}

void BareExchange::run(uint32_t request, uint32_t answer) {
  const BareHeader header = {request, answer};
  memcpy(buffer_.data(), &header, sizeof header);
  send_all(client_, buffer_.data(), request);
  must(receive(client_, buffer_.data(), answer), "receive");
}

void BareExchange::run_long(uint32_t request, uint32_t answer) {
  const BareHeader header = {request, answer};
  memcpy(buffer_.data(), &header, sizeof header);
  send_all(client_, buffer_.data(), request);
  for (size_t left = answer; left != 0;) {
    const int got = recv(client_, buffer_.data(), static_cast<int>(std::min(left, PIECE)), 0);
    must(got > 0, "receive");
    left -= static_cast<size_t>(got);
  }
}
