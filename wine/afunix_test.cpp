/*
 * What programs may rely on of AF_UNIX sockets under Wine. The program runs itself again as a
 * listening service where it matters that a process dies.
 */
#include <winsock2.h>
#include <ws2tcpip.h>

#include <afunix.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

class Socket {
 public:
  explicit Socket(SOCKET s = socket(AF_UNIX, SOCK_STREAM, 0)) : s_(s) {}
  Socket(Socket&& other) noexcept : s_(std::exchange(other.s_, INVALID_SOCKET)) {}
  Socket& operator=(Socket&& other) noexcept {
    std::swap(s_, other.s_);
    return *this;
  }
  ~Socket() { close(); }
  operator SOCKET() const { return s_; }
  SOCKET release() { return std::exchange(s_, INVALID_SOCKET); }
  void close() {
    if (s_ != INVALID_SOCKET) {
      closesocket(release());
    }
  }

 private:
  SOCKET s_;
};

/* bind or connect, to a path: 0 or the Windows Sockets error. */
int call_with(decltype(&connect) call, SOCKET s, const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, path.data(), path.size());
  return call(s, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0
             ? WSAGetLastError()
             : 0;
}
int bind_to(SOCKET s, const std::string& path) { return call_with(bind, s, path); }
int connect_to(SOCKET s, const std::string& path) { return call_with(connect, s, path); }

int connect_to(const std::string& path) {
  const Socket s;
  return connect_to(s, path);
}

Socket listener(const std::string& path) {
  Socket s;
  EXPECT_EQ(bind_to(s, path), 0) << path;
  EXPECT_EQ(listen(s, 5), 0);
  return s;
}

void set_non_blocking(SOCKET s) {
  u_long on = 1;
  ASSERT_EQ(ioctlsocket(s, static_cast<long>(FIONBIO), &on), 0);
}

int poll_one(SOCKET s, SHORT events, int timeout = 5000) {
  WSAPOLLFD polled = {s, events, 0};
  const int ready = WSAPoll(&polled, 1, timeout);
  return ready < 0 ? -WSAGetLastError() : polled.revents;
}

/* Waits until the poll reports the event too: a peer's end may be on its way still. */
int poll_until(SOCKET s, SHORT events, int event) {
  const ULONGLONG deadline = GetTickCount64() + 5000;
  int got = poll_one(s, events);
  while (((got & event) == 0) && GetTickCount64() < deadline) {
    Sleep(1);
    got = poll_one(s, events);
  }
  return got;
}

void send_text(SOCKET s, const std::string& text) {
  ASSERT_EQ(send(s, text.data(), static_cast<int>(text.size()), 0), static_cast<int>(text.size()));
}

/* Up to `size` bytes, all of them unless the connection ends before. */
std::string receive(SOCKET s, size_t size) {
  std::string text(size, '\0');
  size_t done = 0;
  while (done < size) {
    const int n = recv(s, text.data() + done, static_cast<int>(size - done), 0);
    if (n <= 0) {
      break;
    }
    done += static_cast<size_t>(n);
  }
  text.resize(done);
  return text;
}

class AfUnix : public testing::Test {
 protected:
  void SetUp() override {
    char folder[MAX_PATH];
    ASSERT_NE(GetTempPathA(MAX_PATH, folder), 0u);
    folder_ = std::string(folder) + "u" + std::to_string(GetCurrentProcessId());
    ASSERT_TRUE(CreateDirectoryA(folder_.c_str(), nullptr));
    path_ = folder_ + "\\s";
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  /* A connection: the client's end, then the service's. */
  std::pair<Socket, Socket> pair() {
    const Socket service = listener(path_);
    Socket client;
    EXPECT_EQ(connect_to(client, path_), 0);
    Socket accepted(accept(service, nullptr, nullptr));
    DeleteFileA(path_.c_str());
    return {std::move(client), std::move(accepted)};
  }

  std::string folder_;
  std::string path_;
};

TEST_F(AfUnix, ConnectsToAListenerAndBindsToANewPathOnly) {
  EXPECT_EQ(connect_to(path_), WSAECONNREFUSED) << "missing";
  std::ofstream(path_) << "anything";
  EXPECT_EQ(connect_to(path_), WSAECONNREFUSED) << "not a socket file";
  DeleteFileA(path_.c_str());
  Socket s;
  EXPECT_EQ(listen(s, 1), SOCKET_ERROR) << "not bound";
  EXPECT_EQ(WSAGetLastError(), WSAEINVAL);
  EXPECT_EQ(bind_to(s, path_), 0);
  EXPECT_EQ(connect_to(path_), WSAECONNREFUSED) << "bound, not listening";
  EXPECT_EQ(listen(s, 1), 0);
  EXPECT_EQ(connect_to(path_), 0);
  s.close();
  EXPECT_EQ(connect_to(path_), WSAECONNREFUSED) << "closed";
  EXPECT_EQ(bind_to(Socket(), path_), WSAEADDRINUSE) << "the file outlives the socket";
  EXPECT_TRUE(DeleteFileA(path_.c_str()));
  EXPECT_EQ(bind_to(Socket(), path_), 0);
}

TEST_F(AfUnix, TakesPathsOf107Characters) {
  const std::string path = folder_ + "\\" + std::string(107 - folder_.size() - 1, 'x');
  const Socket service = listener(path);
  const Socket client;
  EXPECT_EQ(connect_to(client, path), 0);
  sockaddr_un name = {};
  int length = sizeof(name);
  EXPECT_EQ(getpeername(client, reinterpret_cast<sockaddr*>(&name), &length), 0);
  EXPECT_EQ(name.sun_path, path);
  name = {};
  EXPECT_EQ(getsockname(service, reinterpret_cast<sockaddr*>(&name), &length), 0);
  EXPECT_EQ(name.sun_path, path);
  EXPECT_EQ(bind_to(Socket(), path + "x"), WSAEINVAL) << "no room for the terminator";
}

TEST_F(AfUnix, ADeletedFileRefusesButEndsNoConnection) {
  const Socket service = listener(path_);
  const Socket client;
  EXPECT_EQ(connect_to(client, path_), 0);
  EXPECT_TRUE(DeleteFileA(path_.c_str()));
  EXPECT_EQ(connect_to(path_), WSAECONNREFUSED);
  const Socket accepted(accept(service, nullptr, nullptr));
  send_text(accepted, "hello");
  EXPECT_EQ(receive(client, 5), "hello");
}

/* The loopback port that the socket file names, or port 0 where Wine has AF_UNIX of its own. */
sockaddr_in port_behind(const std::string& path) {
  sockaddr_in port = {};
  port.sin_family = AF_INET;
  port.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::ifstream file(path);
  std::string word;
  while (file >> word && word != "port") {
  }
  file >> port.sin_port;
  return port;
}

TEST_F(AfUnix, AStrangerOnThePortIsNotAccepted) {
  const Socket service = listener(path_);
  const sockaddr_in port = port_behind(path_);
  if (port.sin_port == 0) {
    GTEST_SKIP() << "this Wine has AF_UNIX sockets of its own";
  }
  for (const std::string& text : {std::string(), std::string(36, 'a')}) {
    const Socket stranger(socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_EQ(connect(stranger, reinterpret_cast<const sockaddr*>(&port), sizeof(port)), 0);
    send(stranger, text.data(), static_cast<int>(text.size()), 0);
  }
  const Socket client;
  ASSERT_EQ(connect_to(client, path_), 0);
  send_text(client, "me");
  const Socket accepted(accept(service, nullptr, nullptr));
  EXPECT_EQ(receive(accepted, 2), "me");
}

TEST_F(AfUnix, ADeadFileIsRefusedThoughItsPortHasANewOwner) {
  listener(path_).close();
  const sockaddr_in port = port_behind(path_);
  if (port.sin_port == 0) {
    GTEST_SKIP() << "this Wine has AF_UNIX sockets of its own";
  }
  const Socket owner(socket(AF_INET, SOCK_STREAM, 0));
  ASSERT_EQ(bind(owner, reinterpret_cast<const sockaddr*>(&port), sizeof(port)), 0);
  ASSERT_EQ(listen(owner, 5), 0);
  EXPECT_EQ(connect_to(path_), WSAECONNREFUSED);
}

TEST_F(AfUnix, NonBlockingSocketsConnectAcceptAndPoll) {
  const Socket service = listener(path_);
  set_non_blocking(service);
  EXPECT_EQ(accept(service, nullptr, nullptr), INVALID_SOCKET);
  EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
  const Socket client;
  set_non_blocking(client);
  EXPECT_EQ(connect_to(client, path_), 0);
  EXPECT_EQ(poll_one(client, POLLRDNORM | POLLRDBAND, 0), 0);
  EXPECT_EQ(poll_one(client, POLLWRNORM), POLLWRNORM);
  char byte;
  EXPECT_EQ(recv(client, &byte, 1, 0), SOCKET_ERROR);
  EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
  EXPECT_EQ(poll_one(service, POLLRDNORM), POLLRDNORM);
  const Socket accepted(accept(service, nullptr, nullptr));
  send_text(client, "hello");
  EXPECT_EQ(poll_one(accepted, POLLRDNORM), POLLRDNORM);
  EXPECT_EQ(receive(accepted, 5), "hello");
}

/* A connection whose service has sent "last" and ended. */
void expect_hang_up_after_data(SOCKET client) {
  EXPECT_TRUE(poll_one(client, POLLRDNORM | POLLRDBAND) & POLLRDNORM) << "data can be read still";
  EXPECT_EQ(receive(client, 4), "last");
  EXPECT_TRUE(poll_until(client, POLLRDNORM | POLLRDBAND, POLLHUP) & POLLHUP);
  EXPECT_FALSE(poll_one(client, POLLRDNORM | POLLRDBAND) & POLLRDNORM);
  EXPECT_TRUE(poll_one(client, POLLWRNORM) & POLLHUP);
}

TEST_F(AfUnix, APeerThatClosesHangsUpAfterItsData) {
  for (const bool unread : {false, true}) {
    SCOPED_TRACE(unread);
    auto [client, accepted] = pair();
    if (unread) {
      send_text(client, "never read");
      EXPECT_EQ(poll_one(accepted, POLLRDNORM), POLLRDNORM);
    }
    send_text(accepted, "last");
    EXPECT_EQ(poll_one(client, POLLRDNORM), POLLRDNORM);
    accepted.close();
    EXPECT_TRUE(!unread || (poll_until(client, POLLWRNORM, POLLHUP) & POLLHUP));
    expect_hang_up_after_data(client);
    char byte;
    EXPECT_TRUE(unread || recv(client, &byte, 1, 0) == 0);
  }
}

TEST_F(AfUnix, AHalfClosedPeerCanStillRead) {
  auto [client, accepted] = pair();
  EXPECT_EQ(shutdown(accepted, SD_SEND), 0);
  EXPECT_EQ(poll_until(client, POLLRDNORM, POLLHUP), POLLHUP);
  send_text(client, "hello");
  EXPECT_EQ(receive(accepted, 5), "hello");
}

TEST_F(AfUnix, ClosingTheListenerEndsABlockedAccept) {
  Socket service = listener(path_);
  std::atomic<int> error = -1;
  std::thread blocked([&error, s = static_cast<SOCKET>(service)] {
    error = 0;
    if (accept(s, nullptr, nullptr) == INVALID_SOCKET) {
      error = WSAGetLastError();
    }
  });
  while (error < 0) {
    Sleep(1);
  }
  Sleep(50); /* most likely within accept; an error is right before it, too */
  service.close();
  blocked.join();
  EXPECT_TRUE(error == WSAEINTR || error == WSAENOTSOCK) << error;
}

TEST_F(AfUnix, AHandleUsedAgainIsASocketOfItsNewFamily) {
  const SOCKET old = listener(path_).release();
  CloseHandle(reinterpret_cast<HANDLE>(old)); /* unseen by ws2_32.dll */
  std::vector<Socket> sockets;
  while (sockets.empty() || (sockets.back() != old && sockets.size() < 100)) {
    sockets.emplace_back(socket(AF_INET, SOCK_STREAM, 0));
  }
  ASSERT_EQ(static_cast<SOCKET>(sockets.back()), old);
  sockaddr_in any = {};
  any.sin_family = AF_INET;
  EXPECT_EQ(bind(old, reinterpret_cast<sockaddr*>(&any), sizeof(any)), 0);
  EXPECT_EQ(connect_to(path_), WSAECONNREFUSED);
}

TEST_F(AfUnix, OtherSocketsAndCallsAreTheSystems) {
  EXPECT_EQ(socket(AF_UNIX, SOCK_DGRAM, 0), INVALID_SOCKET);
  const HMODULE ws2 = GetModuleHandleA("ws2_32.dll");
  EXPECT_EQ(GetProcAddress(ws2, MAKEINTRESOURCEA(115)), GetProcAddress(ws2, "WSAStartup"));
  EXPECT_EQ(GetProcAddress(ws2, MAKEINTRESOURCEA(1)), GetProcAddress(ws2, "accept"));
}

/* Sends back what it receives, `size` bytes at a time. */
void echo(Socket s, size_t size) {
  for (std::string text = receive(s, size); text.size() == size; text = receive(s, size)) {
    send_text(s, text);
  }
}

TEST_F(AfUnix, ManyThreadsHaveManyConnectionsAtOnce) {
  constexpr size_t kThreads = 8, kConnections = 16, kSize = 1000;
  const Socket service = listener(path_);
  std::vector<std::thread> threads;
  std::atomic<size_t> right = 0;
  for (size_t t = 0; t < kThreads; t++) {
    threads.emplace_back([&, t] {
      std::vector<Socket> clients(kConnections);
      const auto text = [&](size_t i) { return std::string(kSize, static_cast<char>(16 * t + i)); };
      for (const Socket& client : clients) {
        EXPECT_EQ(connect_to(client, path_), 0);
      }
      for (size_t i = 0; i < kConnections; i++) {
        send_text(clients[i], text(i));
      }
      for (size_t i = 0; i < kConnections; i++) {
        right += receive(clients[i], kSize) == text(i) ? 1 : 0;
      }
    });
  }
  std::vector<std::thread> echoes;
  for (size_t i = 0; i < kThreads * kConnections; i++) {
    echoes.emplace_back(echo, Socket(accept(service, nullptr, nullptr)), kSize);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (std::thread& thread : echoes) {
    thread.join();
  }
  EXPECT_EQ(right, kThreads * kConnections);
}

/*
 * A message in two pieces waits 40 ms for the peer's acknowledgement if small ones are held back.
 * The median: a busy machine slows some trips down.
 */
TEST_F(AfUnix, SmallMessagesAreNotHeldBack) {
  constexpr size_t kSize = 500;
  auto [client, accepted] = pair();
  std::thread peer(echo, std::move(accepted), kSize);
  std::vector<std::chrono::steady_clock::duration> trips(201);
  for (auto& trip : trips) {
    const auto start = std::chrono::steady_clock::now();
    send_text(client, std::string(48, 'h'));
    send_text(client, std::string(kSize - 48, 'b'));
    ASSERT_EQ(receive(client, kSize).size(), kSize);
    trip = std::chrono::steady_clock::now() - start;
  }
  client.close();
  peer.join();
  std::sort(trips.begin(), trips.end());
  EXPECT_LT(trips[trips.size() / 2], std::chrono::milliseconds(20));
}

/* --------------------------------------------------------------------- a service that is killed */

/* 0 when there is none. */
ULONG peer_process(SOCKET s) {
  ULONG process = 0;
  DWORD size = 0;
  WSAIoctl(s, SIO_AF_UNIX_GETPEERPID, nullptr, 0, &process, sizeof(process), &size, nullptr,
           nullptr);
  return process;
}

TEST_F(AfUnix, TheProcessAtTheOtherEndIsTold) {
  const Socket service = listener(path_);
  const Socket client;
  ASSERT_EQ(connect_to(client, path_), 0);
  const Socket accepted(accept(service, nullptr, nullptr));
  EXPECT_EQ(peer_process(accepted), GetCurrentProcessId());
  EXPECT_EQ(peer_process(service), 0u) << "who listens has no other end";
}

/* Leaves a handle of the socket with the process at its other end, which knows nothing of it. */
void outlive_this_process(SOCKET s) {
  HANDLE peer = OpenProcess(PROCESS_DUP_HANDLE, FALSE, peer_process(s));
  HANDLE left = nullptr;
  DuplicateHandle(GetCurrentProcess(), reinterpret_cast<HANDLE>(s), peer, &left, 0, FALSE,
                  DUPLICATE_SAME_ACCESS);
}

/* Accepts two connections, says so on them, and waits to be killed. */
int serve(const char* path, const char* ready_event) {
  const Socket service = listener(path);
  HANDLE ready = OpenEventA(EVENT_MODIFY_STATE, FALSE, ready_event);
  SetEvent(ready);
  const Socket accepted(accept(service, nullptr, nullptr));
  send_text(accepted, "last");
  const Socket kept(accept(service, nullptr, nullptr));
  outlive_this_process(kept);
  send_text(kept, "last");
  Sleep(INFINITE);
  return 1;
}

PROCESS_INFORMATION start_service(const std::string& path) {
  char program[MAX_PATH];
  GetModuleFileNameA(nullptr, program, sizeof(program));
  const std::string ready_event = "afunix_test-" + std::to_string(GetCurrentProcessId());
  std::string command = '"' + std::string(program) + "\" --serve " + path + ' ' + ready_event;
  HANDLE ready = CreateEventA(nullptr, TRUE, FALSE, ready_event.c_str());
  STARTUPINFOA startup = {};
  startup.cb = sizeof(startup);
  PROCESS_INFORMATION service = {};
  EXPECT_TRUE(CreateProcessA(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                             &startup, &service));
  HANDLE either[] = {ready, service.hProcess};
  EXPECT_EQ(WaitForMultipleObjects(2, either, FALSE, 20000), WAIT_OBJECT_0);
  CloseHandle(ready);
  CloseHandle(service.hThread);
  return service;
}

TEST_F(AfUnix, AKilledServiceHangsUpAndRefuses) {
  const PROCESS_INFORMATION service = start_service(path_);
  const Socket client;
  ASSERT_EQ(connect_to(client, path_), 0);
  EXPECT_EQ(poll_one(client, POLLRDNORM), POLLRDNORM);
  EXPECT_EQ(peer_process(client), service.dwProcessId);
  const Socket kept;
  ASSERT_EQ(connect_to(kept, path_), 0);
  EXPECT_EQ(poll_one(kept, POLLRDNORM), POLLRDNORM);
  EXPECT_TRUE(TerminateProcess(service.hProcess, 1));
  WaitForSingleObject(service.hProcess, INFINITE);
  CloseHandle(service.hProcess);
  expect_hang_up_after_data(client);
  EXPECT_EQ(receive(kept, 4), "last");
  EXPECT_EQ(poll_one(kept, POLLRDNORM, 100), POLLHUP) << "though its other end is still held";
  EXPECT_EQ(connect_to(path_), WSAECONNREFUSED);
  EXPECT_TRUE(DeleteFileA(path_.c_str()));
}

}  // namespace

int main(int argc, char** argv) {
  WSADATA data;
  if (WSAStartup(MAKEWORD(2, 2), &data) != 0) {
    return 1;
  }
  if (argc == 4 && strcmp(argv[1], "--serve") == 0) {
    return serve(argv[2], argv[3]);
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
