/* A client's connection. Only exchange.cpp and http_server.cpp know what it is made of. */
#ifndef TNWDAV_CLIENT_CONNECTION_H
#define TNWDAV_CLIENT_CONNECTION_H

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>

namespace tnwdav {

struct ClientConnection {
  boost::asio::ip::tcp::socket socket;
  boost::beast::flat_buffer buffer; /* what the client has sent ahead of its next request */
};

}  // namespace tnwdav

#endif
