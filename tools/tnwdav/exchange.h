/*
 * One request and its answer on a connection. Bodies go through in pieces, in both directions.
 *
 * Threads: the one of the connection.
 */
#ifndef TNWDAV_EXCHANGE_H
#define TNWDAV_EXCHANGE_H

#include <boost/beast/core/string.hpp>
#include <boost/beast/http/status.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tnwdav {

using Status = boost::beast::http::status;

/* Ends a request with this status. */
class HttpError : public std::runtime_error {
 public:
  /* `condition`: the name of the condition of WebDAV that failed, for the answer's body. */
  explicit HttpError(Status status, const std::string& reason, std::string condition = {})
      : std::runtime_error(reason), status_(status), condition_(std::move(condition)) {}
  Status status() const { return status_; }
  const std::string& condition() const { return condition_; }

 private:
  Status status_;
  std::string condition_;
};

/* The connection ended, or the client said nothing for too long. */
class ConnectionEnd : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct ClientConnection;

class Exchange {
 public:
  using PieceSink = std::function<void(const char* data, size_t size)>;

  explicit Exchange(ClientConnection& connection);
  ~Exchange();
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

  /* Reads the request's header. False when the client has ended the connection. */
  bool receive_header();

  std::string_view method() const;
  std::string_view target() const;
  std::string_view header(std::string_view name) const; /* empty when it is not there */
  bool has_body() const;
  std::optional<uint64_t> body_size() const; /* nothing when it is not announced */

  void read_body(const PieceSink& sink);
  /* Throws an HttpError when it is longer. */
  std::string read_body(size_t limit);

  /* Goes with the answer. */
  void set_header(std::string_view name, std::string_view value);
  void add_header(std::string_view name, std::string_view value);
  void answer(Status status, std::string_view body = {}, std::string_view type = {});

  /* An answer in pieces; without a size it is chunked. */
  void begin_answer(Status status, std::optional<uint64_t> size, std::string_view type);
  void send(std::string_view piece);
  void end_answer();

  bool answered() const { return answered_; }
  /* Of the answer that was begun. */
  Status status() const;
  uint64_t received() const { return received_; }
  uint64_t sent() const { return sent_; }
  /* Whether the connection may be used for another request. */
  bool keeps_connection() const { return keep_; }

 private:
  size_t read_piece(char* buffer, size_t size);
  void let_client_continue();
  void drop_body();
  void write(std::string_view data);

  struct Messages; /* the request and the answer, as the HTTP library has them */

  ClientConnection& connection_;
  const std::unique_ptr<Messages> messages_;
  bool answered_ = false;
  bool chunked_ = false;
  bool keep_ = false;
  bool awaits_continue_ = false;
  uint64_t received_ = 0; /* bytes of the request's body */
  uint64_t sent_ = 0;     /* bytes of the answer's */
};

}  // namespace tnwdav

#endif
