/*
 * What the client does, and the whole of what it says, where the system, the service or the
 * start-up record fail it: scripts with one more command, "fail". Linked with the library's
 * objects, some of whose functions can be made to fail here.
 *
 * Without a row are system calls that do not fail on a sound machine: the start of Windows Sockets,
 * a new socket and its options, the computer's name, the end of a process.
 */
#include <gtest/gtest.h>
#include <windows.h>

#include <regex>

#include "ox_logging.h"
#include "ox_platform.h"
#include "ox_tpool.h"
#include "ox_util.h"
#include "peer_player.h"
#include "process_state.h"
#include "system_function.h"
#include "tnw_connect.h"
#include "tnw_dll/tnw_instance.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID reserved);

/* ------------------------------------------------------------------- what can be made to fail */

namespace {

struct Faults {
  size_t allocation = 0;    /* allocations of this size fail */
  int most_open_files = -1; /* instead of the runtime's; -1: the runtime's */
  bool pool = false;
  bool reads = false; /* as on a broken disk */
  bool writes = false;
  bool half_writes = false;
  bool events = false;
} faults;

int listed_at_table = -1; /* instances on the list when a table was made last */

}  // namespace

extern "C" {
void* __real_ox_zalloc(size_t size);
int __real_ox_get_max_openfiles(void);
int __real_ox_init_tpool(void);
ox_s64 __real_ox_pread(int fd, void* buf, size_t count, ox_off offset);
ox_s64 __real_ox_pwrite(int fd, const void* buf, size_t count, ox_off offset);

void* __wrap_ox_zalloc(size_t size) {
  if (size != faults.allocation) {
    return __real_ox_zalloc(size);
  }
  errno = 12;
  return nullptr;
}
int __wrap_ox_get_max_openfiles(void) {
  listed_at_table = tnw_tninstances.tni_cnt;
  if (faults.most_open_files < 0) {
    return __real_ox_get_max_openfiles();
  }
  errno = 24;
  return faults.most_open_files;
}
ox_s64 __wrap_ox_pread(int fd, void* buf, size_t count, ox_off offset) {
  return faults.reads ? (errno = ERROR_CRC, -1) : __real_ox_pread(fd, buf, count, offset);
}
ox_s64 __wrap_ox_pwrite(int fd, const void* buf, size_t count, ox_off offset) {
  const size_t written = faults.half_writes ? count / 2 : count;
  return faults.writes ? (errno = ERROR_CRC, -1) : __real_ox_pwrite(fd, buf, written, offset);
}
static void* WINAPI alloc_or_fail(void* at, SIZE_T size, DWORD kind, DWORD protection) {
  static const auto SYSTEM_ALLOC = system_function<decltype(VirtualAlloc)>("VirtualAlloc");
  return size == faults.allocation ? nullptr : SYSTEM_ALLOC(at, size, kind, protection);
}
/* Looked up each time: a static would be guarded by a lock, which makes an event. */
static HANDLE WINAPI event_or_fail(SECURITY_ATTRIBUTES* who, BOOL manual, BOOL set,
                                   const char* name) {
  const auto system_event = system_function<decltype(CreateEventA)>("CreateEventA");
  SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  return faults.events ? nullptr : system_event(who, manual, set, name);
}
/* The linker takes these in the place of the import library's. */
decltype(&VirtualAlloc) __imp_VirtualAlloc = alloc_or_fail;
decltype(&CreateEventA) __imp_CreateEventA = event_or_fail;
int __wrap_ox_init_tpool(void) { return faults.pool ? 12 : __real_ox_init_tpool(); }
}

/* ------------------------------------------------------------------- scripts */

namespace {

const std::string DEVICE_KEYS = "SOFTWARE\\Oxley\\Oxley Drive";

/* Under a key that does not last, no lasting one can be made. */
void make_volatile_key() {
  HKEY key = nullptr;
  RegCreateKeyA(HKEY_CURRENT_USER, DEVICE_KEYS.c_str(), &key); /* a lasting one, for other tests */
  RegCloseKey(key);
  RegCreateKeyExA(HKEY_CURRENT_USER, (DEVICE_KEYS + "\\volatile.test").c_str(), 0, nullptr,
                  REG_OPTION_VOLATILE, KEY_ALL_ACCESS, nullptr, &key, nullptr);
  RegCloseKey(key);
}

class FaultPlayer : public PeerPlayer {
 public:
  FaultPlayer() {
    commands_["fail"] = [](auto& a) { return fail(a), ""; };
    /* An object that has the name of an event, and whether it is free or signalled. */
    commands_["name_mutex"] = [this](auto& a) {
      named_ = CreateMutexA(nullptr, FALSE, event_name(text(a, 0)).c_str());
      return "";
    };
    commands_["name_event"] = [this](auto& a) {
      named_ = CreateEventA(nullptr, FALSE, FALSE, ("Global\\" + event_name(text(a, 0))).c_str());
      return "";
    };
    commands_["named"] = [this](auto&) {
      const DWORD state = WaitForSingleObject(named_, 0);
      CloseHandle(named_);
      return state == WAIT_OBJECT_0 ? "free" : "waits";
    };
    commands_["volatile_key"] = [](auto&) { return make_volatile_key(), ""; };
    commands_["remove_key"] = [](auto&) {
      return RegDeleteTreeA(HKEY_CURRENT_USER, (DEVICE_KEYS + "\\volatile.test").c_str()), "";
    };
    /* A lock on a file, as of another service. */
    commands_["hold"] = [this](auto& a) {
      held_ = CreateFileA(text(a, 0).c_str(), READ_WRITE, 7, nullptr, OPEN_EXISTING, 0, nullptr);
      return LockFile(held_, 0, 0, MAXDWORD, MAXDWORD) != 0 ? "" : "not held";
    };
    commands_["release"] = [this](auto&) { return CloseHandle(held_) != 0 ? "" : "not held"; };
    /* The pool refuses every thread but its own workers. */
    commands_["toggle_drain"] = [](auto&) {
      return tnw_tninstances.tni_next->tni_tpool->tp_flags ^= OX_TPOOL_FL_DRAIN, "";
    };
    /* handles_of COMMAND ...: whether ten of them leave handles */
    commands_["handles_of"] = [this](auto& a) {
      const size_t handle = fresh_handle();
      for (int i = 0; i < 10; i++) {
        answer_of(a[0], {{}, {}});
      }
      return fresh_handle() < handle + 10 ? "none" : "some";
    };
    commands_["without_traces"] = [this](auto&) { return without_traces_ = true, ""; };
    commands_["listed_at_table"] = [](auto&) { return std::to_string(listed_at_table); };
    /* takes SECONDS COMMAND ...: at least so long, and not 15 seconds longer */
    commands_["takes"] = [this](auto& a) {
      const ULONGLONG begin = GetTickCount64();
      const std::string answer = answer_of(a[1], {{}, {}});
      const ULONGLONG time = GetTickCount64() - begin, least = 1000 * a.number(0) - 100;
      return answer + (time < least ? ", too early" : time > least + 15000 ? ", too late" : "");
    };
  }
  ~FaultPlayer() override { faults = {}; }

 protected:
  /* Traces, the pool's lines and the dumps of what was sent have tests of their own. */
  std::string seen() override {
    static const std::regex OTHERS(
        "(DEBUG: Message|DEBUG: id |.*\\[TNWIN|(?!INFO|DEBUG|ERROR|< [A-Z])).*");
    std::string all;
    for (const std::string& line : lines_of(PeerPlayer::seen())) {
      all += without_traces_ && std::regex_match(line, OTHERS) ? "" : line + '\n';
    }
    return all;
  }

 private:
  /* Nothing more, without a word. */
  static void fail(const Arguments& a) {
    const std::map<std::string, size_t> sizes = {{"instance", sizeof(tnw_tninstance)},
                                                 {"context", sizeof(tnw_file_context)},
                                                 {"drive_handle", sizeof(tnw_drive_handle)},
                                                 {"table", 7 * sizeof(tnvfd)}};
    faults = {};
    const auto named = sizes.find(a[0]);
    faults.allocation = named != sizes.end() ? named->second : a.option("allocation", 0);
    faults.most_open_files = static_cast<int>(a.option("open_files", -1));
    faults.pool = a.has("pool");
    faults.reads = a.has("reads");
    faults.writes = a.has("writes");
    faults.half_writes = a.has("half_writes");
    faults.events = a.has("events");
  }

  HANDLE named_ = nullptr, held_ = nullptr;
  bool without_traces_ = false;
};

class Fails : public testing::TestWithParam<ScriptCase> {
 protected:
  /* The objects have no loader that would tell them. */
  static void SetUpTestSuite() {
    if (tnw_tninstances.tni_next == nullptr) {
      DllMain(nullptr, DLL_PROCESS_ATTACH, nullptr);
    }
  }
};

TEST_P(Fails, Play) { FaultPlayer().play_case(GetParam()); }

INSTANTIATE_TEST_SUITE_P(Answers, Fails, testing::ValuesIn(script_cases("answers")), case_name);
INSTANTIATE_TEST_SUITE_P(Faults, Fails, testing::ValuesIn(script_cases("faults")), case_name);
INSTANTIATE_TEST_SUITE_P(NeverReady, Fails, testing::ValuesIn(script_cases("never_ready")),
                         case_name);

}  // namespace
