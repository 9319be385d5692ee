/*
 * Listens on the loopback interface and gives each connection a thread, in which its requests are
 * handled one after another.
 */
#ifndef TNWDAV_HTTP_SERVER_H
#define TNWDAV_HTTP_SERVER_H

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <thread>

#include "client_connection.h"
#include "exchange.h"

namespace tnwdav {

class HttpServer {
 public:
  using Handler = std::function<void(Exchange& exchange)>;

  /* Port 0: any free one. Throws a tools::Failure when the port is not to be had. */
  HttpServer(uint16_t port, Handler handler);
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  uint16_t port() const;

  /*
   * Serves until `tick`, which is called five times a second, says false. Then requests that are
   * being handled are finished; clients that take longer than some seconds to receive their answers
   * are cut off. To be called once.
   */
  void run(const std::function<bool()>& tick);

 private:
  using Socket = boost::asio::ip::tcp::socket;
  struct Connection {
    explicit Connection(Socket taken) : client{std::move(taken), {}} {}
    ClientConnection client;
    bool ended = false; /* guarded by lock_ */
    std::thread thread; /* the server's, after the start */
  };

  void accept_next();
  void start(Socket socket);
  void serve(Connection& connection);
  void handle_requests(ClientConnection& client);
  void forget_ended();
  bool all_ended();
  void end_connections();
  void shut_down(int how);
  void tick_later(const std::function<bool()>& tick);

  const Handler handler_;
  boost::asio::io_context io_;
  boost::asio::ip::tcp::acceptor acceptor_{io_};
  boost::asio::steady_timer timer_{io_};
  std::mutex lock_; /* guards the next one and `ended` of its members */
  std::list<Connection> connections_;
};

}  // namespace tnwdav

#endif
