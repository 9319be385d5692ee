/*
 * The few Windows calls that the client makes in its calls, connections and maps, on the
 * development host: just enough for its own sources to compile and run there, where the thread
 * sanitizer sees them. Starts of services and whatever only they need are not here.
 */
#ifndef TESTS_NATIVE_WINDOWS_H
#define TESTS_NATIVE_WINDOWS_H

#include <fcntl.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

using BOOL = int;
using SHORT = short;
using DWORD = uint32_t;
using ULONG = uint32_t;
using NTSTATUS = int32_t;
using LONGLONG = int64_t;
using ULONGLONG = uint64_t;
using LPVOID = void*;
using HANDLE = void*;
using HINSTANCE = void*;
using SOCKET = uintptr_t;

#define WINAPI
#define INVALID_HANDLE_VALUE reinterpret_cast<HANDLE>(-1)
#define INVALID_SOCKET (~SOCKET{0})
#define MAKEWORD(low, high) (low)
#define NT_SUCCESS(status) ((status) >= 0)

constexpr BOOL FALSE = 0, TRUE = 1;
constexpr int ERROR_INVALID_HANDLE = 6, ERROR_NOT_ENOUGH_MEMORY = 8, ERROR_INVALID_DATA = 13,
              ERROR_NO_MORE_FILES = 18, ERROR_GEN_FAILURE = 31, ERROR_HANDLE_EOF = 38,
              ERROR_INVALID_PARAMETER = 87, ERROR_BAD_ARGUMENTS = 160,
              ERROR_FILENAME_EXCED_RANGE = 206, ERROR_DIRECTORY = 267, ERROR_IO_PENDING = 997,
              ERROR_LOGON_FAILURE = 1326, WSAEINTR = 10004, WSAEINVAL = 10022,
              WSAEWOULDBLOCK = 10035, WSAENOTSOCK = 10038, WSAEMSGSIZE = 10040,
              WSAECONNRESET = 10054, WSAENOTCONN = 10057, WSAETIMEDOUT = 10060;
constexpr DWORD CREATE_NEW = 1, CREATE_ALWAYS = 2, OPEN_EXISTING = 3, OPEN_ALWAYS = 4,
                TRUNCATE_EXISTING = 5, FILE_SYNCHRONOUS_IO_ALERT = 0x10,
                FILE_SYNCHRONOUS_IO_NONALERT = 0x20, DLL_PROCESS_DETACH = 0, DLL_PROCESS_ATTACH = 1,
                WAIT_OBJECT_0 = 0, WAIT_TIMEOUT = 258, INFINITE = ~DWORD{0};
constexpr int MAX_COMPUTERNAME_LENGTH = 15, _O_RDWR = 2;
constexpr long FIONBIO = 0;
/* These make no difference here. */
constexpr DWORD SYNCHRONIZE = 0, HANDLE_FLAG_INHERIT = 0, MEM_COMMIT = 0, MEM_RESERVE = 0,
                MEM_DECOMMIT = 0, PAGE_READWRITE = 0, WSA_FLAG_OVERLAPPED = 0,
                WSA_FLAG_NO_HANDLE_INHERIT = 0, SIO_AF_UNIX_GETPEERPID = 0;
enum FILE_INFORMATION_CLASS : int {};
enum FILE_INFO_BY_HANDLE_CLASS : int { FileEndOfFileInfo };

union LARGE_INTEGER {
  LONGLONG QuadPart;
};
struct OVERLAPPED {
  DWORD Offset, OffsetHigh;
  HANDLE hEvent;
};
struct FILE_END_OF_FILE_INFO {
  LARGE_INTEGER EndOfFile;
};
struct FILE_MODE_INFORMATION {
  ULONG Mode;
};
struct PROCESS_INFORMATION {
  HANDLE hProcess, hThread;
  DWORD dwProcessId, dwThreadId;
};
struct WSAPOLLFD {
  SOCKET fd;
  SHORT events, revents;
};
struct IO_STATUS_BLOCK {};
struct WSADATA {};

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID process_ends);

/* ------------------------------------------------------------------- the system */

inline thread_local DWORD standin_last_error;
inline DWORD GetLastError() { return standin_last_error; }
inline void SetLastError(DWORD code) { standin_last_error = code; }
inline DWORD GetCurrentThreadId() { return static_cast<DWORD>(gettid()); }
inline DWORD GetCurrentProcessId() { return static_cast<DWORD>(getpid()); }
inline BOOL GetComputerNameA(char* name, DWORD* size) {
  return *size > strlen(strcpy(name, "HOST"));
}
inline void Sleep(DWORD ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }
inline ULONGLONG GetTickCount64() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<ULONGLONG>(now / std::chrono::milliseconds(1));
}
/* Ordinary memory, so that a sanitizer sees who uses it when it is gone. */
inline void* VirtualAlloc(void*, size_t size, DWORD, DWORD) { return calloc(1, size); }
inline void VirtualFree(void* at, size_t, DWORD) { free(at); }
inline int _strnicmp(const char* a, const char* b, size_t size) { return strncasecmp(a, b, size); }

/* ------------------------------------------------------------------- events and files */

struct StandinEvent {
  const bool manual;
  bool set; /* guarded by the mutex */
  std::mutex mutex = {};
  std::condition_variable changed = {};
};
/* The handle of a file is its descriptor. */
inline int standin_file(HANDLE file) { return static_cast<int>(reinterpret_cast<intptr_t>(file)); }

inline HANDLE CreateEventA(void*, BOOL manual, BOOL set, const char*) {
  return new StandinEvent{manual != FALSE, set != FALSE};
}
inline BOOL SetEvent(HANDLE handle) {
  auto* event = static_cast<StandinEvent*>(handle);
  const std::lock_guard lock(event->mutex);
  event->set = true;
  event->changed.notify_all();
  return TRUE;
}
/* A wait without an end is one of 49 days. */
inline DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds) {
  auto* event = static_cast<StandinEvent*>(handle);
  std::unique_lock lock(event->mutex);
  if (!event->changed.wait_for(lock, std::chrono::milliseconds(milliseconds),
                               [event] { return event->set; })) {
    return WAIT_TIMEOUT;
  }
  event->set = event->manual;
  return WAIT_OBJECT_0;
}
inline BOOL CloseHandle(HANDLE handle) {
  if (reinterpret_cast<uintptr_t>(handle) < 65536) {
    return close(standin_file(handle)) == 0;
  }
  delete static_cast<StandinEvent*>(handle);
  return TRUE;
}
inline BOOL SetHandleInformation(HANDLE, DWORD, DWORD) { return TRUE; }
inline HANDLE OpenProcess(DWORD, BOOL, DWORD) { return nullptr; }

inline BOOL standin_moved(ssize_t moved, DWORD* count) {
  *count = static_cast<DWORD>(moved > 0 ? moved : 0);
  SetLastError(moved == 0 ? ERROR_HANDLE_EOF : ERROR_GEN_FAILURE);
  return moved > 0;
}
inline BOOL ReadFile(HANDLE file, void* buffer, DWORD size, DWORD* count, OVERLAPPED* at) {
  return standin_moved(pread(standin_file(file), buffer, size, at->Offset), count);
}
inline BOOL WriteFile(HANDLE file, const void* buffer, DWORD size, DWORD* count, OVERLAPPED* at) {
  return standin_moved(pwrite(standin_file(file), buffer, size, at->Offset), count);
}
inline BOOL GetOverlappedResult(HANDLE, OVERLAPPED*, DWORD*, BOOL) { return FALSE; }
inline BOOL GetFileSizeEx(HANDLE file, LARGE_INTEGER* size) {
  size->QuadPart = lseek(standin_file(file), 0, SEEK_END);
  return size->QuadPart >= 0;
}
inline BOOL SetFileInformationByHandle(HANDLE file, FILE_INFO_BY_HANDLE_CLASS,
                                       const FILE_END_OF_FILE_INFO* end, size_t) {
  return ftruncate(standin_file(file), end->EndOfFile.QuadPart) == 0;
}
inline NTSTATUS NtQueryInformationFile(HANDLE, IO_STATUS_BLOCK*, FILE_MODE_INFORMATION* mode,
                                       size_t, FILE_INFORMATION_CLASS) {
  mode->Mode = FILE_SYNCHRONOUS_IO_NONALERT;
  return 0;
}
/* None is left: the handle itself serves. */
inline int _open_osfhandle(intptr_t, int) { return -1; }

/* ------------------------------------------------------------------- sockets */

/* The host has functions of some of these names; they take other types. */
inline int standin_socket(SOCKET sock) { return static_cast<int>(sock); }
inline int WSAGetLastError() { return errno == EAGAIN ? WSAEWOULDBLOCK : WSAECONNRESET; }
inline void WSASetLastError(int) {}
inline int WSAStartup(int, WSADATA*) { return 0; }
inline int WSACleanup() { return 0; }
inline SOCKET WSASocketW(int family, int type, int protocol, void*, int, DWORD) {
  return static_cast<SOCKET>(socket(family, type | SOCK_CLOEXEC, protocol));
}
inline int WSAIoctl(SOCKET, DWORD, void*, DWORD, void*, size_t, DWORD*, void*, void*) { return -1; }
inline int WSAPoll(WSAPOLLFD* fds, ULONG, int milliseconds) {
  pollfd one = {standin_socket(fds->fd), fds->events, 0};
  const int count = poll(&one, 1, milliseconds);
  fds->revents = one.revents;
  return count;
}
inline int ioctlsocket(SOCKET sock, long, u_long*) {
  return fcntl(standin_socket(sock), F_SETFL, O_NONBLOCK);
}
inline int closesocket(SOCKET sock) { return close(standin_socket(sock)); }
inline int connect(SOCKET sock, const sockaddr* address, size_t size) {
  return connect(standin_socket(sock), address, static_cast<socklen_t>(size));
}
inline int send(SOCKET sock, const char* data, int size, int) {
  return static_cast<int>(
      sendto(standin_socket(sock), data, static_cast<size_t>(size), MSG_NOSIGNAL, nullptr, 0));
}
inline int recv(SOCKET sock, char* data, int size, int) {
  return static_cast<int>(
      recvfrom(standin_socket(sock), data, static_cast<size_t>(size), 0, nullptr, nullptr));
}
inline int getsockopt(SOCKET sock, int level, int name, char* value, int* size) {
  auto length = static_cast<socklen_t>(*size);
  return getsockopt(standin_socket(sock), level, name, static_cast<void*>(value), &length);
}

#endif
