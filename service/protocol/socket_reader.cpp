#include "protocol/socket_reader.h"

#include <algorithm>
#include <cstring>

#include "ox_logging.h"

namespace tarnd {
namespace {

constexpr DWORD LOOK_MS = 1000; /* how often a wait looks whether the service stops */

bool fail(int err) {
  OX_LOG(OX_ERROR_LEVEL, err, "Cannot receive from a client");
  return false;
}

}  // namespace

SocketReader::SocketReader(uint64_t socket, const std::atomic<bool>& stopping)
    : socket_(static_cast<SOCKET>(socket)),
      stopping_(stopping),
      ready_(CreateEventW(nullptr, FALSE, FALSE, nullptr)) {}

SocketReader::~SocketReader() {
  if (ready_ != nullptr) {
    CloseHandle(ready_);
  }
}

bool SocketReader::take(void* to, size_t count) {
  char* next = static_cast<char*>(to);
  while (count > 0) {
    if (begin_ == end_ && !receive_more()) {
      return false;
    }
    const size_t taken = std::min(count, end_ - begin_);
    std::memcpy(next, buffer_.data() + begin_, taken);
    begin_ += taken;
    next += taken;
    count -= taken;
  }
  return true;
}

void SocketReader::wipe_taken() {
  SecureZeroMemory(buffer_.data(), begin_);
  SecureZeroMemory(buffer_.data() + end_, buffer_.size() - end_);
}

bool SocketReader::receive_more() {
  DWORD got = 0;
  begin_ = end_ = 0;
  if (!start(&got)) {
    return false;
  }
  end_ = got;
  return got != 0; /* else the client has ended its stream */
}

bool SocketReader::start(DWORD* got) {
  WSABUF into = {static_cast<ULONG>(buffer_.size()), buffer_.data()};
  DWORD flags = 0;
  receive_ = {};
  receive_.hEvent = ready_;
  if (ready_ == nullptr) {
    return fail(ERROR_NOT_ENOUGH_MEMORY);
  }
  if (WSARecv(socket_, &into, 1, got, &flags, &receive_, nullptr) == 0) {
    return true;
  }
  const int err = WSAGetLastError();
  return err == WSA_IO_PENDING ? wait(got) : err == WSAECONNRESET ? false : fail(err);
}

/* The event may still be set from a receive before this one: then this one is not complete. */
bool SocketReader::wait(DWORD* got) {
  for (;;) {
    DWORD flags = 0;
    const bool timed_out = WaitForSingleObject(ready_, LOOK_MS) != WAIT_OBJECT_0;
    if (WSAGetOverlappedResult(socket_, &receive_, got, FALSE, &flags) != 0) {
      return true;
    }
    const int err = WSAGetLastError();
    if (err != WSA_IO_INCOMPLETE) {
      return err == WSAECONNRESET ? false : fail(err);
    }
    if (timed_out && (stopping_ || is_hung_up())) {
      cancel();
      return false;
    }
  }
}

/* A system may tell a poll of a dead process's hang-up, but no receive that is under way. */
bool SocketReader::is_hung_up() const {
  WSAPOLLFD look = {socket_, POLLRDNORM, 0};
  return WSAPoll(&look, 1, 0) > 0 && (look.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0;
}

/* Returns when nothing writes to the buffer any more. */
void SocketReader::cancel() {
  DWORD got = 0;
  DWORD flags = 0;
  CancelIoEx(reinterpret_cast<HANDLE>(socket_), &receive_);
  WSAGetOverlappedResult(socket_, &receive_, &got, TRUE, &flags);
}

}  // namespace tarnd
