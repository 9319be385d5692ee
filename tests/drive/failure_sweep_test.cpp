/*
 * The first, second, third ... call of the system that an operation makes is made to fail, once and
 * from then on, until a run in which nothing was hit. What the caller gets is in
 * failure_sweep.txt; after each run the file's state, the descriptor table and the pool are as they
 * should be, no lock is held, and the next call or the next start works.
 */
#include <gtest/gtest.h>
#include <winsock2.h>
/* after winsock2.h */
#include <windows.h>
/* after windows.h */
#include <pthread.h>
#include <shlobj.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "golden_text.h"
#include "operation_player.h"
#include "process_state.h"
#include "system_function.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID reserved);

namespace {

/* ------------------------------------------------------------------- what fails */

enum Kind { ALLOCATION, SOCKET_CALL, FILE_CALL, EVENT, THREAD, KINDS };
const char* const KIND_NAMES[KINDS] = {"allocation", "socket", "file", "event", "thread"};

/* Set by the test between two calls. */
struct Armed {
  Kind kind = KINDS;
  int first = 0;        /* the first call of the kind to fail, from 1 */
  bool lasting = false; /* all later ones fail, too */
} armed;
std::atomic<int> calls = 0; /* of the kind, since it was armed */
DWORD caller = 0;

/* The caller's thread and the workers, but not the peer's threads. */
bool is_the_librarys() {
  char name[32] = "";
  return GetCurrentThreadId() == caller ||
         (pthread_getname_np(pthread_self(), name, sizeof name) == 0 &&
          strncmp(name, "TNWIN", 5) == 0);
}

bool fails(Kind kind) {
  if (armed.kind != kind || !is_the_librarys()) {
    return false;
  }
  const int number = ++calls;
  return armed.lasting ? number >= armed.first : number == armed.first;
}

/* What a failure leaves in GetLastError and in errno. */
void leave_error(Kind kind) {
  static const std::pair<DWORD, int> ERRORS[KINDS] = {{ERROR_NOT_ENOUGH_MEMORY, ENOMEM},
                                                      {WSAENOBUFS, ENOBUFS},
                                                      {ERROR_CRC, EIO},
                                                      {ERROR_NOT_ENOUGH_MEMORY, ENOMEM},
                                                      {ERROR_NOT_ENOUGH_MEMORY, EAGAIN}};
  errno = ERRORS[kind].second;
  SetLastError(ERRORS[kind].first);
}

template <size_t N>
struct Name {
  char text[N];
  consteval Name(const char (&name)[N]) { std::copy_n(name, N, text); }
};

/* A function of the system, looked up each time: a static would be guarded by a lock, which makes
 * an event. */
template <Kind KIND, Name NAME, intptr_t FAILURE, class Function>
struct Failing;
template <Kind KIND, Name NAME, intptr_t FAILURE, class Result, class... Args>
struct Failing<KIND, NAME, FAILURE, Result(Args...)> {
  static Result WINAPI call(Args... args) {
    const auto real = system_function<Result WINAPI(Args...)>(NAME.text);
    if (!fails(KIND)) {
      return real(args...);
    }
    leave_error(KIND);
    if constexpr (std::is_pointer_v<Result>) {
      return reinterpret_cast<Result>(FAILURE);
    } else {
      return static_cast<Result>(FAILURE);
    }
  }
};

}  // namespace

extern "C" {
void* __real_ox_zalloc(size_t size);
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* how, void* (*run)(void*),
                          void* with);

void* __wrap_ox_zalloc(size_t size) {
  return fails(ALLOCATION) ? (leave_error(ALLOCATION), nullptr) : __real_ox_zalloc(size);
}
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* how, void* (*run)(void*),
                          void* with) {
  return fails(THREAD) ? EAGAIN : __real_pthread_create(thread, how, run, with);
}
int __real_WSAPoll(WSAPOLLFD* polled, ULONG count, INT timeout);
int __wrap_WSAPoll(WSAPOLLFD* polled, ULONG count, INT timeout) {
  return fails(SOCKET_CALL) ? (leave_error(SOCKET_CALL), SOCKET_ERROR)
                            : __real_WSAPoll(polled, count, timeout);
}

/* The linker takes these in the place of the import library's. */
#define FAILS(kind, function, failure) \
  decltype(&function) __imp_##function = Failing<kind, #function, failure, decltype(function)>::call
FAILS(SOCKET_CALL, WSAStartup, WSASYSNOTREADY);
FAILS(SOCKET_CALL, WSASocketW, -1);
FAILS(SOCKET_CALL, socket, -1);
FAILS(SOCKET_CALL, connect, SOCKET_ERROR);
FAILS(SOCKET_CALL, ioctlsocket, SOCKET_ERROR);
FAILS(SOCKET_CALL, WSAIoctl, SOCKET_ERROR);
FAILS(SOCKET_CALL, send, SOCKET_ERROR);
FAILS(SOCKET_CALL, recv, SOCKET_ERROR);
FAILS(FILE_CALL, SHCreateDirectoryExA, ERROR_ACCESS_DENIED);
FAILS(FILE_CALL, CreateFileA, -1);
FAILS(FILE_CALL, ReadFile, 0);
FAILS(FILE_CALL, WriteFile, 0);
FAILS(FILE_CALL, SetFilePointerEx, 0);
FAILS(FILE_CALL, SetFileInformationByHandle, 0);
FAILS(FILE_CALL, GetFileSizeEx, 0);
FAILS(FILE_CALL, LockFileEx, 0);
FAILS(FILE_CALL, _open_osfhandle, -1);
FAILS(EVENT, CreateEventA, 0);
#undef FAILS
}

/* ------------------------------------------------------------------- the sweep */

namespace {

class Sweep : public OperationPlayer {
 public:
  explicit Sweep(const Operation& operation) : OperationPlayer(operation) {}

  /*
   * The failures that the caller gets from the run in which the first call fails, the second ...,
   * each once. How often the library polls depends on the machine, and whether a lock makes an
   * event, so neither counts nor successes are told.
   */
  std::string of(Kind kind, bool lasting) {
    std::vector<std::string> codes;
    for (int first = 1; first <= MOST; first++) {
      if (kind == THREAD) {
        stop(); /* a worker stays for later calls */
      }
      const Outcome outcome = run(
          [&] {
            calls = 0;
            armed = {kind, first, lasting};
          },
          [] { armed = {}; });
      if (testing::Test::HasFatalFailure() || calls < first) {
        return told(codes, first == 1);
      }
      EXPECT_TRUE(outcome.next == "0" || outcome.next == "1467" || outcome.next[0] == 'n')
          << outcome.next;
      if (outcome.code[0] != '0' &&
          std::find(codes.begin(), codes.end(), outcome.code) == codes.end()) {
        codes.push_back(outcome.code);
      }
    }
    ADD_FAILURE() << "something fails again and again";
    return "";
  }

 private:
  static std::string told(const std::vector<std::string>& codes, bool nothing_hit) {
    std::string text = nothing_hit ? " none is made" : codes.empty() ? " 0" : "";
    for (const std::string& code : codes) {
      text += (text.empty() ? " " : "; ") + code;
    }
    return text;
  }

  static constexpr int MOST = 100;
};

std::string sweep(const Operation& operation) {
  Sweep player(operation);
  std::string text = std::string(operation.name) + ": " + operation.call + '\n';
  for (int kind = 0; kind < KINDS; kind++) {
    const std::string name = KIND_NAMES[kind];
    SCOPED_TRACE(name);
    text += "  " + name + " once:" + player.of(Kind(kind), false) + '\n';
    const size_t handle = fresh_handle();
    text += "  " + name + " lasting:" + player.of(Kind(kind), true) + '\n';
    EXPECT_LT(fresh_handle(), handle + 6) << "one is left by each run";
  }
  return text;
}

}  // namespace

TEST(FailureSweep, EveryCallOfTheSystemFailsInTurn) {
  DllMain(nullptr, DLL_PROCESS_ATTACH, nullptr);
  caller = GetCurrentThreadId();
  std::string text;
  for (const Operation& operation : all_operations()) {
    SCOPED_TRACE(operation.name);
    const bool known = text.find(std::string(": ") + operation.call + '\n') != std::string::npos;
    text += known ? "" : sweep(operation);
  }
  expect_text_of("failure_sweep", text);
}
