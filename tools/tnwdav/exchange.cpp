#include "exchange.h"

#include <boost/asio/write.hpp>
#include <boost/beast/http.hpp>

#include <vector>

#include "client_connection.h"

namespace tnwdav {
namespace {

namespace http = boost::beast::http;
using boost::system::error_code;

constexpr uint32_t HEADER_LIMIT = size_t{64} * 1024;
constexpr size_t RECEIVED_AT_ONCE = size_t{64} * 1024; /* more are not asked for */
constexpr size_t PIECE = size_t{256} * 1024;
/* So much of a body that nobody reads is taken in, so that the connection can be used again. */
constexpr uint64_t DROP_LIMIT = size_t{1024} * 1024;

void check(const error_code& err) {
  if (err) {
    throw ConnectionEnd(err.message());
  }
}

}  // namespace

struct Exchange::Messages {
  http::request_parser<http::buffer_body> parser;
  http::response<http::empty_body> answer;
};

Exchange::Exchange(ClientConnection& connection)
    : connection_(connection), messages_(std::make_unique<Messages>()) {
  connection_.buffer.reserve(RECEIVED_AT_ONCE); /* or else each receive takes half a kilobyte */
  messages_->parser.header_limit(HEADER_LIMIT);
  messages_->parser.body_limit(UINT64_MAX);
}

Exchange::~Exchange() = default;

Status Exchange::status() const { return messages_->answer.result(); }

bool Exchange::receive_header() {
  error_code err;
  http::read_header(connection_.socket, connection_.buffer, messages_->parser, err);
  if (err == http::error::end_of_stream) {
    return false;
  }
  if (err && err.category() == http::make_error_code(http::error::bad_method).category()) {
    write("HTTP/1.1 400 Bad Request\r\nConnection: close\r\nContent-Length: 0\r\n\r\n");
  }
  check(err);
  keep_ = messages_->parser.get().keep_alive();
  awaits_continue_ = boost::beast::iequals(header("Expect"), "100-continue");
  messages_->answer.version(messages_->parser.get().version());
  messages_->answer.set(http::field::server, "tnwdav");
  return true;
}

std::string_view Exchange::method() const { return messages_->parser.get().method_string(); }
std::string_view Exchange::target() const { return messages_->parser.get().target(); }

std::string_view Exchange::header(std::string_view name) const {
  const auto found = messages_->parser.get().find(name);
  return found == messages_->parser.get().end() ? std::string_view() : found->value();
}

bool Exchange::has_body() const {
  return messages_->parser.chunked() || body_size().value_or(0) > 0;
}

std::optional<uint64_t> Exchange::body_size() const {
  const auto size = messages_->parser.content_length();
  return size ? std::optional<uint64_t>(*size) : std::nullopt;
}

void Exchange::let_client_continue() {
  if (awaits_continue_) {
    awaits_continue_ = false;
    write("HTTP/1.1 100 Continue\r\n\r\n");
  }
}

size_t Exchange::read_piece(char* buffer, size_t size) {
  let_client_continue();
  messages_->parser.get().body().data = buffer;
  messages_->parser.get().body().size = size;
  error_code err;
  http::read(connection_.socket, connection_.buffer, messages_->parser, err);
  if (err != http::error::need_buffer) {
    check(err);
  }
  const size_t count = size - messages_->parser.get().body().size;
  received_ += count;
  return count;
}

void Exchange::read_body(const PieceSink& sink) {
  std::vector<char> piece(PIECE);
  while (!messages_->parser.is_done()) {
    sink(piece.data(), read_piece(piece.data(), piece.size()));
  }
}

std::string Exchange::read_body(size_t limit) {
  std::string body;
  read_body([&](const char* data, size_t size) {
    body.append(data, size);
    if (body.size() > limit) {
      throw HttpError(Status::payload_too_large, "the request's body is too long");
    }
  });
  return body;
}

/* A client that was not told to go on sends no body. Where it would be long, the connection ends.
 */
void Exchange::drop_body() {
  if (messages_->parser.is_done()) {
    return;
  }
  if (awaits_continue_ || messages_->parser.chunked() ||
      body_size().value_or(0) - received_ > DROP_LIMIT) {
    keep_ = false;
    return;
  }
  read_body([](const char*, size_t) {});
}

void Exchange::set_header(std::string_view name, std::string_view value) {
  messages_->answer.set(name, value);
}

void Exchange::add_header(std::string_view name, std::string_view value) {
  messages_->answer.insert(name, value);
}

void Exchange::begin_answer(Status status, std::optional<uint64_t> size, std::string_view type) {
  drop_body();
  answered_ = true;
  messages_->answer.result(status);
  chunked_ = !size && messages_->answer.version() >= 11;
  if (chunked_) {
    messages_->answer.chunked(true);
  } else if (size && status != Status::no_content && status != Status::not_modified) {
    messages_->answer.content_length(*size);
  }
  if (!type.empty()) {
    messages_->answer.set(http::field::content_type, type);
  }
  keep_ = keep_ && (size || chunked_);
  messages_->answer.keep_alive(keep_);
  http::response_serializer<http::empty_body> serializer(messages_->answer);
  error_code err;
  http::write_header(connection_.socket, serializer, err);
  check(err);
}

void Exchange::send(std::string_view piece) {
  if (method() == "HEAD" || piece.empty()) {
    return;
  }
  sent_ += piece.size();
  if (!chunked_) {
    return write(piece);
  }
  error_code err;
  boost::asio::write(connection_.socket, http::make_chunk(boost::asio::buffer(piece)), err);
  check(err);
}

void Exchange::end_answer() {
  if (chunked_ && method() != "HEAD") {
    error_code err;
    boost::asio::write(connection_.socket, http::make_chunk_last(), err);
    check(err);
  }
}

void Exchange::answer(Status status, std::string_view body, std::string_view type) {
  begin_answer(status, body.size(), type);
  send(body);
  end_answer();
}

void Exchange::write(std::string_view data) {
  error_code err;
  boost::asio::write(connection_.socket, boost::asio::buffer(data), err);
  check(err);
}

}  // namespace tnwdav
