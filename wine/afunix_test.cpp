/*
 * What the tests of the library and of the service cannot see of AF_UNIX sockets under Wine: who
 * else may stand behind a path, and what is left of a process that is killed. The program runs
 * itself again as the service that dies.
 */
#include <winsock2.h>
#include <ws2tcpip.h>

#include <afunix.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>
#include <fstream>

#include "test_folder.h"

namespace {

SOCKET new_socket(int family = AF_UNIX) { return socket(family, SOCK_STREAM, 0); }

/* bind or connect, to a path: 0 or the Windows Sockets error. */
int call_with(decltype(&connect) call, SOCKET s, const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, path.data(), path.size());
  const auto* any = reinterpret_cast<const sockaddr*>(&address);
  return call(s, any, sizeof(address)) != 0 ? WSAGetLastError() : 0;
}
int bind_to(SOCKET s, const std::string& path) { return call_with(bind, s, path); }
int connect_to(const std::string& path, SOCKET s = new_socket()) {
  return call_with(connect, s, path);
}

SOCKET listener(const std::string& path) {
  const SOCKET s = new_socket();
  EXPECT_EQ(bind_to(s, path), 0) << path;
  EXPECT_EQ(listen(s, 5), 0);
  return s;
}

/* The loopback port that the socket file names; port 0 where Wine has AF_UNIX of its own. */
sockaddr_in port_behind(const std::string& path) {
  sockaddr_in port = {};
  port.sin_family = AF_INET;
  port.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::ifstream file(path);
  for (std::string word; file >> word && word != "port";) {
  }
  file >> port.sin_port;
  return port;
}

int poll_one(SOCKET s, int timeout) {
  WSAPOLLFD polled = {s, POLLRDNORM, 0};
  return WSAPoll(&polled, 1, timeout) < 0 ? -WSAGetLastError() : polled.revents;
}

/* 0 when there is none. */
ULONG peer_process(SOCKET s) {
  ULONG process = 0;
  DWORD size = 0;
  WSAIoctl(s, SIO_AF_UNIX_GETPEERPID, nullptr, 0, &process, sizeof(process), &size, nullptr,
           nullptr);
  return process;
}

class AfUnix : public testing::Test {
 protected:
  const TestFolder folder_;
  const std::string path_ = folder_ / "s";
};

TEST_F(AfUnix, APathIsTakenOnceAndRefusesOnceItsListenerIsGone) {
  EXPECT_EQ(bind_to(new_socket(), path_ + std::string(108 - path_.size(), 'x')), WSAEINVAL);
  const SOCKET service = listener(path_), client = new_socket();
  EXPECT_EQ(bind_to(new_socket(), path_), WSAEADDRINUSE);
  EXPECT_EQ(connect_to(path_, client), 0);
  const sockaddr_in port = port_behind(path_);
  BOOL at_once = FALSE;
  int size = sizeof at_once;
  getsockopt(client, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<char*>(&at_once), &size);
  EXPECT_TRUE(at_once || port.sin_port == 0) << "small messages are not held back";
  closesocket(service);
  const SOCKET owner = new_socket(AF_INET);
  EXPECT_EQ(bind(owner, reinterpret_cast<const sockaddr*>(&port), sizeof(port)), 0);
  listen(owner, 5);
  EXPECT_EQ(connect_to(path_), WSAECONNREFUSED) << "though its port has a new owner";
}

TEST_F(AfUnix, AStrangerOnThePortIsNotAccepted) {
  const SOCKET service = listener(path_);
  const sockaddr_in port = port_behind(path_);
  for (const std::string& text : {std::string(), std::string(36, 'a')}) {
    const SOCKET stranger = new_socket(AF_INET);
    EXPECT_EQ(connect(stranger, reinterpret_cast<const sockaddr*>(&port), sizeof(port)), 0);
    send(stranger, text.data(), static_cast<int>(text.size()), 0);
    closesocket(stranger);
  }
  ASSERT_EQ(connect_to(path_), 0);
  EXPECT_EQ(peer_process(accept(service, nullptr, nullptr)), GetCurrentProcessId());
}

TEST_F(AfUnix, AHandleUsedAgainIsASocketOfItsNewFamily) {
  const SOCKET old = listener(path_);
  CloseHandle(reinterpret_cast<HANDLE>(old)); /* unseen by ws2_32.dll */
  SOCKET again = new_socket(AF_INET);
  for (int tries = 0; again != old && tries < 100; tries++) {
    again = new_socket(AF_INET);
  }
  sockaddr_in any = {};
  any.sin_family = AF_INET;
  ASSERT_EQ(again, old);
  EXPECT_EQ(bind(old, reinterpret_cast<sockaddr*>(&any), sizeof(any)), 0);
}

/* Leaves a handle of the connection with the process at its other end, and waits to be killed. */
int serve(const char* path) {
  const SOCKET kept = accept(listener(path), nullptr, nullptr);
  HANDLE peer = OpenProcess(PROCESS_DUP_HANDLE, FALSE, peer_process(kept)), left = nullptr;
  DuplicateHandle(GetCurrentProcess(), reinterpret_cast<HANDLE>(kept), peer, &left, 0, FALSE,
                  DUPLICATE_SAME_ACCESS);
  send(kept, "l", 1, 0);
  Sleep(INFINITE);
  return 1;
}

TEST_F(AfUnix, AKilledServiceHangsUpAfterItsDataAndRefuses) {
  std::string command = '"' + test_program().string() + "\" --serve " + path_;
  STARTUPINFOA startup = {};
  PROCESS_INFORMATION service = {};
  ASSERT_TRUE(CreateProcessA(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                             &startup, &service));
  const SOCKET client = new_socket();
  while (connect_to(path_, client) != 0) {
    ASSERT_EQ(WaitForSingleObject(service.hProcess, 5), DWORD{WAIT_TIMEOUT});
  }
  EXPECT_EQ(poll_one(client, 10'000), POLLRDNORM);
  EXPECT_EQ(peer_process(client), service.dwProcessId);
  TerminateProcess(service.hProcess, 1);
  WaitForSingleObject(service.hProcess, INFINITE);
  char byte = 0;
  EXPECT_EQ(recv(client, &byte, 1, 0), 1);
  EXPECT_EQ(poll_one(client, 100), POLLHUP) << "though its other end is still held";
  EXPECT_EQ(connect_to(path_), WSAECONNREFUSED);
}

}  // namespace

int main(int argc, char** argv) {
  WSADATA data;
  if (WSAStartup(MAKEWORD(2, 2), &data) != 0) {
    return 1;
  }
  if (argc == 3 && strcmp(argv[1], "--serve") == 0) {
    return serve(argv[2]);
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
