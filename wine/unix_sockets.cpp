#include "unix_sockets.h"

#include <cstddef>
#include <cstring>

#include <string>
#include <unordered_map>

#include "socket_file.h"

namespace {

/* How long the two sides wait for one another's part of a connect: both act at once. */
constexpr DWORD HANDSHAKE_TIMEOUT = 10000;

struct UnixSocket {
  std::string own_path;  /* bound to */
  std::string peer_path; /* connected to */
  std::string secret;    /* of a bound socket */
  HANDLE sign = nullptr; /* stands while it listens */
  DWORD peer = 0;        /* the process at the other end */
  HANDLE peer_process = nullptr;
};

SRWLOCK table_lock = SRWLOCK_INIT;
std::unordered_map<SOCKET, UnixSocket> table; /* guarded by table_lock */

UnixSocket lookup(SOCKET s) {
  AcquireSRWLockShared(&table_lock);
  const auto found = table.find(s);
  UnixSocket copy = found == table.end() ? UnixSocket{} : found->second;
  ReleaseSRWLockShared(&table_lock);
  return copy;
}

template <typename Change>
void change(SOCKET s, Change&& apply) {
  AcquireSRWLockExclusive(&table_lock);
  const auto found = table.find(s);
  if (found != table.end()) {
    apply(found->second);
  }
  ReleaseSRWLockExclusive(&table_lock);
}

int fail(int error) {
  SetLastError(static_cast<DWORD>(error));
  return SOCKET_ERROR;
}

sockaddr_in loopback(USHORT port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = port;
  address.sin_addr.S_un.S_un_b = {127, 0, 0, 1};
  return address;
}

int bind_loopback(SOCKET s, USHORT* port) {
  sockaddr_in address = loopback(0);
  int length = sizeof(address);
  if (system_ws2.bind(s, reinterpret_cast<sockaddr*>(&address), length) != 0) {
    return SOCKET_ERROR;
  }
  if (system_ws2.getsockname(s, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return SOCKET_ERROR;
  }
  *port = address.sin_port;
  return 0;
}

/* The path of an AF_UNIX address: 0 or an error. Abstract (unnamed) addresses are refused. */
int path_of(const sockaddr* address, int length, std::string* path) {
  constexpr int PATH_OFFSET = offsetof(sockaddr_un, sun_path);
  if (address == nullptr || length < static_cast<int>(sizeof(address->sa_family))) {
    return WSAEFAULT;
  }
  if (address->sa_family != AF_UNIX) {
    return WSAEAFNOSUPPORT;
  }
  const char* text = reinterpret_cast<const sockaddr_un*>(address)->sun_path;
  const size_t room = length > PATH_OFFSET ? static_cast<size_t>(length - PATH_OFFSET) : 0;
  const size_t used = strnlen(text, room < UNIX_PATH_MAX ? room : UNIX_PATH_MAX);
  if (used == 0 || used == UNIX_PATH_MAX) {
    return WSAEINVAL;
  }
  path->assign(text, used);
  return 0;
}

int give_name(const std::string& path, sockaddr* address, int* length) {
  sockaddr_un name = {};
  name.sun_family = AF_UNIX;
  if (address == nullptr || length == nullptr || *length < static_cast<int>(sizeof(name))) {
    return fail(WSAEFAULT);
  }
  memcpy(name.sun_path, path.c_str(), path.size() + 1);
  memcpy(address, &name, sizeof(name));
  *length = sizeof(name);
  return 0;
}

bool wait_ready(SOCKET s, SHORT events, ULONGLONG deadline) {
  const ULONGLONG now = GetTickCount64();
  WSAPOLLFD polled = {s, events, 0};
  return now < deadline && system_ws2.WSAPoll(&polled, 1, static_cast<int>(deadline - now)) > 0;
}

/* A TCP connect that is over when it returns, for a non-blocking socket as well. */
int connect_loopback(SOCKET s, USHORT port) {
  const sockaddr_in address = loopback(port);
  if (system_ws2.connect(s, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
    return 0;
  }
  if (GetLastError() != WSAEWOULDBLOCK) {
    return SOCKET_ERROR;
  }
  if (!wait_ready(s, POLLWRNORM, GetTickCount64() + HANDSHAKE_TIMEOUT)) {
    return fail(WSAETIMEDOUT);
  }
  int error = 0;
  int length = sizeof(error);
  system_ws2.getsockopt(s, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&error), &length);
  return error != 0 ? fail(error) : 0;
}

void note_peer(SOCKET s, DWORD process) {
  const HANDLE handle = OpenProcess(SYNCHRONIZE, FALSE, process);
  change(s, [&](UnixSocket& connected) {
    connected.peer = process;
    connected.peer_process = handle;
  });
}

/* What a connection begins with. */
struct Hello {
  char secret[SECRET_LENGTH];
  DWORD process; /* that connects */
};

/* Takes it and compares the secret. */
bool presents(SOCKET s, const std::string& secret, DWORD* process) {
  const ULONGLONG deadline = GetTickCount64() + HANDSHAKE_TIMEOUT;
  Hello hello = {};
  for (size_t got = 0; got < sizeof(hello);) {
    if (!wait_ready(s, POLLRDNORM, deadline)) {
      return false;
    }
    const int n = system_ws2.recv(s, reinterpret_cast<char*>(&hello) + got,
                                  static_cast<int>(sizeof(hello) - got), 0);
    if (n <= 0) {
      return false;
    }
    got += static_cast<size_t>(n);
  }
  *process = hello.process;
  return secret == std::string(hello.secret, SECRET_LENGTH);
}

}  // namespace

bool is_unix(SOCKET s) {
  AcquireSRWLockShared(&table_lock);
  const bool found = table.contains(s);
  ReleaseSRWLockShared(&table_lock);
  return found;
}

SOCKET adopt_unix(SOCKET s) {
  if (s == INVALID_SOCKET) {
    return s;
  }
  const BOOL on = TRUE;
  system_ws2.setsockopt(s, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on),
                        sizeof(on));
  forget_unix(s);
  AcquireSRWLockExclusive(&table_lock);
  table[s] = UnixSocket{};
  ReleaseSRWLockExclusive(&table_lock);
  return s;
}

void forget_unix(SOCKET s) {
  UnixSocket gone;
  AcquireSRWLockExclusive(&table_lock);
  const auto found = table.find(s);
  if (found != table.end()) {
    gone = found->second;
    table.erase(found);
  }
  ReleaseSRWLockExclusive(&table_lock);
  for (const HANDLE handle : {gone.sign, gone.peer_process}) {
    if (handle != nullptr) {
      CloseHandle(handle);
    }
  }
}

int bind_unix(SOCKET s, const sockaddr* address, int length) {
  std::string path;
  SocketFile file = {0, new_secret(), GetCurrentProcessId()};
  if (const int error = path_of(address, length, &path)) {
    return fail(error);
  }
  if (file.secret.empty()) {
    return fail(WSAENOBUFS);
  }
  if (bind_loopback(s, &file.port) != 0) {
    return SOCKET_ERROR;
  }
  if (const int error = write_socket_file(path.c_str(), file)) {
    return fail(error);
  }
  change(s, [&](UnixSocket& bound) {
    bound.own_path = path;
    bound.secret = file.secret;
  });
  return 0;
}

/*
 * The program's backlog is not used: TCP would let a connect that finds it full wait for a second,
 * where AF_UNIX does not wait.
 */
int listen_unix(SOCKET s) {
  const UnixSocket bound = lookup(s);
  if (bound.secret.empty()) {
    return fail(WSAEINVAL);
  }
  if (system_ws2.listen(s, SOMAXCONN) != 0) {
    return SOCKET_ERROR;
  }
  if (bound.sign != nullptr) {
    return 0;
  }
  HANDLE sign = raise_sign(bound.secret);
  if (sign == nullptr) {
    return fail(WSAENOBUFS);
  }
  change(s, [&](UnixSocket& listening) { listening.sign = sign; });
  return 0;
}

int connect_unix(SOCKET s, const sockaddr* address, int length) {
  std::string path;
  if (const int error = path_of(address, length, &path)) {
    return fail(error);
  }
  const std::optional<SocketFile> file = read_socket_file(path.c_str());
  if (!file || !sign_stands(file->secret)) {
    return fail(WSAECONNREFUSED);
  }
  if (connect_loopback(s, file->port) != 0) {
    return SOCKET_ERROR;
  }
  Hello hello = {{}, GetCurrentProcessId()};
  file->secret.copy(hello.secret, SECRET_LENGTH);
  if (system_ws2.send(s, reinterpret_cast<const char*>(&hello), sizeof(hello), 0) !=
      sizeof(hello)) {
    return fail(WSAECONNREFUSED);
  }
  change(s, [&](UnixSocket& connected) { connected.peer_path = path; });
  note_peer(s, file->process);
  return 0;
}

SOCKET accept_unix(SOCKET s, sockaddr* address, int* length) {
  const UnixSocket listening = lookup(s);
  for (;;) {
    const SOCKET accepted = system_ws2.accept(s, nullptr, nullptr);
    if (accepted == INVALID_SOCKET) {
      /* Wine's code for an accept that the closing of its socket ended. */
      if (GetLastError() == WSA_OPERATION_ABORTED) {
        SetLastError(WSAEINTR);
      }
      return accepted;
    }
    DWORD process = 0;
    if (presents(accepted, listening.secret, &process)) {
      if (address != nullptr) {
        give_name({}, address, length);
      }
      adopt_unix(accepted);
      note_peer(accepted, process);
      return accepted;
    }
    system_ws2.closesocket(accepted);
  }
}

int own_name_unix(SOCKET s, sockaddr* address, int* length) {
  return give_name(lookup(s).own_path, address, length);
}

int peer_name_unix(SOCKET s, sockaddr* address, int* length) {
  return give_name(lookup(s).peer_path, address, length);
}

int peer_process_unix(SOCKET s, void* out, DWORD size, DWORD* returned) {
  const ULONG process = lookup(s).peer;
  if (process == 0) {
    return fail(WSAENOTCONN);
  }
  if (out == nullptr || size < sizeof(process) || returned == nullptr) {
    return fail(WSAEFAULT);
  }
  memcpy(out, &process, sizeof(process));
  *returned = sizeof(process);
  return 0;
}

bool mend_timeout_unix(WSAPOLLFD& polled) {
  const HANDLE process = lookup(polled.fd).peer_process;
  if (process == nullptr || WaitForSingleObject(process, 0) != WAIT_OBJECT_0) {
    return false;
  }
  polled.revents = POLLHUP;
  return true;
}

void mend_poll_unix(WSAPOLLFD& polled) {
  char byte;
  if (((polled.revents & POLLHUP) == 0) || ((polled.events & ~polled.revents & POLLRDNORM) == 0)) {
    return;
  }
  if (is_unix(polled.fd) && system_ws2.recv(polled.fd, &byte, 1, MSG_PEEK) == 1) {
    polled.revents = static_cast<SHORT>(polled.revents | POLLRDNORM);
  }
}
