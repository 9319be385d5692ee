#include "http_server.h"

#include <algorithm>
#include <chrono>

#include "tools/common/failure.h"

namespace tnwdav {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

constexpr size_t MAX_CONNECTIONS = 64;
constexpr std::chrono::milliseconds TICK{200};
constexpr int MOST_WAITS = 25; /* of one tick, for the last answers */
/* Windows keeps a connection without requests open as long as the server does. */
constexpr DWORD IDLE_LIMIT_MS = 300'000;

tcp::acceptor listen_on(asio::io_context& io, uint16_t port) {
  const tcp::endpoint end(asio::ip::address_v4::loopback(), port);
  tcp::acceptor acceptor(io, end.protocol());
  error_code err;
  acceptor.bind(end, err);
  if (!err) {
    acceptor.listen(asio::socket_base::max_listen_connections, err);
  }
  if (err) {
    throw tools::Failure("127.0.0.1:" + std::to_string(port),
                         "cannot be listened on (--port 0 takes any free port)",
                         static_cast<uint32_t>(err.value()));
  }
  return acceptor;
}

/* A client that neither sends nor receives for so long does not hold its thread. */
void limit_waits(tcp::socket& socket) {
  error_code ignored;
  socket.set_option(tcp::no_delay(true), ignored);
  const DWORD limit = IDLE_LIMIT_MS;
  for (const int option : {SO_RCVTIMEO, SO_SNDTIMEO}) {
    setsockopt(socket.native_handle(), SOL_SOCKET, option, reinterpret_cast<const char*>(&limit),
               sizeof limit);
  }
}

}  // namespace

HttpServer::HttpServer(uint16_t port, Handler handler)
    : handler_(std::move(handler)), acceptor_(listen_on(io_, port)) {}

void HttpServer::end_connections() {
  shut_down(SD_RECEIVE); /* no other request */
  for (int waits = 0; waits < MOST_WAITS && !all_ended(); waits++) {
    std::this_thread::sleep_for(TICK);
  }
  shut_down(SD_BOTH);
  for (Connection& connection : connections_) {
    connection.thread.join();
  }
  connections_.clear();
}

void HttpServer::shut_down(int how) {
  const std::lock_guard lock(lock_);
  for (Connection& connection : connections_) {
    if (!connection.ended) {
      shutdown(connection.client.socket.native_handle(), how);
    }
  }
}

bool HttpServer::all_ended() {
  const std::lock_guard lock(lock_);
  return std::all_of(connections_.begin(), connections_.end(),
                     [](const Connection& connection) { return connection.ended; });
}

uint16_t HttpServer::port() const { return acceptor_.local_endpoint().port(); }

void HttpServer::run(const std::function<bool()>& tick) {
  accept_next();
  tick_later(tick);
  io_.run();
  end_connections();
}

void HttpServer::tick_later(const std::function<bool()>& tick) {
  timer_.expires_after(TICK);
  timer_.async_wait([this, &tick](const error_code&) {
    if (tick()) {
      tick_later(tick);
    } else {
      io_.stop();
    }
  });
}

void HttpServer::accept_next() {
  acceptor_.async_accept([this](const error_code& err, Socket socket) {
    if (!err) {
      start(std::move(socket));
    } else {
      std::this_thread::sleep_for(TICK); /* the system has no sockets left: it may have some soon */
    }
    accept_next();
  });
}

/* A client that finds too many others is told to come again. */
void HttpServer::start(Socket socket) {
  forget_ended();
  limit_waits(socket);
  const std::lock_guard lock(lock_);
  if (connections_.size() >= MAX_CONNECTIONS) {
    error_code ignored;
    const std::string_view busy =
        "HTTP/1.1 503 Service Unavailable\r\nRetry-After: 1\r\nContent-Length: 0\r\n\r\n";
    socket.write_some(asio::buffer(busy), ignored);
    return;
  }
  Connection& connection = connections_.emplace_back(std::move(socket));
  connection.thread = std::thread([this, &connection] { serve(connection); });
}

void HttpServer::forget_ended() {
  const std::lock_guard lock(lock_);
  connections_.remove_if([](Connection& connection) {
    if (connection.ended) {
      connection.thread.join();
    }
    return connection.ended;
  });
}

void HttpServer::serve(Connection& connection) {
  try {
    handle_requests(connection.client);
  } catch (const std::exception&) {
    /* The client has gone, or was told already that its request cannot be read. */
  }
  error_code ignored;
  connection.client.socket.shutdown(tcp::socket::shutdown_both, ignored);
  const std::lock_guard lock(lock_);
  connection.ended = true;
}

void HttpServer::handle_requests(ClientConnection& client) {
  bool keep = true;
  while (keep) {
    Exchange exchange(client);
    if (!exchange.receive_header()) {
      return;
    }
    handler_(exchange);
    keep = exchange.keeps_connection();
  }
}

}  // namespace tnwdav
