/*
 * What the client does, and the whole of what it says, where the system, the service or the
 * start-up record fail it. Linked with the library's objects, some of whose functions can be made
 * to fail here.
 *
 * Without a row are system calls that do not fail on a sound machine: the start of Windows Sockets,
 * a new socket and its options, the computer's name, the end of a process.
 */
#include <gtest/gtest.h>
#include <windows.h>

#include <functional>
#include <thread>

#include "eventually.h"
#include "ox_logging.h"
#include "ox_platform.h"
#include "ox_tpool.h"
#include "ox_util.h"
#include "peer_drive.h"
#include "process_state.h"
#include "tnw_connect.h"
#include "tnw_dll/tnw_instance.h"
#include "vfstnw_bmap.h"

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
  static const auto system_alloc = reinterpret_cast<decltype(&VirtualAlloc)>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("kernel32.dll"), "VirtualAlloc")));
  return size == faults.allocation ? nullptr : system_alloc(at, size, kind, protection);
}
/* Looked up each time: a static would be guarded by a lock, which makes an event. */
static HANDLE WINAPI event_or_fail(SECURITY_ATTRIBUTES* who, BOOL manual, BOOL set,
                                   const char* name) {
  const auto system_event = reinterpret_cast<decltype(&CreateEventA)>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("kernel32.dll"), "CreateEventA")));
  SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  return faults.events ? nullptr : system_event(who, manual, set, name);
}
/* The linker takes these in the place of the import library's. */
decltype(&VirtualAlloc) __imp_VirtualAlloc = alloc_or_fail;
decltype(&CreateEventA) __imp_CreateEventA = event_or_fail;
int __wrap_ox_init_tpool(void) { return faults.pool ? 12 : __real_ox_init_tpool(); }
}

/* ------------------------------------------------------------------- starts */

namespace {

/* What a start says that goes well. */
const char* const GOOD[] = {
    "INFO: Client log initialized at FOLDER\\log/tnvfs.log",
    "INFO: real DA PID: N, file DA PID: N",
    "INFO: Start tarnd with cmd: PROGRAM --cfs https://drive.test --user ada --cache "
    "\"FOLDER\\drive.test\\ada\" --addr file:///nowhere --confaddr none --tn-devid "
    "33333333-3333-3333-3333-333333333333 --da-devid 11111111-1111-1111-1111-111111111111 "
    "--access-token token --logfile \"FOLDER\\log/tarnd.ada@drive.test.log\" --vfs ",
    "INFO: Waiting on event name: folder/drive.test/ada/tnvfs.sock",
    "INFO: Waited for N seconds",
    "INFO: Successully waited for tarnd pid N for user ada@drive.test",
    "INFO: Thread pool [TNWIN_VFSC_ada@] created.",
    "INFO: Attempt to connect to socket FOLDER\\drive.test\\ada\\tnvfs.sock"};
const std::string EXHAUSTED =
    "ERROR: 3 tarnd init attempts exhausted. Requesting for classic DA fallback";

std::string good(size_t count) {
  std::string lines;
  for (size_t i = 0; i < count; i++) {
    lines += GOOD[i] + std::string("\n");
  }
  return lines;
}

struct FailedStart {
  const char* name;
  std::function<void(PeerDrive&)> cause;
  size_t good; /* so many lines come first */
  std::string lines;
};

std::string below_a_file(const PeerDrive& d) {
  write_file(d.folder / "file", "");
  return d.folder / "file\\below";
}
void make_cache_dir(const PeerDrive& d, const std::string& below = "") {
  std::filesystem::create_directories(cache_dir(d.record) + below);
}
void serve(PeerDrive& d, const ScriptedPeer::Script& script) {
  make_cache_dir(d);
  d.peer = std::make_unique<ScriptedPeer>(script, socket_path(d.record));
}

const std::string UNDONE = "\nDEBUG: Aborting thread pool TNWIN_VFSC_ada@";

HANDLE taken = nullptr; /* by one of the causes, and free or signalled */
const std::string DEVICE_KEYS = "SOFTWARE\\Oxley\\Oxley Drive";
const std::string NO_ROOM =
    "ERROR 38: Socket path does not fit in char[108]. Partial path FOLDER\\d\\g\\10000.soc\n";

/* Under a key that does not last, no lasting one can be made. */
void make_volatile_key(PeerDrive& d) {
  HKEY key = nullptr;
  RegCreateKeyA(HKEY_CURRENT_USER, DEVICE_KEYS.c_str(), &key); /* a lasting one, for other tests */
  RegCloseKey(key);
  RegCreateKeyExA(HKEY_CURRENT_USER, (DEVICE_KEYS + "\\volatile.test").c_str(), 0, nullptr,
                  REG_OPTION_VOLATILE, KEY_ALL_ACCESS, nullptr, &key, nullptr);
  RegCloseKey(key);
  set_field(d.record.tnw_domain, "volatile.test");
  set_field(d.record.tnw_tn_device_id, "");
}

const FailedStart FAILED_STARTS[] = {
    {"no log folder", [](PeerDrive& d) { set_field(d.record.tnw_logdir, below_a_file(d)); }, 0,
     "ERROR 3: Failed to create dir FOLDER\\file\\below"},
    {"no pools", [](PeerDrive&) { faults.pool = true; }, 1,
     "ERROR 12: Cannot initialize thread pool"},
    {"no cache folder",
     [](PeerDrive& d) {
       set_field(d.record.tnw_uds_workdir, d.folder.path().string());
       set_field(d.record.tnw_workdir, below_a_file(d));
     },
     1, "ERROR 3: Failed to create dir FOLDER\\file\\below\\drive.test\\ada"},
    {"no own pid file", [](PeerDrive& d) { make_cache_dir(d, "\\da_pid"); }, 1,
     "ERROR 5: cannot open FOLDER\\drive.test\\ada/da_pid"},
    {"unreadable pid file", [](PeerDrive&) { faults.reads = true; }, 1,
     "ERROR 23: cannot read da_pid"},
    {"unwritable pid file", [](PeerDrive&) { faults.writes = true; }, 2,
     "ERROR 23: cannot write DA PID to da_pid"},
    {"a pid file written by half", [](PeerDrive&) { faults.half_writes = true; }, 2,
     "ERROR 29: cannot write DA PID to da_pid"},
    {"no service's pid file", [](PeerDrive& d) { make_cache_dir(d, "\\tarnd_pid"); }, 2,
     "ERROR 5: cannot open FOLDER\\drive.test\\ada/tarnd_pid"},
    {"no instance", [](PeerDrive&) { faults.allocation = sizeof(tnw_tninstance); }, 1,
     "ERROR 12: Failed to allocate memory for tnw_tninstance_t"},
    {"no program", [](PeerDrive& d) { set_field(d.record.tnw_binpath, "missing.exe"); }, 3,
     "ERROR 2: Failed to start Tarn\nERROR 2: Failed to start tarnd"},
    {"a domain without a dot", [](PeerDrive& d) { set_field(d.record.tnw_domain, "nodot"); }, 1,
     "ERROR 22: Failed to parse subdomain from domain nodot\nERROR 161: Failed to create dir "},
    {"a socket path of 108",
     [](PeerDrive& d) {
       std::string dir = d.folder / "";
       dir.append(95 - dir.size(), 'd');
       set_field(d.record.tnw_uds_workdir, dir);
       set_field(d.record.tnw_workgroup_id, "g");
       set_field(d.record.tnw_binpath, "missing.exe");
       d.record.tnw_user_id = 10000; /* 95 + "\g" + "\10000.sock" is 108 */
     },
     1,
     NO_ROOM + GOOD[1] + "\n" + NO_ROOM + std::string(GOOD[2]) +
         "--sockdir \"FOLDER\\d\" --wgid \"g\" --uid 10000 \n"
         "ERROR 2: Failed to start Tarn\nERROR 2: Failed to start tarnd"},
    {"a command that does not fit",
     [](PeerDrive& d) { set_field(d.record.tnw_binpath, std::string(4000, 'b')); }, 2,
     "ERROR 122: Failed to construct cmd because N chars does not fit in 4096 buffer\n"
     "ERROR 122: Failed to start tarnd"},
    {"a taken event name",
     [](PeerDrive& d) {
       taken = CreateMutexA(nullptr, FALSE, event_name(socket_path(d.record)).c_str());
     },
     3,
     "ERROR 6: Failed to create named event folder/drive.test/ada/tnvfs.sock\n"
     "ERROR 6: Failed to start tarnd"},
    {"a wish for the fallback",
     [](PeerDrive& d) {
       make_cache_dir(d);
       write_file(cache_dir(d.record) + "/tarnd_pid", "1");
       d.record.tnw_flags = 0; /* no retry all the same */
       const std::string name =
           "Global\\" + event_name(cache_dir(d.record) + "/tfi.force_fallback");
       taken = CreateEventA(nullptr, FALSE, FALSE, name.c_str());
     },
     2,
     "INFO: TFI: force fallback. Notifying event name "
     "Global\\folder/drive.test/ada/tfi.force_fallback"},
    {"no lasting device id", make_volatile_key, 1,
     "ERROR 1021: Failed to call RegCreateKeyExA with err 1021\n"
     "ERROR 1021: Failed to set-get TN device id from registry"},
    {"no threads", [](PeerDrive& d) { d.record.tnw_max_threads = 0; }, 6,
     "ERROR 22: Cannot create thread pool"},
    {"fewer threads than none", [](PeerDrive& d) { d.record.tnw_max_threads = -1; }, 6,
     "ERROR 22: Cannot create thread pool"},
    {"no message", [](PeerDrive&) { faults.allocation = TNV_MSG_FIXED + 2; }, 7,
     "ERROR 12 : Failed to allocate memory to message structure.\n"
     "ERROR 12 : Cannot setup VFS handles" +
         UNDONE},
    {"a refused connection",
     [](PeerDrive& d) { serve(d, [](PeerConnection& conn) { conn.answer(13); }); }, 8,
     "ERROR 13 ada: Could not Connect to Tarn.\nERROR 13 ada: Cannot setup VFS handles" + UNDONE},
    {"no version",
     [](PeerDrive& d) {
       serve(d, [](PeerConnection& conn) {
         conn.answer(conn.opcode() == TNV_OP_GET_VERSION ? 5 : 0);
       });
     },
     8, "ERROR 5 ada: get_version failed\nERROR 5 ada: Failed to call get_version" + UNDONE},
    {"no open files", [](PeerDrive&) { faults.most_open_files = 0; }, 8,
     "ERROR 24 ada: Failed to get limit for max open files.\n"
     "ERROR 24 ada: Failed to allocate fd table." +
         UNDONE},
    {"no table",
     [](PeerDrive&) {
       faults.most_open_files = 7;
       faults.allocation = 7 * sizeof(tnvfd);
     },
     8,
     "ERROR 12 ada: Not enough memory for fd table.\nERROR 12 ada: Failed to allocate fd table." +
         UNDONE},
    {"no handle", [](PeerDrive&) { faults.allocation = sizeof(tnw_drive_handle); }, 8,
     "ERROR 12 ada: Cannot allocate memory for vfs handles" + UNDONE},
};

class Fails : public testing::Test {
 protected:
  /* The objects have no loader that would tell them. */
  static void SetUpTestSuite() {
    if (tnw_tninstances.tni_next == nullptr) {
      DllMain(nullptr, DLL_PROCESS_ATTACH, nullptr);
    }
  }
  ~Fails() override {
    faults = {};
    ox_debug = 1;
  }
};

}  // namespace

TEST_F(Fails, AFailedStartSaysWhyAndLeavesNothingInTheWay) {
  for (const FailedStart& start : FAILED_STARTS) {
    SCOPED_TRACE(start.name);
    PeerDrive drive;
    start.cause(drive);
    const LogCapture log;
    EXPECT_EQ(drive.start(), nullptr);
    EXPECT_EQ(drive.error, ERROR_GEN_FAILURE);
    EXPECT_EQ(drive.said(log), good(start.good) + start.lines + "\n" + EXHAUSTED);
    if (taken != nullptr) {
      EXPECT_EQ(WaitForSingleObject(taken, 0), WAIT_OBJECT_0);
      CloseHandle(std::exchange(taken, nullptr));
    }
    faults = {};
    if (start.good >= 7) {
      drive.peer->on_request(ScriptedPeer::answer_success);
      EXPECT_NE(drive.start(), nullptr);
    }
  }
  RegDeleteTreeA(HKEY_CURRENT_USER, (DEVICE_KEYS + "\\volatile.test").c_str());
}

TEST_F(Fails, AFailedStartIsTriedTwiceWithTwoPauses) {
  PeerDrive drive;
  drive.record.tnw_flags = 0;
  set_field(drive.record.tnw_binpath, drive.folder / "missing.exe");
  const ULONGLONG begin = GetTickCount64();
  const LogCapture log;
  EXPECT_EQ(drive.start(), nullptr);
  EXPECT_GE(GetTickCount64() - begin, 9900u);
  const std::string attempt = std::string(GOOD[1]) + "\n" + GOOD[2] +
                              "\nERROR 2: Failed to start Tarn\nERROR 2: Failed to start tarnd\n";
  EXPECT_EQ(drive.said(log),
            good(1) + attempt + "WARNING: tarnd init 1 of 3 failed. Retrying after 5 seconds.\n" +
                attempt + "WARNING: tarnd init 2 of 3 failed. Retrying after 5 seconds.\n" +
                EXHAUSTED);
}

TEST_F(Fails, AnAttemptThatHadToWaitForAnOldServiceFails) {
  PeerDrive drive;
  make_cache_dir(drive);
  const std::string pid_file = cache_dir(drive.record) + "/tarnd_pid";
  write_file(pid_file, "1");
  HANDLE held = CreateFileA(pid_file.c_str(), GENERIC_READ | GENERIC_WRITE, 7, nullptr,
                            OPEN_EXISTING, 0, nullptr);
  ASSERT_TRUE(LockFile(held, 0, 0, MAXDWORD, MAXDWORD));
  const LogCapture log;
  std::thread old_service([&] {
    EXPECT_TRUE(eventually([&] { return log.count("tarnd is still running") != 0; }));
    CloseHandle(held);
  });
  EXPECT_EQ(drive.start(), nullptr);
  old_service.join();
  EXPECT_EQ(
      drive.said(log),
      good(2) +
          "ERROR 33: ox_flock: Failed to LockFile on fd N fh ADDRESS flags 0x3 low_bytes_locked "
          "4294967295 high_bytes_locked 4294967295\n"
          "ERROR 33: tarnd is still running at FOLDER\\drive.test\\ada. Sleeping for 5 secs.\n" +
          EXHAUSTED);
  EXPECT_NE(drive.start(), nullptr) << "the lock is gone: the next call starts";
}

TEST_F(Fails, ASocketFolderThatFitsNowhereIsToldInALineThatIsCutItself) {
  PeerDrive drive;
  const std::string dir = drive.folder / std::string(4500, 'w');
  set_field(drive.record.tnw_workdir, dir);
  const LogCapture log;
  EXPECT_EQ(tnw_init(&drive.record, nullptr), nullptr);
  EXPECT_EQ(log.count("Socket dir does not fit in char[4096]. Partial path " + dir.substr(0, 3000)),
            1u);
}

/* ------------------------------------------------------------------- a service that is never ready
 */

namespace {

void expect_never_ready(int flags, ULONGLONG seconds, const std::string& lines) {
  PeerDrive drive;
  drive.record.tnw_flags = flags;
  SetEnvironmentVariableA("STAND_IN_READY", nullptr);
  const ULONGLONG begin = GetTickCount64();
  const LogCapture log;
  EXPECT_EQ(tnw_init(&drive.record, nullptr), nullptr);
  EXPECT_GE(GetTickCount64() - begin, seconds * 1000 - 100);
  EXPECT_LT(GetTickCount64() - begin, seconds * 1000 + 15000);
  EXPECT_EQ(drive.said(log), GOOD[0] + ("\n" + lines) + EXHAUSTED);
}

const std::string NOT_READY = good(5).substr(good(1).size()) +
                              "ERROR 258: Failed to wait for tarnd ready state\n"
                              "ERROR 258: Failed to start tarnd\n";

}  // namespace

class NeverReady : public Fails {};

TEST_F(NeverReady, Once) { expect_never_ready(TNW_INIT_NO_RETRY, 60, NOT_READY); }

TEST_F(NeverReady, Twice) {
  expect_never_ready(0, 130,
                     NOT_READY + "WARNING: tarnd init 1 of 3 failed. Retrying after 5 seconds.\n" +
                         NOT_READY +
                         "WARNING: tarnd init 2 of 3 failed. Retrying after 5 seconds.\n");
}

/* ------------------------------------------------------------------- calls without memory */

TEST_F(Fails, CallsWithoutMemorySayWhatForAndGoOn) {
  PeerDrive drive;
  faults.most_open_files = 1;
  void* const d = drive.start();
  ASSERT_NE(d, nullptr);
  drive.answer_opens(open_answer());
  tnw_fileinfo entry;
  bool flag = false;
  int err = -1;
  char token[] = "t";
  tnw_tninit other = drive.record;
  set_field(other.tnw_da_drive_id, "44444444-4444-4444-4444-444444444444");
  const std::string no_message = "ERROR 12 ada: Failed to allocate memory to message structure.";
  const struct {
    size_t allocation;
    std::function<int()> call;
    int code;
    std::string lines;
  } rows[] = {
      {TNV_MSG_FIXED + 2, [&] { return drive.open("p", 3, &err), err; }, 8, no_message},
      {TNV_MSG_FIXED + 2, [&] { return tnw_getfileinfo(d, "p", &entry, nullptr); }, 8, no_message},
      {TNV_MSG_FIXED + 4, [&] { return tnw_rename(d, "p", "q", nullptr); }, 8, no_message},
      {TNV_MSG_FIXED + 2, [&] { return tnw_delete(d, "p", nullptr); }, 8, no_message},
      {TNV_MSG_FIXED + 2, [&] { return tnw_canfilebedeleted(d, "p", &flag); }, 8, no_message},
      {TNV_MSG_FIXED + 2, [&] { return tnw_updatetoken(d, token); }, 8,
       "INFO ada: Updating auth token\n" + no_message},
      {TNV_MSG_FIXED + 4, [&] { return tnw_set_http_proxy(d, "p", "", ""); }, 8,
       "INFO ada: Setting http proxy\n" + no_message},
      {TNV_MSG_FIXED + 2, [&] { return tnw_findfirst(d, "p", &entry, nullptr, &err), err; }, 8,
       "ERROR 12 ada: Failed to allocate memory to directory enumeration message structure for "
       "path p"},
      {sizeof(tnw_file_context), [&] { return drive.open("p", 3, &err), err; }, 8, no_message},
      {sizeof(tnw_drive_handle), [&] { return tnw_init(&other, &err), err; }, 31,
       GOOD[0] + std::string("\nERROR 12 ada: Cannot allocate memory for tnw_drive_handle\n") +
           EXHAUSTED},
      {0, [&] { return drive.open("p", 3, &err), err; }, 0, ""},
      {0, [&] { return drive.open("p", 3, &err), err; }, 24,
       "ERROR 24 ada: Too many open files\nINFO: Unidentified unix error 24"},
  };
  for (const auto& row : rows) {
    faults.allocation = row.allocation;
    const LogCapture log;
    EXPECT_EQ(row.call(), row.code) << &row - rows;
    EXPECT_EQ(drive.said(log), row.lines) << &row - rows;
  }
}

/* A call that could not begin is not waited for, and leaves no event. */
TEST_F(Fails, CallsThatCannotBeQueuedSayWhy) {
  PeerDrive drive;
  void* const d = drive.start();
  ASSERT_NE(d, nullptr);
  const auto remove = [&] { return tnw_delete(d, "p", nullptr); };
  faults.events = true;
  EXPECT_EQ(remove(), ERROR_NOT_ENOUGH_MEMORY);
  faults.events = false;
  auto& flags = tnw_tninstances.tni_next->tni_tpool->tp_flags;
  flags |= OX_TPOOL_FL_DRAIN; /* refuses every thread but its own workers */
  EXPECT_EQ(remove(), ERROR_INVALID_DATA);
  const size_t handle = fresh_handle();
  for (int i = 0; i < 10; i++) {
    remove();
  }
  EXPECT_EQ(fresh_handle(), handle);
  flags &= ~ox_u32{OX_TPOOL_FL_DRAIN};
  EXPECT_EQ(drive.peer->count(TNV_OP_WIN_DELETE), 0u);
  EXPECT_EQ(remove(), 0);
}

/* ------------------------------------------------------------------- answers that are none */

namespace {

/* What the peer answers with, and what becomes of the call: an open, or a listing where the answer
 * is one of DENUM. */
struct Answer {
  const char* name;
  ox_u32 err;
  Bytes payload;
  size_t follows; /* bytes that the peer sends behind it; then it closes, if it does not stand */
  size_t allocation;
  int code;
  bool stands; /* the connection goes on */
  std::string lines;
};

void PrintTo(const Answer& answer, std::ostream* out) { *out << answer.name; }

Bytes opened(ox_u64 map_size, int shift = 16, ox_u32 isdir = 0) {
  tnv_wopen_resp open = open_answer();
  open.wopen_resp_region_shift = shift;
  open.wopen_resp_rmap_size = map_size;
  open.wopen_resp_dmap_size = 3; /* noted, and not used */
  open.wopen_resp_fso.fso_isdir = isdir;
  return bytes_of(open);
}
Bytes listed(ox_u64 count) {
  tnv_wdenum_resp denum = {};
  denum.wde_fi_len = count;
  return bytes_of(denum);
}

Bytes promised(ox_u32 size) {
  tnv_resphdr header = {};
  header.rhdr_len = size;
  header.rhdr_tn_unauthd = 1; /* half an answer marks nothing */
  return bytes_of(header);
}

constexpr ox_u32 RAW = 999; /* instead of an error: the payload is all that is sent */
constexpr size_t THREE = 3 * sizeof(tnw_fileinfo);
const std::string EIGHT = "\nINFO: Unidentified unix error 8";
const std::string OPEN_FAILED = "ada: Server returned error for open msg.";
const std::string LIST_FAILED = "ada: Failed to send directory enumeration message for path p.";
const std::string NO_ROOM_FOR_MAPS = "ERROR 12 ada: Failed to allocate memory to rmap/dmap.\n";
const std::string NO_MAPS = NO_ROOM_FOR_MAPS + "ERROR 8 " + OPEN_FAILED + EIGHT;
const std::string NO_LIST =
    "ERROR 12 ada: Failed to allocate memory to cffl.\nERROR 8 " + LIST_FAILED + EIGHT;
const std::string GONE =
    "ERROR 10054: Socket recv connection hungup\n"
    "ERROR 10054: Recv failed on sockfd N\n\n";
const std::string NO_HEADER =
    "ada: Could not receive response header for message id ID, opcode N, len N. Requesting client "
    "to reinitialize.\n";
const std::string NO_PAYLOAD =
    "ada: Could not receive response payload. Requesting client to reinitialize.\n";
const std::string NO_OPEN = "ERROR 133 ada: Failed to send open message.\nERROR 133 " + OPEN_FAILED;

const Answer ANSWERS[] = {
    {"maps", 183, opened(8), 16, 0, 0, true, ""},
    {"refused open", 2, opened(8), 0, 0, 2, true, "ERROR 2 " + OPEN_FAILED},
    {"refused listing", 2, listed(5), 0, 0, 2, true, "ERROR 2 " + LIST_FAILED},
    {"no use for a shift", 0, opened(0, 63), 0, 0, 0, true, ""},
    {"half a map", 0, opened(8), 15, 0, 1467, false, GONE + "ERROR 133 " + OPEN_FAILED},
    {"no such size", 0, opened(VFSTNW_MAX_MAP_SIZE + 1), 15, 0, 8, false, NO_MAPS},
    {"a size that wraps", 0, opened(ox_u64{1} << 63), 15, 0, 8, false, NO_MAPS},
    {"shift 63", 0, opened(8, 63), 15, 0, 1467, false,
     "ERROR 22 ada: Unusable region shift 63.\nERROR 133 " + OPEN_FAILED},
    {"folder", 0, opened(8, -1, 1), 15, 0, 1467, false,
     "ERROR 22 ada: Unusable region shift -1.\nERROR 133 " + OPEN_FAILED},
    {"no memory", 0, opened(20000), 40000, 40000, 8, true, NO_MAPS},
    {"no memory for half", 0, opened(20000), 39999, 40000, 1467, false,
     NO_ROOM_FOR_MAPS + GONE + "ERROR 133 " + OPEN_FAILED},
    {"half a listing", 0, listed(3), THREE - 1, 0, 1467, false, GONE + "ERROR 133 " + LIST_FAILED},
    {"no such count", 0, listed(TNW_MAX_LISTING + 1), THREE, 0, 8, false, NO_LIST},
    {"a count that wraps", 0, listed((ox_u64{1} << 61) + 3), THREE, 0, 8, false, NO_LIST},
    {"no memory to list", 0, listed(3), THREE, THREE, 8, true, NO_LIST},
    {"nothing", RAW, {}, 0, 0, 1467, false, GONE + "ERROR 10054 " + NO_HEADER + NO_OPEN},
    {"half a header", RAW, Bytes(24, 0xff), 0, 0, 1467, false,
     GONE + "ERROR 10054 " + NO_HEADER + NO_OPEN},
    {"half a payload", RAW, promised(100), 99, 0, 1467, false,
     GONE + "ERROR 10054 " + NO_PAYLOAD + NO_OPEN},
    {"too long", 0, Bytes(1169), 0, 0, 1467, false, "ERROR 27 " + NO_PAYLOAD + NO_OPEN},
    {"garbage", RAW, Bytes(4000, 0xff), 0, 0, 1467, false, "ERROR 27 " + NO_PAYLOAD + NO_OPEN},
};

class Answers : public Fails {
 protected:
  void SetUp() override { ASSERT_NE(drive_.start(), nullptr); }

  /* An open, or a listing. */
  void* call(bool opens, int* code) {
    return opens ? drive_.open("p", 3, code)
                 : tnw_findfirst(drive_.drive, "p", &entry_, nullptr, code);
  }
  /* The connection is closed, and the next call asks nobody. */
  void expect_broken() {
    EXPECT_TRUE(drive_.peer->wait_for_ended(1));
    const size_t sent = drive_.peer->requests().size();
    const LogCapture log;
    EXPECT_EQ(drive_.open("p", 3, &drive_.error), nullptr);
    EXPECT_EQ(log.count("\"vfs_socket_fd\":-"), 0u) << "lines keep the socket's number";
    EXPECT_EQ(drive_.error, TNW_ERROR_NO_SERVICE);
    EXPECT_EQ(drive_.peer->requests().size(), sent);
  }
  /* Nobody has the file open any more. */
  bool is_free(const std::string& path) {
    const HANDLE alone =
        CreateFileA(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    return alone != INVALID_HANDLE_VALUE && CloseHandle(alone) != 0;
  }

  PeerDrive drive_;
  tnw_fileinfo entry_ = {};
};

class EachAnswer : public Answers, public testing::WithParamInterface<Answer> {};

}  // namespace

TEST_P(EachAnswer, IsTakenOrRefusedWhole) {
  const Answer& a = GetParam();
  const bool opens = a.payload.size() != sizeof(tnv_wdenum_resp);
  const bool carries = a.payload.size() == sizeof(tnv_wopen_resp);
  Bytes payload = a.payload;
  const ox_u64 local = local_file(drive_.folder / "local", "x");
  memcpy(payload.data() + offsetof(tnv_wopen_resp, wopen_resp_handle), &local, carries ? 8 : 0);
  drive_.peer->on_request([&](PeerConnection& conn) {
    if (conn.opcode() != (opens ? TNV_OP_WIN_OPEN : TNV_OP_WIN_DENUM)) {
      return conn.answer();
    }
    a.err == RAW ? conn.send(payload) : conn.answer(a.err, payload);
    conn.send(Bytes(a.follows, 0xff));
    if (!a.stands) {
      conn.close();
    }
  });
  faults.allocation = a.allocation;
  const LogCapture log;
  int code = -1;
  const auto* const fde = static_cast<const tnvfd*>(call(opens, &code));
  EXPECT_EQ(code, a.code);
  EXPECT_EQ(drive_.said(log), a.lines);
  ASSERT_EQ(fde != nullptr, a.code == 0);
  const bool closed = carries && a.err == 0 && a.code != 0 && a.name != std::string("folder");
  EXPECT_EQ(is_free(drive_.folder / "local"), closed);
  if (fde != nullptr) {
    const bool mapped = a.follows != 0;
    EXPECT_EQ(fde->fdt_rmap != nullptr, mapped);
    EXPECT_EQ(fde->fdt_dmap, mapped ? fde->fdt_rmap + 8 : nullptr);
    EXPECT_EQ(fde->fdt_dmap_size, 3u);
    EXPECT_EQ(fde->fdt_rshift, mapped ? 16 : 0);
  }
  const size_t closes = a.allocation != 0 && a.stands ? 1 : 0;
  EXPECT_EQ(drive_.peer->count(TNV_OP_WIN_CLOSE), closes) << "what was granted is taken back";
  if (!a.stands) {
    return expect_broken();
  }
  faults = {};
  EXPECT_EQ(tnw_getfileinfo(drive_.drive, "p", &entry_, nullptr), 0) << "the next answer is found";
  EXPECT_EQ(drive_.peer->count(TNV_OP_WIN_STAT), 1u);
}

INSTANTIATE_TEST_SUITE_P(All, EachAnswer, testing::ValuesIn(ANSWERS),
                         [](const auto& info) { return std::to_string(info.index); });

/* ------------------------------------------------------------------- a drive's life */

TEST_F(Fails, NothingInADrivesLifeUntilItsEnd) {
  PeerDrive drive;
  const LogCapture log;
  ox_debug = 5;
  void* const first = drive.start();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(listed_at_table, 0) << "other threads' lookups read the tables of listed instances";
  EXPECT_EQ(tnw_init(&drive.record, nullptr), first);
  tnw_tninit other = drive.record;
  set_field(other.tnw_da_drive_id, "44444444-4444-4444-4444-444444444444");
  void* const second = tnw_init(&other, nullptr);
  tnv_wopen_resp opened = open_answer();
  opened.wopen_resp_rmap_size = 1;
  opened.wopen_resp_handle = local_file(drive.folder / "local", "local");
  drive.answer_opens(opened, {1, 0});
  void* const file = drive.open("/a");
  char byte = 0;
  EXPECT_EQ(tnw_read(file, &byte, 1, 0, nullptr, nullptr), 0);
  EXPECT_EQ(tnw_close(file, nullptr), 0);
  tnw_fileinfo entry;
  EXPECT_EQ(tnw_getfileinfo(first, "/a", &entry, nullptr), 0);
  EXPECT_EQ(tnw_deinit(second, false), 0);
  drive.peer->on_request([](PeerConnection& conn) { conn.answer(5); });
  EXPECT_EQ(tnw_deinit(first, false), 5);
  drive.drive = nullptr;
  ox_debug = 1;
  /* Without the traces, the pool's lines and the dumps of what was sent, which have tests of their
   * own. */
  std::string said;
  for (const std::string& line : lines_of(drive.said(log))) {
    const bool is_line =
        line.starts_with("INFO") || line.starts_with("DEBUG") || line.starts_with("ERROR");
    if (is_line && line.find("DEBUG: Message") != 0 && line.find("DEBUG: id ") != 0 &&
        line.find("[TNWIN") == std::string::npos) {
      said += line + "\n";
    }
  }
  EXPECT_EQ(said,
            good(6) + "DEBUG : Processing connect request for user ada.\n" + GOOD[7] +
                "\n"
                "DEBUG ada: Socket Connected...\n"
                "DEBUG ada: Connected to tarn server\n"
                "DEBUG ada: File descriptor table 512:512 files allocated\n" +
                good(1) +
                "INFO ada: Return existing handle for ada@drive.test, drive handle count 1, drive "
                "uuid 22222222-2222-2222-2222-222222222222\n" +
                good(1) +
                "INFO ada: Created new handle for ada@drive.test, drive handle count 2, drive uuid "
                "44444444-4444-4444-4444-444444444444\n"
                "DEBUG ada: Allocated fd 0, state 1, free count 512, cffl ADDRESS\n"
                "DEBUG: Checking bits for off:0, len:1 in ADDRESS\n"
                "DEBUG: sbit 0x0, ebit 0x0, sbyte 0x0, ebyte 0x0, ssbit 0x0, eebit 0x0, sval 0x1, "
                "eval 0x0, bitmap[sbyte] = 0x1, bitmap[ebyte] = 0x1\n"
                "DEBUG: bits are set for off:0, len:1 in ADDRESS\n"
                "DEBUG ada: putting fd 0, state 0, free count 513\n"
                "DEBUG ada: Get file info for /a\n"
                "INFO ada: tarnd for ada@drive.test, stopped for drive id "
                "44444444-4444-4444-4444-444444444444, current drive handle count 2\n"
                "INFO ada: After deinit, drive handle count 1 for user ada@drive.test\n"
                "INFO ada: tarnd for ada@drive.test, stopped for drive id "
                "22222222-2222-2222-2222-222222222222, current drive handle count 1\n"
                "INFO ada: Stopping tarnd for user ada@drive.test\n"
                "ERROR 5 ada: shutdown failed\n"
                "ERROR 5 ada: tarnd shutdown failed for ada@drive.test\n"
                "DEBUG: Destroying thread pool TNWIN_VFSC_ada@\n");
}
