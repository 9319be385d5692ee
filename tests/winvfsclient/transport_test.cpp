/* The socket transport against a scripted peer, and against polls that report what is rare. */
#include <winsock2.h>
/* after winsock2.h */
#include <afunix.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <deque>
#include <functional>
#include <utility>

#include "log_capture.h"
#include "ox_errno.h"
#include "ox_logging.h"
#include "scripted_peer.h"
#include "tnv_connio_win.h"

/* ------------------------------------------------------------------- polls made up by a test */

namespace {

struct MadeUpPoll {
  int result;
  int revents;
  int last_error;
};
/* Each poll takes one of these, if there is one, in the place of the system's answer. */
std::deque<MadeUpPoll> made_up_polls;
std::function<void()> when_all_are_taken; /* called by the poll after the last of them */
int polls = 0;
SHORT last_events = 0; /* of the last of them */

/* Closings of sockets that were closed already, by any thread; and all that this one closed. */
std::atomic<int> failed_closes = 0;
thread_local std::vector<SOCKET> closed_here;

int WSAAPI close_and_count(SOCKET sock) {
  static const auto system_close = reinterpret_cast<decltype(&closesocket)>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("ws2_32.dll"), "closesocket")));
  const int result = system_close(sock);
  if (result != 0) {
    failed_closes++;
  }
  closed_here.push_back(sock);
  return result;
}

bool takes_inherit_flag = true; /* when a socket is made */

SOCKET WSAAPI make_if_flag_is_taken(int family, int type, int protocol, WSAPROTOCOL_INFOW* info,
                                    GROUP group, DWORD flags) {
  static const auto system_make = reinterpret_cast<decltype(&WSASocketW)>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("ws2_32.dll"), "WSASocketW")));
  if (!takes_inherit_flag) {
    WSASetLastError(WSAEINVAL);
    return INVALID_SOCKET;
  }
  return system_make(family, type, protocol, info, group, flags);
}

}  // namespace

/* The linker takes these in the place of the import library's. */
extern "C" {
decltype(&closesocket) __imp_closesocket = close_and_count;
decltype(&WSASocketW) __imp_WSASocketW = make_if_flag_is_taken;
}
int WSAAPI WSAPoll(WSAPOLLFD* fds, ULONG count, INT timeout) {
  static const auto system_poll = reinterpret_cast<decltype(&WSAPoll)>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("ws2_32.dll"), "WSAPoll")));
  polls++;
  last_events = fds->events;
  if (made_up_polls.empty() && when_all_are_taken) {
    std::exchange(when_all_are_taken, {})();
  }
  if (made_up_polls.empty()) {
    return system_poll(fds, count, timeout);
  }
  const MadeUpPoll poll = made_up_polls.front();
  made_up_polls.pop_front();
  fds->revents = static_cast<SHORT>(poll.revents);
  WSASetLastError(poll.last_error);
  return poll.result;
}

/* ------------------------------------------------------------------- fixture */

namespace {

/* A connected client socket, and how to move bytes over it. */
struct Client {
  explicit Client(const ScriptedPeer& peer) {
    vh.vfs_fd = -1;
    EXPECT_EQ(tnw_setup_socket(&vh, peer.path()), 0);
  }
  ~Client() {
    if (fd() != -1 && is_open()) {
      closesocket(static_cast<SOCKET>(vh.vfs_fd));
    }
  }

  int fd() const { return static_cast<int>(vh.vfs_fd); }
  /* The number alone does not tell: a socket of the peer may have got it since. */
  bool is_open() const {
    return std::count(closed_here.begin() + closed_before, closed_here.end(),
                      static_cast<SOCKET>(fd())) == 0;
  }
  /* Returns when the end of what the peer sends has arrived; that is read by nobody. */
  void wait_for_end() const {
    const SOCKET sock = static_cast<SOCKET>(vh.vfs_fd);
    char byte;
    for (WSAPOLLFD pfd = {sock, POLLRDNORM, 0}; ::recv(sock, &byte, 1, MSG_PEEK) != 0;) {
      ASSERT_EQ(WSAPoll(&pfd, 1, 10'000), 1);
    }
  }
  int send(Bytes data, vfs_handle* owner = nullptr) {
    return tnv_sendbytes(owner, fd(), nullptr, data.data(), static_cast<int>(data.size()));
  }
  int recv(size_t nbytes, vfs_handle* owner = nullptr) {
    got.assign(nbytes, 0);
    return tnv_recvbytes(owner, fd(), nullptr, got.data(), static_cast<int>(nbytes));
  }

  vfs_handle vh = {};
  Bytes got;
  const ptrdiff_t closed_before = static_cast<ptrdiff_t>(closed_here.size());
};

Bytes pattern(size_t size) {
  Bytes bytes(size);
  for (size_t i = 0; i < size; i++) {
    bytes[i] = static_cast<ox_u8>(i * 7 + i / 251);
  }
  return bytes;
}

ScriptedPeer::Script sending(size_t size, void (PeerConnection::*then)()) {
  return [=](PeerConnection& conn) {
    conn.send(pattern(size));
    (conn.*then)();
  };
}

class Transport : public testing::Test {
 protected:
  void TearDown() override {
    EXPECT_TRUE(made_up_polls.empty());
    EXPECT_EQ(failed_closes.exchange(0), 0) << "each socket is closed once";
  }

  LogCapture log;
  ScriptedPeer peer;
};

/* ------------------------------------------------------------------- connecting */

TEST_F(Transport, PathsThatCannotBeConnectedTo) {
  std::string path = ScriptedPeer::fresh_path();
  path.insert(path.rfind('\\') + 1, 107 - path.size(), 'x');
  vfs_handle vh = {};
  EXPECT_EQ(tnw_setup_socket(&vh, path.c_str()), WSAECONNREFUSED);
  EXPECT_EQ(log.count("Failed to connect to socket " + path), 1u);
  EXPECT_GT(vh.vfs_fd, 0) << "stays, to be closed with the connection";
  tnv_conn_break(&vh);

  EXPECT_EQ(tnw_setup_socket(&vh, (path + "x").c_str()), 206);
  EXPECT_EQ(errno, 206);
  EXPECT_EQ(log.count("Socket path too long " + path + "x"), 1u);
  tnv_conn_break(&vh);
  EXPECT_TRUE(vh.vfs_broken);

  ScriptedPeer deep(ScriptedPeer::answer_success, path);
  const Client longest(deep);
}

TEST_F(Transport, SignalsReadinessThroughTheFoldedName) {
  const std::string unique = std::to_string(GetCurrentProcessId());
  std::string path = "C:\\Some\\Dir" + unique + "\\Tnvfs.Sock";
  ASSERT_EQ(tnv_signal_start(path.data()), 0);
  const HANDLE event =
      OpenEventA(SYNCHRONIZE, FALSE, ("c:/some/dir" + unique + "/tnvfs.sock").c_str());
  ASSERT_NE(event, nullptr) << "the event outlives the call";
  EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(event, 0), DWORD{WAIT_TIMEOUT}) << "auto-reset";
  CloseHandle(event);
}

/* ------------------------------------------------------------------- moving bytes */

TEST_F(Transport, MovesMoreThanTheSocketHoldsBothWays) {
  constexpr size_t size = 900'000;
  tnv_msg msg = {};
  msg.hdr.hdr_len = sizeof(msg) + size;
  peer.on_request([](PeerConnection& conn) { conn.send(conn.request().bytes); });
  Client client(peer);
  const Bytes request = bytes_of(msg) + pattern(size);
  ASSERT_EQ(client.send(request), 0);
  ASSERT_EQ(client.recv(request.size()), 0);
  EXPECT_TRUE(client.got == request);

  tnv_resp resp = {};
  resp.rhdr.rhdr_len = TNV_RESP_MAX_PAYLOAD + 1;
  EXPECT_EQ(tnv_send_response(&client.vh, client.fd(), &msg, &resp), WSAEMSGSIZE);
}

/* ------------------------------------------------------------------- ends of the connection */

TEST_F(Transport, WhatWasSentBeforeTheHangUpIsRead) {
  peer.on_accept(sending(100'000, &PeerConnection::close));
  Client client(peer);
  ASSERT_TRUE(peer.wait_for_ended(1));
  ASSERT_EQ(client.recv(99'990), 0);
  EXPECT_TRUE(client.got == pattern(99'990));
  EXPECT_EQ(client.recv(11), WSAECONNRESET);
  EXPECT_EQ(errno, WSAECONNRESET);
  EXPECT_FALSE(client.is_open());
}

TEST_F(Transport, AbortedConnectionFailsBothWays) {
  peer.on_accept([](PeerConnection& conn) { conn.reset(); });
  Client receiver(peer);
  EXPECT_NE(receiver.recv(1), 0);
  EXPECT_NE(errno, 0);
  Client sender(peer);
  ASSERT_TRUE(peer.wait_for_ended(2));
  EXPECT_NE(sender.send(pattern(10)), 0);
  EXPECT_NE(errno, 0);
}

/* The peer ends its side and stays: nothing can come, though nothing may hang up either. */
TEST_F(Transport, EndedStreamEndsTheWaitWithoutABusyLoop) {
  peer.on_accept(sending(5, &PeerConnection::end_sending));
  Client client(peer);
  FILETIME ignored, kernel, user;
  EXPECT_EQ(client.recv(10), WSAECONNRESET);
  EXPECT_FALSE(client.is_open());
  ASSERT_TRUE(GetThreadTimes(GetCurrentThread(), &ignored, &ignored, &kernel, &user));
  EXPECT_LT(kernel.dwLowDateTime + user.dwLowDateTime, 10'000'000u) << "100 ns of this thread";
}

/* The same where the system reports no hang-up: only one is waited for, and no longer than once. */
TEST_F(Transport, EndedStreamWithoutAHangUpEndsTheWaitToo) {
  peer.on_accept(sending(5, &PeerConnection::end_sending));
  constexpr MadeUpPoll readable = {1, POLLRDNORM, 0};
  constexpr MadeUpPoll timeout = {0, 0, 0};
  Client client(peer);
  ASSERT_EQ(client.recv(5), 0);
  client.wait_for_end();
  made_up_polls = {timeout, readable, timeout};
  const int polls_before = polls;
  EXPECT_EQ(client.recv(1), WSAECONNRESET);
  EXPECT_EQ(polls, polls_before + 3);
  EXPECT_EQ(last_events, POLLRDBAND) << "zero is no valid request everywhere";
  EXPECT_FALSE(client.is_open());

  vfs_handle owner = {};
  owner.vfs_is_exiting = [](vfs_handle*) { return true; };
  Client served(peer);
  ASSERT_EQ(served.recv(5), 0);
  served.wait_for_end();
  made_up_polls = {readable, timeout};
  EXPECT_EQ(served.recv(1, &owner), OX_ECONNRESET);
  EXPECT_TRUE(served.is_open());
}

TEST_F(Transport, ExitingOwnerEndsAnIdleWaitQuietly) {
  peer.on_accept([](PeerConnection& conn) { conn.stall(); });
  vfs_handle owner = {};
  owner.vfs_is_exiting = [](vfs_handle*) { return true; };
  Client client(peer);

  EXPECT_EQ(client.recv(1, &owner), OX_ECONNRESET);
  EXPECT_EQ(errno, OX_ECONNRESET);
  EXPECT_EQ(client.send(Bytes(256 << 20), &owner), WSAECONNRESET) << "no room in the socket";
  EXPECT_EQ(errno, WSAECONNRESET);
  EXPECT_TRUE(client.is_open());
  EXPECT_EQ(log.count("failed on sockfd"), 0u);
}

/* ------------------------------------------------------------------- polls that are rare */

TEST_F(Transport, RarePollsEndATransferWithAnError) {
  constexpr struct {
    const char* name;
    MadeUpPoll poll;
    int err; /* 0: any but 0 */
    const char* line;
    const char* recv_line;
    bool closed;
  } cases[] = {
      {"HangUp",
       {1, POLLHUP, 0},
       WSAECONNRESET,
       "send connection hung",
       "recv connection hung",
       true},
      {"HangUpWithError",
       {1, POLLHUP | POLLERR, 0},
       WSAECONNRESET,
       "send connection hung",
       "recv connection hung",
       true},
      {"ErrorAlone", {1, POLLERR, 0}, 0, "Failed to send over", "Failed to recv over", false},
      {"Invalid", {1, POLLNVAL, 0}, 0, "send invalid socket", "recv invalid socket", false},
      {"Fails",
       {-1, 0, WSAENETDOWN},
       WSAENETDOWN,
       "Error on Send OX_POLL",
       "Error on Recv OX_POLL",
       false},
      {"FailsNamelessly", {-1, 0, 0}, 0, "Error on Send OX_POLL", "Error on Recv OX_POLL", false},
  };
  peer.on_accept([](PeerConnection& conn) { conn.stall(); });
  for (const auto& c : cases) {
    for (const bool sends : {true, false}) {
      SCOPED_TRACE(testing::Message() << c.name << sends);
      LogCapture now;
      Client client(peer);
      made_up_polls = {c.poll};
      WSASetLastError(0);
      errno = 0;
      const int err = sends ? client.send(pattern(10)) : client.recv(10);
      EXPECT_TRUE(c.err != 0 ? err == c.err : err != 0) << err;
      EXPECT_EQ(errno, err);
      EXPECT_EQ(now.count(sends ? c.line : c.recv_line), 1u);
      EXPECT_EQ(client.is_open(), !c.closed);
    }
  }
}

TEST_F(Transport, InterruptedPollAndNotReadyAfterAllGoOn) {
  peer.on_accept([](PeerConnection& conn) {
    conn.stall();
    conn.send(pattern(10));
  });
  Client client(peer);
  made_up_polls = {{-1, 0, WSAEINTR}, {1, POLLRDNORM, 0}, {1, POLLRDBAND, 0}};
  when_all_are_taken = [this] { peer.resume(); };
  EXPECT_EQ(client.recv(10), 0);
  EXPECT_EQ(client.got, pattern(10));

  made_up_polls = {{-1, 0, WSAEINTR}};
  EXPECT_EQ(client.send(pattern(10)), 0);
  EXPECT_EQ(log.count("failed"), 0u);
}

/* Systems differ in what they report beside a hang-up while data is still there. */
TEST_F(Transport, DataIsReadFirstHoweverTheHangUpIsReported) {
  for (const int revents :
       {POLLHUP, POLLHUP | POLLRDNORM, POLLHUP | POLLERR, POLLERR | POLLRDNORM}) {
    peer.on_accept(sending(10, &PeerConnection::stall));
    Client client(peer);
    ASSERT_EQ(client.recv(1), 0);
    made_up_polls = {{1, revents, 0}};
    EXPECT_EQ(client.recv(9), 0) << revents;
    EXPECT_TRUE(client.is_open());
  }
}

/* ------------------------------------------------------------------- the client's connections */

/* Another part of the process may have got the number of the socket that was closed. */
TEST_F(Transport, BrokenClientConnectionTouchesNoSocketAgain) {
  peer.on_accept(sending(5, &PeerConnection::close));
  Client client(peer);
  const int number = client.fd();
  ox_u8 bytes[10];
  EXPECT_EQ(tnv_conn_recv(&client.vh, bytes, sizeof(bytes)), WSAECONNRESET);
  EXPECT_EQ(errno, OX_EOWNERDEAD);
  EXPECT_TRUE(client.vh.vfs_broken);

  std::vector<SOCKET> others;
  while (others.size() < 100 && (others.empty() || others.back() != static_cast<SOCKET>(number))) {
    others.push_back(socket(AF_UNIX, SOCK_STREAM, 0));
  }
  const int polls_before = polls;
  EXPECT_EQ(tnv_conn_send(&client.vh, bytes, sizeof(bytes)), WSAENOTCONN);
  EXPECT_EQ(tnv_conn_recv(&client.vh, bytes, sizeof(bytes)), WSAENOTCONN);
  EXPECT_EQ(errno, OX_EOWNERDEAD);
  EXPECT_EQ(polls, polls_before);
  tnv_conn_break(&client.vh);
  for (const SOCKET sock : others) {
    EXPECT_EQ(closesocket(sock), 0) << "not closed a second time";
  }
}

TEST_F(Transport, AnyFailureOfAClientConnectionClosesItOnce) {
  peer.on_accept([](PeerConnection& conn) { conn.stall(); });
  for (const int revents : {POLLHUP, POLLERR, POLLNVAL}) {
    Client client(peer);
    made_up_polls = {{1, revents, 0}};
    ox_u8 byte;
    EXPECT_NE(tnv_conn_recv(&client.vh, &byte, 1), 0);
    EXPECT_TRUE(client.vh.vfs_broken);
    tnv_conn_break(&client.vh);
  }
  peer.resume();
  EXPECT_TRUE(peer.wait_for_ended(3)) << "what the peer sees of it";
}

/* The child has what it inherits from its first moment on, and never runs. */
TEST_F(Transport, AChildOfTheProcessKeepsNoConnectionAlive) {
  char program[MAX_PATH + 1] = "";
  GetModuleFileNameA(nullptr, program, MAX_PATH);
  for (const bool taken : {true, false}) {
    SCOPED_TRACE(taken);
    takes_inherit_flag = taken;
    Client client(peer);
    takes_inherit_flag = true;
    STARTUPINFOA start = {};
    PROCESS_INFORMATION child = {};
    ASSERT_TRUE(CreateProcessA(program, nullptr, nullptr, nullptr, TRUE, CREATE_SUSPENDED, nullptr,
                               nullptr, &start, &child));
    tnv_conn_break(&client.vh);
    EXPECT_TRUE(peer.wait_for_ended(taken ? 1 : 2)) << "the peer sees the end";
    TerminateProcess(child.hProcess, 0);
    CloseHandle(child.hProcess);
    CloseHandle(child.hThread);
  }
}

/* ------------------------------------------------------------------- the dump */

TEST_F(Transport, DumpsWhatItMovesAtDebugLevelTwo) {
  Bytes bytes = {'A', 0, 0x9c, '~', 'b', 0x7f};
  bytes.resize(33, 0xff);
  peer.on_accept([](PeerConnection& conn) { conn.stall(); });
  Client client(peer);
  ASSERT_EQ(client.send({0x41}), 0);
  const LogCapture dump;
  ox_debug = 2;
  EXPECT_EQ(client.send(bytes), 0);
  ox_debug = 1;
  const auto lines = dump.lines();
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_EQ(lines[0], "00000000000000000000 --- Begin --- 00000000000000000000");
  EXPECT_TRUE(lines[1].starts_with("4100ffffff9c7e 627fffffffffffffffff ffffffff")) << lines[1];
  EXPECT_TRUE(lines[2].starts_with(" A     ~  b        ")) << lines[2];
  EXPECT_EQ(lines[3], "ffffffff");
  EXPECT_EQ(lines[4], "  ");
  EXPECT_EQ(log.count("--- Begin ---"), 1u) << "of the bytes before, nothing";
}

}  // namespace
