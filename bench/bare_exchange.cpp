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
  size_t request;
  size_t answer;
};

void send_all(SOCKET sock, const char* data, size_t size) {
  must(send(sock, data, static_cast<int>(size), 0) == static_cast<int>(size), "send");
}

/* So many bytes, of which the buffer keeps those that came last; false at the end of the stream. */
bool receive(SOCKET sock, std::vector<char>& bytes, size_t size) {
  while (size > 0) {
    const int got = recv(sock, bytes.data(), static_cast<int>(std::min(size, PIECE)), 0);
    if (got <= 0) {
      return false;
    }
    size -= static_cast<size_t>(got);
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
  const SOCKET listener = socket(AF_UNIX, SOCK_STREAM, 0);
  client_ = socket(AF_UNIX, SOCK_STREAM, 0);
  must(bind(listener, where, sizeof address) == 0 && listen(listener, 1) == 0, "listen");
  must(connect(client_, where, sizeof address) == 0, "connect");
  server_ = accept(listener, nullptr, nullptr);
  closesocket(listener);
  thread_ = std::thread([this] { serve(); });
}

BareExchange::~BareExchange() {
  closesocket(client_);
  thread_.join();
  closesocket(server_);
}

/* A request comes whole, as a rule with one call. */
void BareExchange::serve() {
  std::vector<char> bytes(PIECE);
  for (int got; (got = recv(server_, bytes.data(), PIECE, 0)) > 0;) {
    BareHeader header;
    must(static_cast<size_t>(got) >= sizeof header, "the begin of a request");
    memcpy(&header, bytes.data(), sizeof header);
    must(receive(server_, bytes, header.request - static_cast<size_t>(got)), "a request");
    for (size_t left = header.answer; left != 0; left -= std::min(left, PIECE)) {
      send_all(server_, bytes.data(), std::min(left, PIECE));
    }
  }
}

void BareExchange::run(size_t request, size_t answer) {
  const BareHeader header = {request, answer};
  memcpy(buffer_.data(), &header, sizeof header);
  send_all(client_, buffer_.data(), request);
  must(receive(client_, buffer_, answer), "receive");
}
