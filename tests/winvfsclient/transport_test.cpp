/* The socket transport against a scripted peer, and against polls that report what is rare. */
#include <winsock2.h>
/* after winsock2.h */
#include <afunix.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <deque>
#include <functional>
#include <regex>
#include <utility>

#include "eventually.h"
#include "log_capture.h"
#include "ox_errno.h"
#include "ox_logging.h"
#include "scripted_peer.h"
#include "system_function.h"
#include "tnv_connio_win.h"

/* ------------------------------------------------------------------- polls made up by a test */

namespace {

struct MadeUpPoll {
  int result;
  int revents;
  int last_error;
};
using Polls = std::deque<MadeUpPoll>;
/* The peer polls and closes, too: what follows is about the thread of the tests alone. */
const DWORD TEST_THREAD = GetCurrentThreadId();
/* A poll takes one of these instead of the system's answer. */
Polls made_up_polls;
std::function<void()> when_all_are_taken; /* called by the poll after the last */
int polls = 0;
SHORT last_events = 0; /* of the last of them */

/* Closings of sockets that were closed already, by any thread; and all that this one closed. */
std::atomic<int> failed_closes = 0;
std::vector<SOCKET> closed_here;

int WSAAPI close_and_count(SOCKET sock) {
  static const auto SYSTEM_CLOSE = system_function<decltype(closesocket)>("closesocket");
  const int result = SYSTEM_CLOSE(sock);
  if (result != 0) {
    failed_closes++;
  }
  if (GetCurrentThreadId() == TEST_THREAD) {
    closed_here.push_back(sock);
  }
  return result;
}

bool takes_inherit_flag = true; /* when a socket is made */

SOCKET WSAAPI make_if_flag_is_taken(int family, int type, int protocol, WSAPROTOCOL_INFOW* info,
                                    GROUP group, DWORD flags) {
  static const auto SYSTEM_MAKE = system_function<decltype(WSASocketW)>("WSASocketW");
  if (!takes_inherit_flag) {
    WSASetLastError(WSAEINVAL);
    return INVALID_SOCKET;
  }
  return SYSTEM_MAKE(family, type, protocol, info, group, flags);
}

}  // namespace

/* The linker takes these in the place of the import library's. */
extern "C" {
decltype(&closesocket) __imp_closesocket = close_and_count;
decltype(&WSASocketW) __imp_WSASocketW = make_if_flag_is_taken;
}
int WSAAPI WSAPoll(WSAPOLLFD* fds, ULONG count, INT timeout) {
  static const auto SYSTEM_POLL = system_function<decltype(WSAPoll)>("WSAPoll");
  if (GetCurrentThreadId() != TEST_THREAD) {
    return SYSTEM_POLL(fds, count, timeout);
  }
  polls++;
  last_events = fds->events;
  if (made_up_polls.empty() && when_all_are_taken) {
    std::exchange(when_all_are_taken, {})();
  }
  if (made_up_polls.empty()) {
    return SYSTEM_POLL(fds, count, timeout);
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

class Transport : public testing::Test {
 protected:
  void TearDown() override {
    EXPECT_TRUE(made_up_polls.empty());
    EXPECT_EQ(failed_closes.exchange(0), 0) << "each socket is closed once";
  }

 public:
  LogCapture log;
  std::atomic<bool> done = false; /* set by scripts of the peer */
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

/* ------------------------------------------------------------------- moving bytes */

TEST_F(Transport, MovesMoreThanTheSocketHoldsBothWays) {
  constexpr size_t SIZE = 900'000;
  tnv_msg msg = {};
  msg.hdr.hdr_len = sizeof(msg) + SIZE;
  peer.on_request([](PeerConnection& conn) { conn.send(conn.request().bytes); });
  Client client(peer);
  const Bytes request = bytes_of(msg) + pattern(SIZE);
  ASSERT_EQ(client.send(request), 0);
  ASSERT_EQ(client.recv(request.size()), 0);
  EXPECT_TRUE(client.got == request);

  tnv_resp resp = {};
  resp.rhdr.rhdr_len = TNV_RESP_MAX_PAYLOAD + 1;
  EXPECT_EQ(tnv_send_response(&client.vh, client.fd(), &msg, &resp), WSAEMSGSIZE);
}

constexpr int ANY = -1; /* any error, or either state */
enum { CLOSED, OPEN };
using Then = void (PeerConnection::*)();
constexpr Then STAYS = &PeerConnection::stall, CLOSES = &PeerConnection::close;
constexpr Then ENDS = &PeerConnection::end_sending, ABORTS = &PeerConnection::reset;
constexpr MadeUpPoll READABLE = {1, POLLRDNORM, 0}, TIMEOUT = {0, 0, 0};
constexpr bool SENDS = true, RECEIVES = false, EXITING = true, RUNS = false;

/*
 * One transfer on a new connection, which both sides use in this order: the peer sends `sent` bytes
 * and then does `then`; the client receives `before` bytes; then comes the transfer.
 */
struct Transfer {
  size_t sent;
  Then then;
  size_t before;
  bool direction;
  size_t bytes;
  bool owner; /* EXITING: the owner of the connection says so */
  Polls polls;
  int err;
  int state; /* of the client's socket afterwards */
  const char* line;
};

const Transfer TRANSFERS[] = {
    /* What was sent before the peer closed is read; then the connection is over. */
    {100'000, CLOSES, 0, RECEIVES, 99'990, RUNS, {}, 0, OPEN, nullptr},
    {100'000, CLOSES, 99'990, RECEIVES, 11, RUNS, {}, WSAECONNRESET, CLOSED, "recv connection"},
    {0, ABORTS, 0, RECEIVES, 1, RUNS, {}, ANY, ANY, nullptr},
    {0, ABORTS, 0, SENDS, 10, RUNS, {}, ANY, ANY, nullptr},
    /* The peer ends its side and stays: nothing can come, though the system may report no end. */
    {5, ENDS, 0, RECEIVES, 10, RUNS, {}, WSAECONNRESET, CLOSED, "recv connection hung"},
    {5, ENDS, 5, RECEIVES, 1, RUNS, {TIMEOUT, READABLE, TIMEOUT}, WSAECONNRESET, CLOSED, "hung"},
    {5, ENDS, 5, RECEIVES, 1, EXITING, {READABLE, TIMEOUT}, OX_ECONNRESET, OPEN, nullptr},
    /* The owner of the connection ends an idle wait. */
    {0, STAYS, 0, RECEIVES, 1, EXITING, {}, OX_ECONNRESET, OPEN, nullptr},
    {0, STAYS, 0, SENDS, 256 << 20, EXITING, {}, WSAECONNRESET, OPEN, nullptr},
    /* Systems differ in what they report beside a hang-up while data is still there. */
    {10, STAYS, 1, RECEIVES, 9, RUNS, {{1, POLLHUP, 0}}, 0, OPEN, nullptr},
    {10, STAYS, 1, RECEIVES, 9, RUNS, {{1, POLLHUP | POLLRDNORM, 0}}, 0, OPEN, nullptr},
    {10, STAYS, 1, RECEIVES, 9, RUNS, {{1, POLLHUP | POLLERR, 0}}, 0, OPEN, nullptr},
    {10, STAYS, 1, RECEIVES, 9, RUNS, {{1, POLLERR | POLLRDNORM, 0}}, 0, OPEN, nullptr},
};

/* Polls that are rare; the line is that of a receive, and of a send with its word. */
const struct {
  MadeUpPoll poll;
  int err;
  int state;
  const char* line;
} RARE_POLLS[] = {
    {{1, POLLHUP, 0}, WSAECONNRESET, CLOSED, "recv connection hung"},
    {{1, POLLHUP | POLLERR, 0}, WSAECONNRESET, CLOSED, "recv connection"},
    {{1, POLLERR, 0}, ANY, OPEN, "Failed to recv over"},
    {{1, POLLNVAL, 0}, ANY, OPEN, "recv invalid socket"},
    {{-1, 0, WSAENETDOWN}, WSAENETDOWN, OPEN, "Error on Recv OX_POLL"},
    {{-1, 0, 0}, ANY, OPEN, "Error on Recv OX_POLL"},
};

class Transfers : public Transport {
 protected:
  void run(const Transfer& t) {
    const LogCapture now;
    done = false;
    peer.on_accept([this, sent = t.sent, then = t.then](PeerConnection& conn) {
      conn.send(pattern(sent));
      (conn.*then)();
      done = true;
    });
    Client client(peer);
    ASSERT_EQ(client.recv(t.before), 0);
    ASSERT_TRUE(t.then == STAYS || eventually([&] { return done.load(); }));
    if (t.then == ENDS && t.before == t.sent) {
      client.wait_for_end();
    }
    vfs_handle exiting = {};
    exiting.vfs_is_exiting = [](vfs_handle*) { return true; };
    vfs_handle* const owner = t.owner == EXITING ? &exiting : nullptr;
    made_up_polls = t.polls;
    const int polls_before = polls;
    WSASetLastError(0);
    const int err =
        t.direction == SENDS ? client.send(Bytes(t.bytes), owner) : client.recv(t.bytes, owner);
    EXPECT_TRUE(t.err == ANY ? err != 0 : err == t.err) << err;
    EXPECT_TRUE(err == 0 || errno == err);
    EXPECT_TRUE(t.state == ANY || client.is_open() == (t.state == OPEN));
    EXPECT_EQ(now.count(" failed on sockfd"), err != 0 && t.owner == RUNS ? 1 : 0);
    EXPECT_TRUE(t.line == nullptr || now.count(t.line) == 1u) << t.line;
    EXPECT_LT(polls - polls_before, 1000) << "it does not run in a circle";
    if (!t.polls.empty() && t.polls.back().result == 0) {
      EXPECT_EQ(last_events, POLLRDBAND) << "zero is no valid request everywhere";
      EXPECT_EQ(polls - polls_before, static_cast<int>(t.polls.size()));
    }
    Bytes all = pattern(t.sent);
    all.erase(all.begin(), all.begin() + static_cast<ptrdiff_t>(t.before));
    EXPECT_TRUE(err != 0 || std::equal(client.got.begin(), client.got.end(), all.begin()));
  }
};

TEST_F(Transfers, EndAsTheyShould) {
  for (const Transfer& t : TRANSFERS) {
    SCOPED_TRACE(&t - TRANSFERS);
    run(t);
  }
}

TEST_F(Transfers, EndAtRarePolls) {
  for (const auto& rare : RARE_POLLS) {
    const std::string sent = std::regex_replace(
        std::regex_replace(rare.line, std::regex("recv"), "send"), std::regex("Recv"), "Send");
    run({0, STAYS, 0, RECEIVES, 10, RUNS, {rare.poll}, rare.err, rare.state, rare.line});
    /* A send polls when the socket takes no more, and again after an interruption. */
    const Polls polls = {{-1, 0, WSAEINTR}, rare.poll};
    run({0, STAYS, 0, SENDS, 64 << 20, RUNS, polls, rare.err, rare.state, sent.c_str()});
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
  EXPECT_EQ(log.count("failed"), 0u);
}

/* ------------------------------------------------------------------- the client's connections */

/* Another part of the process may have got the number of the socket that was closed. */
TEST_F(Transport, AFailureClosesAClientConnectionOnceAndTouchesNoSocketAgain) {
  peer.on_accept([](PeerConnection& conn) { conn.stall(); });
  for (const int revents : {POLLHUP, POLLERR, POLLNVAL}) {
    Client client(peer);
    const auto number = static_cast<SOCKET>(client.fd());
    made_up_polls = {{1, revents, 0}};
    ox_u8 byte;
    EXPECT_NE(tnv_conn_recv(&client.vh, &byte, 1), 0);
    EXPECT_EQ(errno, OX_EOWNERDEAD);
    EXPECT_TRUE(client.vh.vfs_broken);
    std::vector<SOCKET> others;
    while (others.size() < 100 && (others.empty() || others.back() != number)) {
      others.push_back(socket(AF_UNIX, SOCK_STREAM, 0));
    }
    const int polls_before = polls;
    EXPECT_EQ(tnv_conn_send(&client.vh, &byte, 1), WSAENOTCONN);
    EXPECT_EQ(tnv_conn_recv(&client.vh, &byte, 1), WSAENOTCONN);
    EXPECT_EQ(errno, OX_EOWNERDEAD);
    EXPECT_EQ(polls, polls_before);
    tnv_conn_break(&client.vh);
    for (const SOCKET sock : others) {
      EXPECT_EQ(closesocket(sock), 0) << "not closed a second time";
    }
  }
  peer.resume();
  EXPECT_TRUE(peer.wait_for_ended(3)) << "what the peer sees of it";
}

/* The event stands for the process. */
TEST_F(Transport, AWaitEndsWithTheProcessWhoseSocketOutlivesIt) {
  peer.on_accept([](PeerConnection& conn) { conn.stall(); });
  Client client(peer);
  tnw_watch watch = {CreateEventA(nullptr, TRUE, TRUE, nullptr), 5000};
  client.vh.vfs_private = &watch;
  made_up_polls = {TIMEOUT};
  ox_u8 byte;
  EXPECT_EQ(tnv_conn_recv(&client.vh, &byte, 1), WSAECONNRESET);
  EXPECT_EQ(log.count("The service's process has ended"), 1u);
  EXPECT_TRUE(client.vh.vfs_broken);
  tnw_end_watch(&watch);

  vfs_handle vh = {};
  vh.vfs_private = &watch;
  EXPECT_EQ(tnw_setup_socket(&vh, peer.path()), 0);
  EXPECT_NE(watch.tw_process, nullptr) << "the connect finds the process";
  EXPECT_EQ(WaitForSingleObject(watch.tw_process, 0), DWORD{WAIT_TIMEOUT});
  tnv_conn_break(&vh);
  tnw_end_watch(&watch);
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
  Client client(peer);
  ASSERT_EQ(client.send({0x41}), 0);
  EXPECT_EQ(log.count("Begin"), 0u);
  const LogCapture dump;
  ox_debug = 2;
  EXPECT_EQ(client.send(bytes), 0);
  ox_debug = 1;
  using testing::StartsWith;
  EXPECT_THAT(dump.lines(),
              testing::ElementsAre("00000000000000000000 --- Begin --- 00000000000000000000",
                                   StartsWith("4100ffffff9c7e 627fffffffffffffffff ffffffff"),
                                   StartsWith(" A     ~  b        "), "ffffffff", "  ",
                                   "00000000000000000000 --- End --- 00000000000000000000"));
}

}  // namespace
