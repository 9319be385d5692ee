#include "tnv_connio_win.h"

#include <winsock2.h>
/* after winsock2.h */
#include <afunix.h>
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "ox_errno.h"
#include "ox_util.h"
#include "tnv_log.h"

namespace {

constexpr int POLL_MS = 1000;
/* How long a thread waits that was told that a socket is ready, and then moved nothing. */
constexpr DWORD NOT_READY_REST_MS = 1;
/*
 * What a thread polls for when only a hang-up can still come. A poll must ask for something, and a
 * local socket never has urgent data.
 */
constexpr SHORT HANG_UP_ONLY = POLLRDBAND;
/* The most bytes of one transfer on a client connection, since transfers count in int. */
constexpr size_t MAX_CHUNK = size_t{1} << 30;

/* Returns a failure and stores it in errno. Called after the logging, which may change errno. */
int fail(int err) {
  errno = err;
  return err;
}

/* ------------------------------------------------------------------- the transfer loop */

/* How a send and a receive differ. */
struct Direction {
  const char* verb;
  const char* title;
  short events;
  int exiting_err; /* what a wait gives that ends because the owner shuts down */
  bool drains;     /* bytes may still come after the peer hung up */
  int (*move)(SOCKET sock, char* data, int nbytes);
};

int move_out(SOCKET sock, char* data, int nbytes) { return send(sock, data, nbytes, 0); }
int move_in(SOCKET sock, char* data, int nbytes) { return recv(sock, data, nbytes, 0); }

/* A receive that its owner's shut-down ends gives the runtime's number, a send that of Winsock. */
constexpr Direction SEND = {"send", "Send", POLLWRNORM, WSAECONNRESET, false, move_out};
constexpr Direction RECV = {"recv", "Recv", POLLRDNORM | POLLRDBAND, OX_ECONNRESET, true, move_in};

/* The socket of a transfer, and what becomes of it. */
struct Endpoint {
  SOCKET sock;
  vfs_handle* owner;     /* null, or asked whether it shuts down while nothing moves */
  bool closes_on_hangup; /* else the caller closes the socket after every failure */
  tnw_watch* watch;      /* null, or asked while nothing moves */
};

/* A transfer under way. One thread uses it. */
struct Transfer {
  const Direction& dir;
  const Endpoint& at;
  char* next;
  int left;
  bool waits_first; /* what comes is not there yet; else a poll before a move is a call too many */
  int room = 0;     /* bytes behind the last one that may be received along with it */
  bool at_end = false; /* a receive gave 0 bytes: only the hang-up can come */
  bool owner_exiting = false;
  ULONGLONG moved_at = GetTickCount64(); /* when something moved last, or it began */
};

int hung_up(const Transfer& t) {
  if (t.at.closes_on_hangup) {
    closesocket(t.at.sock);
  }
  OX_LOG(OX_ERROR_LEVEL, WSAECONNRESET, "Socket %s connection hungup", t.dir.verb);
  return WSAECONNRESET;
}

/* The error that a poll reports without its number. */
int pending_error(SOCKET sock) {
  int err = 0;
  int size = sizeof(err);
  if (getsockopt(sock, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&err), &size) != 0) {
    err = WSAGetLastError();
  }
  return err != 0 ? err : WSAECONNRESET;
}

int poll_failed(const Transfer& t) {
  const int err = WSAGetLastError();
  if (err == WSAEINTR) {
    return 0;
  }
  OX_LOG(OX_ERROR_LEVEL, err, "Error on %s OX_POLL", t.dir.title);
  return err != 0 ? err : WSAENOTSOCK;
}

/* How much longer the other end may be silent, in milliseconds. */
ULONGLONG patience(const Transfer& t) {
  const ox_u32 limit = t.at.watch == nullptr ? 0 : std::atomic_ref(t.at.watch->tw_limit_ms).load();
  const ULONGLONG silence = GetTickCount64() - t.moved_at;
  return limit == 0 ? POLL_MS : limit - std::min<ULONGLONG>(limit, silence);
}

/* What its dead process or its silence tells of the other end: 0 while it may still answer. */
int given_up(const Transfer& t) {
  if (t.at.watch == nullptr) {
    return 0;
  }
  const HANDLE process = t.at.watch->tw_process;
  if (process != nullptr && WaitForSingleObject(process, 0) == WAIT_OBJECT_0) {
    OX_LOG(OX_ERROR_LEVEL, WSAECONNRESET, "The service's process has ended");
    return hung_up(t);
  }
  if (patience(t) == 0) {
    OX_LOG(OX_ERROR_LEVEL, WSAETIMEDOUT, "The service was silent for the answer limit");
    return hung_up(t);
  }
  return 0;
}

/* A second has passed, or the limit. From a stream that ended before it, nothing more comes. */
int timed_out(Transfer& t) {
  if (t.at.owner != nullptr && t.at.owner->vfs_is_exiting != nullptr &&
      t.at.owner->vfs_is_exiting(t.at.owner)) {
    t.owner_exiting = true;
    return t.dir.exiting_err;
  }
  return t.at_end ? hung_up(t) : given_up(t);
}

int faulty(const Transfer& t, int ready) {
  const int err = pending_error(t.at.sock);
  if ((ready & POLLNVAL) != 0) {
    OX_LOG(OX_ERROR_LEVEL, err, "Socket %s invalid socket", t.dir.verb);
  } else {
    OX_LOG(OX_ERROR_LEVEL, err, "Failed to %s over socket", t.dir.verb);
  }
  return err;
}

/* Nothing was moved: because of a hang-up, a fault, the end of the stream, or just not yet. */
int nothing_moved(Transfer& t, int ready, int moved) {
  const int err = moved < 0 ? WSAGetLastError() : 0;
  if ((ready & POLLHUP) != 0) {
    return hung_up(t);
  }
  if (err != 0 && err != WSAEWOULDBLOCK && err != WSAEINTR) {
    OX_LOG(OX_ERROR_LEVEL, err, "Failed to %s over socket", t.dir.verb);
    return err;
  }
  if ((ready & POLLERR) != 0) {
    return faulty(t, ready);
  }
  if (moved == 0 && t.dir.drains) {
    t.at_end = true;
  } else {
    Sleep(NOT_READY_REST_MS);
  }
  return 0;
}

/* Moves what can be moved at once: the count, or what the move gave. */
int move_now(Transfer& t) {
  const int moved = t.dir.move(t.at.sock, t.next, t.left + t.room);
  if (moved > 0) {
    const int wanted = std::min(moved, t.left);
    t.next += wanted;
    t.left -= wanted;
    t.room -= moved - wanted;
    t.moved_at = GetTickCount64();
    t.waits_first = false;
  }
  return moved;
}

/* Waits up to a second and moves what can be moved: 0, and the transfer goes on, or the error. */
int wait_and_move(Transfer& t) {
  WSAPOLLFD pfd = {t.at.sock, t.at_end ? HANG_UP_ONLY : t.dir.events, 0};
  const int count = WSAPoll(&pfd, 1, static_cast<int>(std::min<ULONGLONG>(POLL_MS, patience(t))));
  if (count < 0) {
    return poll_failed(t);
  }
  if (count == 0) {
    return timed_out(t);
  }
  const int ready = pfd.revents;
  if (((ready & POLLHUP) != 0) && !t.dir.drains) {
    return hung_up(t);
  }
  if (((ready & POLLNVAL) != 0) || (((ready & POLLERR) != 0) && !t.dir.drains)) {
    return faulty(t, ready);
  }

  const int moved = move_now(t);
  return moved > 0 ? 0 : nothing_moved(t, ready, moved);
}

/* A move that fails at once is not the end: the wait finds out why, and says so. */
int step(Transfer& t) {
  if (!t.waits_first && move_now(t) > 0) {
    return 0;
  }
  return wait_and_move(t);
}

/* Moves all bytes: 0, or the error. */
int run(Transfer& t) {
  int err = t.left < 0 ? WSAEINVAL : 0;
  while (err == 0 && t.left > 0) {
    err = step(t);
  }
  if (err == 0) {
    return 0;
  }
  if (!t.owner_exiting) {
    OX_LOG(OX_ERROR_LEVEL, err, "%s failed on sockfd %d\n", t.dir.title,
           static_cast<int>(t.at.sock));
  }
  return fail(err);
}

int send_all(const Endpoint& to, ox_u8* data, int nbytes) {
  if (nbytes == 0) {
    return 0;
  }
  tnv_debug_dump_msg(reinterpret_cast<char*>(data), nbytes);
  Transfer t{SEND, to, reinterpret_cast<char*>(data), nbytes, false};
  return run(t);
}

/* `*room`: how many more bytes may be received along with these, and then how many were not. */
int recv_all(const Endpoint& from, ox_u8* data, int nbytes, bool waits_first, int* room) {
  if (nbytes == 0) {
    return 0;
  }
  Transfer t{RECV, from, reinterpret_cast<char*>(data), nbytes, waits_first, *room};
  const int err = run(t);
  *room = t.room;
  if (err == 0) {
    tnv_debug_dump_msg(reinterpret_cast<char*>(data), nbytes);
  }
  return err;
}

/* ------------------------------------------------------------------- client connections */

/*
 * A program that the drive application starts must not inherit the socket: the connection would
 * then stay alive as long as that program. A system that does not take the flag makes the socket
 * first, and is told afterwards.
 */
SOCKET make_socket() {
  const SOCKET sock = WSASocketW(AF_UNIX, SOCK_STREAM, 0, nullptr, 0,
                                 WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
  if (sock != INVALID_SOCKET) {
    return sock;
  }
  const SOCKET inheritable = socket(AF_UNIX, SOCK_STREAM, 0);
  if (inheritable != INVALID_SOCKET) {
    SetHandleInformation(reinterpret_cast<HANDLE>(inheritable), HANDLE_FLAG_INHERIT, 0);
  }
  return inheritable;
}

/* 0 is no socket either: a record that is only zero-filled has it. */
bool has_socket(const vfs_handle* vh) { return vh->vfs_fd > 0; }

tnw_watch* watch_of(const vfs_handle* vh) { return static_cast<tnw_watch*>(vh->vfs_private); }

/* The service's process, which may be another one than was started: a program may start it. */
void watch_peer(SOCKET sock, tnw_watch* watch) {
  ULONG pid = 0;
  DWORD size = 0;
  if (watch != nullptr && watch->tw_process == nullptr &&
      WSAIoctl(sock, SIO_AF_UNIX_GETPEERPID, nullptr, 0, &pid, sizeof pid, &size, nullptr,
               nullptr) == 0 &&
      size == sizeof pid) {
    watch->tw_process = OpenProcess(SYNCHRONIZE, FALSE, pid);
  }
}

bool is_broken(vfs_handle* vh) { return std::atomic_ref(vh->vfs_broken).load(); }

/* False when the connection was broken before. Whoever gets true is to close the socket. */
bool mark_broken(vfs_handle* vh) { return !std::atomic_ref(vh->vfs_broken).exchange(true); }

/*
 * The connection is marked as broken before its socket is closed, also after a hang-up: a shut-down
 * that comes meanwhile must not close the number a second time, which may be another socket's by
 * then. Sets errno to 133, whatever the transport's own error was: a drive application that fails
 * in the middle of an answer meets the same dead connection with its next request.
 */
template <class Move>
int conn_transfer(vfs_handle* vh, Move move, ox_u8* data, size_t nbytes) {
  int err = 0;
  while (err == 0 && nbytes > 0) {
    const size_t chunk = std::min(nbytes, MAX_CHUNK);
    const Endpoint at = {static_cast<SOCKET>(vh->vfs_fd), nullptr, false, watch_of(vh)};
    err = has_socket(vh) && !is_broken(vh) ? move(at, data, static_cast<int>(chunk)) : WSAENOTCONN;
    data += chunk;
    nbytes -= chunk;
  }
  if (err == 0) {
    return 0;
  }
  tnv_conn_break(vh);
  errno = OX_EOWNERDEAD;
  return err;
}

/* ------------------------------------------------------------------- the dump */

constexpr int DUMP_ROW = 32;
constexpr int DUMP_GROUP = 4;
/* Eight digits for each byte, seven gaps and the NUL. */
constexpr size_t DUMP_LINE = DUMP_ROW * 8 + DUMP_ROW / DUMP_GROUP;

/* The byte is a signed char, so readers of a dump see 0x80 and above with eight digits. */
int format_hex(char* out, size_t size, char byte) {
  return snprintf(out, size, "%2.2x", static_cast<unsigned>(static_cast<signed char>(byte)));
}

int format_text(char* out, size_t size, char byte) {
  return snprintf(out, size, " %c", byte >= ' ' && byte <= '~' ? byte : ' ');
}

void dump_row(const char* row, int len, int (*format)(char*, size_t, char)) {
  char line[DUMP_LINE];
  size_t used = 0;
  for (int i = 0; i < len; i++) {
    if (i > 0 && i % DUMP_GROUP == 0) {
      line[used++] = ' ';
    }
    used += static_cast<size_t>(format(line + used, sizeof(line) - used, row[i]));
  }
  OX_LOG(OX_PRINTF_LEVEL, 0, "%s", line);
}

}  // namespace

/* ------------------------------------------------------------------- exported */

int tnv_sock_init(void) {
  WSADATA data;
  return WSAStartup(MAKEWORD(2, 2), &data);
}

int tnv_setsockopt(int fd) {
  u_long nonblocking = 1;
  if (ioctlsocket(static_cast<SOCKET>(fd), FIONBIO, &nonblocking) == 0) {
    return 0;
  }
  const int err = WSAGetLastError();
  OX_LOG(OX_ERROR_LEVEL, err, "Could not set socket nonblocking");
  WSASetLastError(err);
  return fail(err);
}

int tnv_sendbytes(vfs_handle* vh, int sockfd, tnv_fdcntl*, ox_u8* data, int nbytes) {
  return send_all({static_cast<SOCKET>(sockfd), vh, true, nullptr}, data, nbytes);
}

int tnv_recvbytes(vfs_handle* vh, int sockfd, int*, ox_u8* data, int nbytes) {
  int none = 0;
  return recv_all({static_cast<SOCKET>(sockfd), vh, true, nullptr}, data, nbytes, true, &none);
}

int tnv_send_response(vfs_handle* vh, int fd, tnv_msg* msgp, tnv_resp* resp) {
  tnv_log_resp(vh, msgp, resp);
  if (resp->rhdr.rhdr_len > TNV_RESP_MAX_PAYLOAD) {
    return fail(WSAEMSGSIZE);
  }
  return tnv_sendbytes(vh, fd, nullptr, reinterpret_cast<ox_u8*>(resp),
                       TNV_RESP_HDR + static_cast<int>(resp->rhdr.rhdr_len));
}

int tnv_signal_start(char* vfs_sock_path) {
  char name[sizeof(sockaddr_un::sun_path)];
  snprintf(name, sizeof(name), "%s", vfs_sock_path);
  ox_event_name_fold(name);
  OX_LOG(OX_INFO_LEVEL, 0, "Signal event name %s", name);

  /* An auto-reset event, signalled from the start. It is not closed, so that it outlives the call.
   */
  const HANDLE event = CreateEventA(nullptr, FALSE, TRUE, name);
  if (event == nullptr) {
    const int err = static_cast<int>(GetLastError());
    OX_LOG(OX_ERROR_LEVEL, err, "Failed to create named event %s", name);
    return fail(err);
  }
  if (SetEvent(event) == 0) {
    const int err = static_cast<int>(GetLastError());
    OX_LOG(OX_ERROR_LEVEL, err, "Failed to signal event %s", name);
    return fail(err);
  }
  return 0;
}

void tnv_debug_dump_msg(char* buf, int len) {
  if (ox_debug < 2) {
    return;
  }
  OX_LOG(OX_PRINTF_LEVEL, 0, "%0*d --- Begin --- %0*d", 20, 0, 20, 0);
  for (int start = 0; start < len; start += DUMP_ROW) {
    const int row_len = std::min(DUMP_ROW, len - start);
    dump_row(buf + start, row_len, format_hex);
    dump_row(buf + start, row_len, format_text);
  }
  OX_LOG(OX_PRINTF_LEVEL, 0, "%0*d --- End --- %0*d", 20, 0, 20, 0);
}

/* ------------------------------------------------------------------- not exported */

void tnw_end_watch(tnw_watch* watch) {
  if (watch->tw_process != nullptr) {
    CloseHandle(watch->tw_process);
  }
  *watch = {};
}

int tnw_setup_socket(vfs_handle* vh, const char* sock) {
  const SOCKET fd = make_socket();
  vh->vfs_fd = static_cast<ox_s64>(fd);
  vh->vfs_broken = false;
  if (fd == INVALID_SOCKET) {
    const int err = WSAGetLastError();
    OX_LOG(OX_ERROR_LEVEL, err, "Failed to create socket");
    return fail(err);
  }

  sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  const int len = snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", sock);
  if (len < 0 || static_cast<size_t>(len) >= sizeof(addr.sun_path)) {
    OX_LOG(OX_ERROR_LEVEL, ERROR_FILENAME_EXCED_RANGE, "Socket path too long %s", sock);
    return fail(ERROR_FILENAME_EXCED_RANGE);
  }

  OX_LOG(OX_INFO_LEVEL, 0, "Attempt to connect to socket %s", sock);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
    const int err = WSAGetLastError();
    OX_LOG(OX_ERROR_LEVEL, err, "Failed to connect to socket %s", sock);
    return fail(err);
  }
  watch_peer(fd, watch_of(vh));

  if (tnv_setsockopt(static_cast<int>(fd)) != 0) {
    const int err = WSAGetLastError();
    OX_LOG(OX_ERROR_LEVEL, err, "Failed to set socket options");
    return fail(err);
  }
  return 0;
}

int tnv_conn_send(vfs_handle* vh, const void* data, size_t nbytes) {
  /* The parameter of the primitive is not const, but a send does not write into its buffer. */
  return conn_transfer(vh, send_all, static_cast<ox_u8*>(const_cast<void*>(data)), nbytes);
}

int tnv_conn_recv(vfs_handle* vh, void* data, size_t nbytes) {
  const auto recv_rest = [](const Endpoint& from, ox_u8* to, int count) {
    int none = 0;
    return recv_all(from, to, count, false, &none);
  };
  return conn_transfer(vh, recv_rest, static_cast<ox_u8*>(data), nbytes);
}

int tnv_conn_recv_next(vfs_handle* vh, void* data, size_t nbytes, size_t* more) {
  int room = static_cast<int>(*more);
  const auto recv_next = [&room](const Endpoint& from, ox_u8* to, int count) {
    return recv_all(from, to, count, true, &room);
  };
  const int err = conn_transfer(vh, recv_next, static_cast<ox_u8*>(data), nbytes);
  *more -= static_cast<size_t>(room);
  return err;
}

void tnv_conn_break(vfs_handle* vh) {
  if (has_socket(vh) && mark_broken(vh)) {
    closesocket(static_cast<SOCKET>(vh->vfs_fd));
  }
}
