/*
 * The lines that support people search for, each brought about by what really causes it: its level,
 * its error number, its whole text. Protocol traces are in golden_test, the refusals of single
 * calls in calls_test.
 *
 * Linked with the library's objects: some of their functions can be made to fail here. Without a
 * row are the lines of system calls that do not fail on a sound machine: Windows Sockets' start, a
 * new socket and its options, the computer's name, the registry's write after it made the key, the
 * end of a process.
 */
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <algorithm>
#include <functional>
#include <regex>

#include "log_capture.h"
#include "ox_logging.h"
#include "ox_platform.h"
#include "ox_tpool.h"
#include "ox_util.h"
#include "peer_drive.h"
#include "tnw_dll/tnw_instance.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID reserved);

/* ------------------------------------------------------------------- what can be made to fail */

static size_t failing_size;      /* allocations of this size; 0: none */
static int most_open_files = -1; /* instead of the runtime's; -1: the runtime's */
static bool pool_fails = false;
static bool reads_fail = false; /* as on a broken disk */
static bool writes_fail = false;
static bool writes_half = false;
static int listed_at_table = -1; /* instances on the list when a table is made */

extern "C" {
void* __real_ox_zalloc(size_t size);
int __real_ox_get_max_openfiles(void);
int __real_ox_init_tpool(void);
ox_s64 __real_ox_pread(int fd, void* buf, size_t count, ox_off offset);
ox_s64 __real_ox_pwrite(int fd, const void* buf, size_t count, ox_off offset);

void* __wrap_ox_zalloc(size_t size) {
  if (size != failing_size) {
    return __real_ox_zalloc(size);
  }
  errno = 12;
  return nullptr;
}
int __wrap_ox_get_max_openfiles(void) {
  listed_at_table = tnw_tninstances.tni_cnt;
  if (most_open_files < 0) {
    return __real_ox_get_max_openfiles();
  }
  errno = 24;
  return most_open_files;
}
ox_s64 __wrap_ox_pread(int fd, void* buf, size_t count, ox_off offset) {
  if (!reads_fail) {
    return __real_ox_pread(fd, buf, count, offset);
  }
  errno = ERROR_CRC;
  return -1;
}
ox_s64 __wrap_ox_pwrite(int fd, const void* buf, size_t count, ox_off offset) {
  if (!writes_fail) {
    return __real_ox_pwrite(fd, buf, writes_half ? count / 2 : count, offset);
  }
  errno = ERROR_CRC;
  return -1;
}
int __wrap_ox_init_tpool(void) { return pool_fails ? 12 : __real_ox_init_tpool(); }

static void* WINAPI alloc_or_fail(void* at, SIZE_T size, DWORD kind, DWORD protection) {
  static const auto system_alloc = reinterpret_cast<decltype(&VirtualAlloc)>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("kernel32.dll"), "VirtualAlloc")));
  return size == failing_size ? nullptr : system_alloc(at, size, kind, protection);
}
/* The linker takes this in the place of the import library's. */
decltype(&VirtualAlloc) __imp_VirtualAlloc = alloc_or_fail;
}

namespace {

/* ------------------------------------------------------------------- what is expected */

/* A line: an `err` of 0 shows none. `text` is a pattern for the whole message. */
struct Line {
  const char* level;
  int err;
  std::string text;
};

std::string literal_of(const std::string& text) {
  return std::regex_replace(text, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)");
}

std::string layer_level(const Line& line) {
  char text[16];
  snprintf(text, sizeof text, "ERR:%03d", line.err);
  return std::string(line.level) == "ERROR" ? text : std::string(line.level, 4) + "\\S*";
}

/* Either form: the client's own, or the portability layer's with the first letters of the level. */
std::regex pattern_of(const Line& line) {
  const std::string level = line.level;
  const std::string err = line.err != 0 ? "\"errno\":" + std::to_string(line.err) + ", " : "";
  const std::string client = R"(\{"asctime":"[^"]+", "level":")" + level +
                             R"(", "filename":"[a-z_]+\.cpp", "line":\d+, )" + err +
                             R"re(("vfs_server_handle".*)?"message":")re" + line.text + R"("\})";
  const std::string layer = R"(\[.{24,28}\] )" + layer_level(line) + R"( +\S+:\d+ )" + line.text;
  return std::regex("(" + client + ")|(" + layer + ")");
}

void expect_lines(const LogCapture& log, const std::vector<Line>& expected) {
  const std::vector<std::string> lines = log.lines();
  for (const Line& line : expected) {
    const std::regex pattern = pattern_of(line);
    const bool found = std::any_of(lines.begin(), lines.end(), [&](const std::string& said) {
      return std::regex_match(said, pattern);
    });
    EXPECT_TRUE(found) << line.level << " " << line.err << ": " << line.text << "\nof\n"
                       << testing::PrintToString(lines);
  }
}

std::string event_name(const PeerDrive& drive) {
  std::string name = socket_path(drive.record);
  ox_event_name_fold(name.data());
  return name;
}

const char OTHER_DRIVE[] = "44444444-4444-4444-4444-444444444444";

class LogLines : public testing::Test {
 protected:
  /* The objects have no loader that would tell them. */
  static void SetUpTestSuite() {
    if (tnw_tninstances.tni_next == nullptr) {
      DllMain(nullptr, DLL_PROCESS_ATTACH, nullptr);
    }
  }
  ~LogLines() override {
    ox_debug = 1;
    failing_size = 0;
    most_open_files = -1;
    pool_fails = reads_fail = writes_fail = writes_half = false;
  }

  PeerDrive drive;
  LogCapture log;
};

}  // namespace

/* ------------------------------------------------------------------- a drive's life */

TEST_F(LogLines, OfADrivesLife) {
  ox_debug = 5;
  void* first = drive.start();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(listed_at_table, 0) << "other threads' lookups read the tables of listed instances";
  EXPECT_EQ(tnw_init(&drive.record, nullptr), first);
  tnw_tninit other = drive.record;
  set_field(other.tnw_da_drive_id, OTHER_DRIVE);
  void* second = tnw_init(&other, nullptr);
  drive.answer_opens(open_answer());
  EXPECT_EQ(tnw_close(drive.open("/a"), nullptr), 0);
  EXPECT_EQ(tnw_deinit(second, false), 0);
  EXPECT_EQ(tnw_deinit(first, false), 0);
  drive.drive = nullptr;
  ox_debug = 1;
  const std::string socket = literal_of(socket_path(drive.record));
  const std::string event = literal_of(event_name(drive));
  const std::string files = std::to_string(ox_get_max_openfiles());
  expect_lines(
      log, {{"INFO", 0,
             "Client log initialized at " + literal_of(drive.record.tnw_logdir) + "/tnvfs.log"},
            {"INFO", 0, "Waiting on event name: " + event},
            {"INFO", 0, R"(Waited for \d+\.\d\d seconds)"},
            {"INFO", 0, R"(Successully waited for tarnd pid \d+ for user ada@drive.test)"},
            {"DEBUG", 0, "Processing connect request for user ada."},
            {"INFO", 0, "Attempt to connect to socket " + socket},
            {"DEBUG", 0, "Socket Connected..."},
            {"DEBUG", 0, "Connected to tarn server"},
            {"DEBUG", 0, "File descriptor table " + files + ":" + files + " files allocated"},
            {"INFO", 0,
             "Return existing handle for ada@drive.test, drive handle count 1, drive uuid " +
                 std::string(drive.record.tnw_da_drive_id)},
            {"INFO", 0,
             "Created new handle for ada@drive.test, drive handle count 2, drive uuid " +
                 std::string(OTHER_DRIVE)},
            {"DEBUG", 0, R"(\[TNWIN_VFSC_ada@\] Creating new Thread: cur_count=\d+)"},
            {"DEBUG", 0, R"(Allocated fd 0, state 1, free count \d+, cffl (0x)?0+)"},
            {"DEBUG", 0, R"(putting fd 0, state 0, free count \d+)"},
            {"INFO", 0,
             "tarnd for ada@drive.test, stopped for drive id " + std::string(OTHER_DRIVE) +
                 ", current drive handle count 2"},
            {"INFO", 0, "After deinit, drive handle count 1 for user ada@drive.test"},
            {"INFO", 0, "Stopping tarnd for user ada@drive.test"},
            {"INFO", 0, "tarnd shutdown success for ada@drive.test"},
            {"DEBUG", 0, R"(\[TNWIN_VFSC_ada@\] Exiting thread cur_count=\d+, idle_count=\d+)"}});
}

TEST_F(LogLines, OfWrongAndFailedShutDowns) {
  void* handle = drive.start();
  EXPECT_EQ(tnw_deinit(nullptr, false), 87);
  EXPECT_EQ(tnw_deinit(this, false), 87);
  drive.peer->on_request([](PeerConnection& conn) { conn.answer(5); });
  EXPECT_EQ(tnw_deinit(handle, false), 5);
  drive.drive = nullptr;
  expect_lines(log, {{"ERROR", 22, "Invalid drive handle passed"},
                     {"ERROR", -1, "Could not find handle with address 0x(0x)?[0-9A-Fa-f]+"},
                     {"ERROR", 22, "Drive handle is not associated with any tninstance"},
                     {"ERROR", 5, "shutdown failed"},
                     {"ERROR", 5, "tarnd shutdown failed for ada@drive.test"}});
}

/* ------------------------------------------------------------------- starts that fail */

namespace {

/* What makes a start fail, and the line that tells. */
struct FailedStart {
  std::function<void(PeerDrive&)> cause;
  Line line;
};

std::string below_a_file(const PeerDrive& drive) {
  write_file(drive.folder / "file", "");
  return drive.folder / "file\\below";
}

const FailedStart failed_starts[] = {
    {[](PeerDrive& d) { set_field(d.record.tnw_logdir, below_a_file(d)); },
     {"ERROR", 3, "Failed to create dir .*file.below"}},
    {[](PeerDrive&) { pool_fails = true; }, {"ERROR", 12, "Cannot initialize thread pool"}},
    {[](PeerDrive& d) {
       set_field(d.record.tnw_uds_workdir, d.folder.path().string());
       set_field(d.record.tnw_workdir, below_a_file(d));
     },
     {"ERROR", 3, "Failed to create dir .*file.below.drive.test.ada"}},
    {[](PeerDrive& d) { std::filesystem::create_directories(cache_dir(d.record) + "\\da_pid"); },
     {"ERROR", 5, "cannot open .*/da_pid"}},
    {[](PeerDrive&) { reads_fail = true; }, {"ERROR", 23, "cannot read da_pid"}},
    {[](PeerDrive&) { writes_fail = true; }, {"ERROR", 23, "cannot write DA PID to da_pid"}},
    {[](PeerDrive&) { writes_half = true; }, {"ERROR", 5, "cannot write DA PID to da_pid"}},
    {[](PeerDrive&) { failing_size = sizeof(tnw_tninstance); },
     {"ERROR", 12, "Failed to allocate memory for tnw_tninstance_t"}},
    {[](PeerDrive&) { failing_size = sizeof(tnw_drive_handle); },
     {"ERROR", 12, "Cannot allocate memory for vfs handles"}},
    {[](PeerDrive&) { most_open_files = 0; },
     {"ERROR", 24, "Failed to get limit for max open files."}},
    {[](PeerDrive&) { most_open_files = 0; }, {"ERROR", 24, "Failed to allocate fd table."}},
    {[](PeerDrive&) {
       most_open_files = 7;
       failing_size = 7 * sizeof(tnvfd);
     },
     {"ERROR", 12, "Not enough memory for fd table."}},
    {[](PeerDrive&) { failing_size = TNV_MSG_FIXED + 2; },
     {"ERROR", 12, "Failed to allocate memory to message structure."}},
};

}  // namespace

class LogLinesOfAFailedStart : public LogLines, public testing::WithParamInterface<FailedStart> {};

TEST_P(LogLinesOfAFailedStart, NameTheCause) {
  GetParam().cause(drive);
  EXPECT_EQ(drive.start(), nullptr);
  EXPECT_EQ(drive.error, 31);
  expect_lines(log, {GetParam().line});
}

INSTANTIATE_TEST_SUITE_P(Each, LogLinesOfAFailedStart, testing::ValuesIn(failed_starts));

TEST_F(LogLines, OfAPathThatNoSocketCanHave) {
  const std::string dir = drive.folder / std::string(4500, 'w');
  set_field(drive.record.tnw_workdir, dir);
  EXPECT_EQ(tnw_init(&drive.record, nullptr), nullptr);
  EXPECT_GE(log.count("Socket dir does not fit in char[4096]. Partial path " + dir.substr(0, 3000)),
            1u)
      << "in a line that is cut itself";
}

TEST_F(LogLines, OfAServiceWithoutAVersion) {
  std::filesystem::create_directories(cache_dir(drive.record));
  drive.peer = std::make_unique<ScriptedPeer>(
      [](PeerConnection& conn) { conn.answer(conn.opcode() == TNV_OP_GET_VERSION ? 5 : 0); },
      socket_path(drive.record));
  EXPECT_EQ(drive.start(), nullptr);
  expect_lines(log,
               {{"ERROR", 5, "get_version failed"}, {"ERROR", 5, "Failed to call get_version"}});
}

TEST_F(LogLines, OfAnEventNameThatIsTaken) {
  const std::string name = event_name(drive);
  const HANDLE taken = CreateMutexA(nullptr, FALSE, name.c_str());
  EXPECT_EQ(drive.start(), nullptr);
  CloseHandle(taken);
  expect_lines(log, {{"ERROR", 6, "Failed to create named event " + literal_of(name)}});
}

/* Under a key that does not last, no lasting one can be made. */
TEST_F(LogLines, OfARegistryThatKeepsNoDeviceId) {
  const std::string all = "SOFTWARE\\Oxley\\Oxley Drive";
  const std::string above = all + "\\volatile.test";
  HKEY key;
  ASSERT_EQ(RegCreateKeyA(HKEY_CURRENT_USER, all.c_str(), &key), 0) << "lasting, for other tests";
  RegCloseKey(key);
  ASSERT_EQ(RegCreateKeyExA(HKEY_CURRENT_USER, above.c_str(), 0, nullptr, REG_OPTION_VOLATILE,
                            KEY_ALL_ACCESS, nullptr, &key, nullptr),
            0);
  set_field(drive.record.tnw_domain, "volatile.test");
  set_field(drive.record.tnw_tn_device_id, "");
  EXPECT_EQ(drive.start(), nullptr);
  RegCloseKey(key);
  RegDeleteTreeA(HKEY_CURRENT_USER, above.c_str());
  expect_lines(log, {{"ERROR", 1021, "Failed to call RegCreateKeyExA with err 1021"},
                     {"ERROR", 1021, "Failed to set-get TN device id from registry"}});
}

/* ------------------------------------------------------------------- files */

TEST_F(LogLines, OfOpensThatFail) {
  most_open_files = 1;
  ASSERT_NE(drive.start(), nullptr);
  drive.answer_opens(open_answer());
  void* only = drive.open("/a");
  int err = -1;
  EXPECT_EQ(drive.open("/b", 3, &err), nullptr);
  EXPECT_EQ(err, static_cast<int>(24));
  EXPECT_EQ(tnw_close(only, nullptr), 0);
  drive.answer_opens({}, {}, 13);
  EXPECT_EQ(drive.open("/c", 3, &err), nullptr);
  EXPECT_EQ(err, 32);
  failing_size = TNV_MSG_FIXED + 3;
  EXPECT_EQ(drive.open("/d", 3, &err), nullptr);
  EXPECT_EQ(err, 8);
  tnw_fileinfo entry;
  EXPECT_EQ(tnw_findfirst(drive.drive, "/e", &entry, nullptr, &err), nullptr);
  EXPECT_EQ(err, 8);
  EXPECT_EQ(tnw_getfileinfo(drive.drive, "/e", &entry, nullptr), 8);
  EXPECT_EQ(tnw_delete(drive.drive, "/e", nullptr), 8);
  failing_size = sizeof(tnw_drive_handle);
  tnw_tninit other = drive.record;
  set_field(other.tnw_da_drive_id, OTHER_DRIVE);
  EXPECT_EQ(tnw_init(&other, nullptr), nullptr);
  expect_lines(
      log, {{"ERROR", 24, "Too many open files"},
            {"ERROR", 13, "Server returned error for open msg."},
            {"ERROR", 12, "Failed to allocate memory to message structure."},
            {"ERROR", 12,
             "Failed to allocate memory to directory enumeration message structure for path /e"},
            {"ERROR", 12, "Cannot allocate memory for tnw_drive_handle"}});
}

TEST_F(LogLines, OfNullHandlesAndNotices) {
  char text[8] = "text";
  bool flag;
  EXPECT_EQ(tnw_getfileinfo(nullptr, "/a", nullptr, nullptr), 160);
  EXPECT_EQ(tnw_read(nullptr, text, 1, 0, nullptr, nullptr), 6);
  EXPECT_EQ(tnw_write(nullptr, text, 1, 0, nullptr, nullptr), 6);
  EXPECT_EQ(tnw_setfilesize(nullptr, 0, 0, nullptr), 6);
  EXPECT_EQ(tnw_lockfile(nullptr, 0, 0, 0, 1, 0, 1), 13);
  EXPECT_EQ(tnw_unlockfile(nullptr, 0, 0, 1, 0, 1), 13);
  EXPECT_EQ(tnw_updatetoken(nullptr, text), 160);
  EXPECT_EQ(tnw_set_http_proxy(nullptr, text, text, text), 160);
  EXPECT_EQ(tnw_canfilebedeleted(text, "/a", &flag), 1467);
  expect_lines(log, {{"ERROR", 22, "Invalid drive handle or no path specified."},
                     {"ERROR", 6, "Read from invalid handle."},
                     {"ERROR", 6, "Write to invalid handle."},
                     {"ERROR", 22, "Invalid handle specified"},
                     {"ERROR", 22, "Invalid open handle or lock request."},
                     {"ERROR", 22, "Invalid open handle passed."},
                     {"ERROR", 22, "Invalid drive handle or no token specified."},
                     {"ERROR", 22, "Invalid drive handle or no proxy specified."},
                     {"ERROR", -1, "Could not find handle with address 0x(0x)?[0-9A-Fa-f]+"}});
  ASSERT_NE(drive.start(), nullptr);
  const LogCapture notices;
  ox_debug = 2;
  tnw_fileinfo entry;
  EXPECT_EQ(tnw_getfileinfo(drive.drive, "/a", &entry, nullptr), 0);
  EXPECT_EQ(tnw_updatetoken(drive.drive, text), 0);
  EXPECT_EQ(tnw_set_http_proxy(drive.drive, text, text, text), 0);
  tnw_purge_opt_t gone = {};
  set_field(gone.po_workdir, drive.folder.path().string());
  set_field(gone.po_domain, "drive.test");
  set_field(gone.po_username, "bob");
  std::filesystem::create_directories(drive.folder / "drive.test\\bob");
  EXPECT_EQ(tnw_purge_cache(&gone), 0);
  ox_debug = 1;
  expect_lines(notices,
               {{"DEBUG", 0, "Get file info for /a"},
                {"INFO", 0, "Updating auth token"},
                {"INFO", 0, "Setting http proxy"},
                {"DEBUG", 0, R"(Folder moved successfully from .*bob to .*bob_\d+\.\d+)"}});
}

/* Whole regions of a map, and one listing whose memory is not to be had. */
TEST_F(LogLines, OfRegionsAndListings) {
  ASSERT_NE(drive.start(), nullptr);
  tnv_wopen_resp opened = open_answer();
  opened.wopen_resp_rmap_size = 1;
  opened.wopen_resp_handle = local_file(drive.folder / "local", "local");
  drive.answer_opens(opened, {1, 0});
  void* file = drive.open("/a");
  char byte;
  ox_debug = 2;
  EXPECT_EQ(tnw_read(file, &byte, 1, 0, nullptr, nullptr), 0);
  tnw_read(file, &byte, 1, 16, nullptr, nullptr); /* the answer has no payload: nothing is set */
  ox_debug = 1;
  drive.peer->on_request([](PeerConnection& conn) {
    tnv_wdenum_resp one = {};
    one.wde_fi_len = 1;
    conn.answer(0, one);
  });
  failing_size = sizeof(tnw_fileinfo);
  tnw_fileinfo entry;
  int err = -1;
  EXPECT_EQ(tnw_findfirst(drive.drive, "/a", &entry, nullptr, &err), nullptr);
  EXPECT_EQ(err, 8);
  const std::string at = " in (0x)?[0-9A-Fa-f]+";
  expect_lines(log, {{"DEBUG", 0, "Checking bits for off:0, len:1" + at},
                     {"DEBUG", 0, "bits are set for off:0, len:1" + at},
                     {"DEBUG", 0, "bits not set for off:16, len:1" + at},
                     {"ERROR", 12, "Failed to allocate memory to cffl."}});
}

TEST_F(LogLines, OfLocalFilesThatFail) {
  ASSERT_NE(drive.start(), nullptr);
  write_file(drive.folder / "local", "local");
  const auto opened = [&](DWORD access) {
    tnv_wopen_resp answer = open_answer();
    answer.wopen_resp_handle = reinterpret_cast<ox_u64>(CreateFileA(
        (drive.folder / "local").c_str(), access, 7, nullptr, OPEN_EXISTING, 0, nullptr));
    drive.answer_opens(answer);
    return static_cast<tnvfd*>(drive.open("/a"));
  };
  char byte = 'x';
  ox_s64 count = 0;
  EXPECT_EQ(tnw_read(opened(GENERIC_WRITE | FILE_READ_ATTRIBUTES), &byte, 1, 0, &count, nullptr),
            5);
  EXPECT_EQ(tnw_write(opened(GENERIC_READ), &byte, 1, 0, &count, nullptr), 5);
  tnvfd* gone = opened(GENERIC_READ);
  CloseHandle(gone->fdt_ofd);
  EXPECT_EQ(tnw_read(gone, &byte, 1, 0, &count, nullptr), 6);
  EXPECT_EQ(tnw_write(gone, &byte, 1, 0, &count, nullptr), 6);
  gone->fdt_ofd = INVALID_HANDLE_VALUE;
  expect_lines(log, {{"ERROR", 5, "Failed to read from the file .*local"},
                     {"ERROR", 5, "Failed to write to the file .*local"},
                     {"WARNING", 0, "Failed to get path from handle."},
                     {"ERROR", 6, "Failed to read from the file "},
                     {"ERROR", 22, "Failed to get filesize for [0-9a-f-]{36}:[0-9a-f-]{36}"}});
}

TEST_F(LogLines, OfAnswersThatDoNotCome) {
  ASSERT_NE(drive.start(), nullptr);
  drive.peer->hang_up();
  int err = -1;
  tnw_fileinfo entry;
  EXPECT_EQ(drive.open("/a", 3, &err), nullptr);
  EXPECT_EQ(err, 1467);
  EXPECT_EQ(tnw_findfirst(drive.drive, "/a", &entry, nullptr, &err), nullptr);
  EXPECT_EQ(err, 1467);
  const std::string id = "id [0-9a-f-]{36}, ";
  expect_lines(log, {{"ERROR", 10054, "Socket send connection hungup"},
                     {"ERROR", 10054, R"(Send failed on sockfd -?\d+)"},
                     {"ERROR", 133, "Failed to send open message."},
                     {"ERROR", 133, "Failed to send directory enumeration message."},
                     {"ERROR", 133, "Failed to send directory enumeration message for path /a."},
                     {"ERROR", 10054,
                      "Could not send messages " + id +
                          R"(opcode \d+, len \d+. Requesting client to reinitialize\.)"}});
}

/* ------------------------------------------------------------------- what the client answers */

namespace {

/* One call on a file of five bytes with maps in which nothing is set, and its event line. */
struct Answered {
  const char* name;
  DWORD access; /* of the local file's handle */
  ox_u32 err;   /* what the service answers */
  std::function<void(tnvfd* file)> call;
  const char* shown; /* result and errno; null: there is no event */
};

constexpr DWORD BOTH = GENERIC_READ | GENERIC_WRITE;
constexpr DWORD WRITE_ONLY = GENERIC_WRITE | FILE_READ_ATTRIBUTES;
#define FAILED_WITH(err) R"(18446744073709551615, "vfs_errno":)" err

void read_at(tnvfd* file, ox_off off) {
  char bytes[5];
  tnw_read(file, bytes, sizeof bytes, off, nullptr, nullptr);
}
void write_byte(tnvfd* file) {
  char byte = 'x';
  tnw_write(file, &byte, 1, 0, nullptr, nullptr);
}
void resize(tnvfd* file) { tnw_setfilesize(file, 3, 0, nullptr); }
void list_empty_folder(tnvfd* file) {
  bool empty;
  tnw_fileinfo entry;
  void* listing = tnw_findfirst(file->fdt_drv, "/", &entry, nullptr, nullptr);
  EXPECT_EQ(tnw_checkfolderempty(listing, &empty), 0);
  EXPECT_EQ(tnw_findnext(listing, &entry), ERROR_NO_MORE_FILES);
}

const Answered answered[] = {
    {"READ", BOTH, 0, [](tnvfd* f) { read_at(f, 0); }, R"(5, "vfs_errno":0)"},
    {"READ", BOTH, 0, [](tnvfd* f) { read_at(f, 5); }, R"(0, "vfs_errno":0)"},
    {"READ", BOTH, 7, [](tnvfd* f) { read_at(f, 0); }, R"(0, "vfs_errno":0)"},
    {"READ", BOTH, 28, [](tnvfd* f) { read_at(f, 0); }, FAILED_WITH("28")},
    {"READ", WRITE_ONLY, 0, [](tnvfd* f) { read_at(f, 0); }, FAILED_WITH("5")},
    {"WRITE", BOTH, 0, write_byte, R"(1, "vfs_errno":0)"},
    {"WRITE", BOTH, 28, write_byte, FAILED_WITH("28")},
    {"WRITE", GENERIC_READ, 0, write_byte, FAILED_WITH("5")},
    {"SETFSIZE", BOTH, 0, resize, R"(0, "vfs_errno":0)"},
    {"SETFSIZE", BOTH, 5, resize, R"(1117, "vfs_errno":0)"},
    {"SETFSIZE", GENERIC_READ, 0, resize, nullptr},
    {"FOLDEREMPTY", BOTH, 0, list_empty_folder, nullptr},
};

void answer_with(PeerDrive& drive, ox_u32 err, ox_u64 utxid) {
  drive.peer->on_request([=](PeerConnection& conn) {
    tnv_cache_region_resp fetched = {};
    fetched.cr_sz = conn.request().msg().u.cache_region.cache_read_len;
    const bool fetch = conn.opcode() == TNV_OP_CACHE_REGION;
    const Bytes payload = fetch ? bytes_of(fetched) : bytes_of(tnv_wdenum_resp{});
    tnv_resphdr header = conn.header(err, static_cast<ox_u32>(payload.size()));
    header.rhdr_utxid = utxid;
    conn.send(bytes_of(header) + payload);
  });
}

}  // namespace

/* The first answer with a transaction id is the call's own: it has an event already. */
TEST_F(LogLines, OfCallsThatTheClientAnswers) {
  drive.record.tnw_min_threads = drive.record.tnw_max_threads = 1;
  ASSERT_NE(drive.start(), nullptr);
  for (const Answered& row : answered) {
    SCOPED_TRACE(std::string(row.name) + (row.shown ? row.shown : ""));
    write_file(drive.folder / "local", "local");
    tnv_wopen_resp opened = open_answer();
    opened.wopen_resp_rmap_size = 2;
    opened.wopen_resp_tnflags = TNV_FL_MAPPED;
    opened.wopen_resp_handle = reinterpret_cast<ox_u64>(CreateFileA(
        (drive.folder / "local").c_str(), row.access, 7, nullptr, OPEN_EXISTING, 0, nullptr));
    drive.answer_opens(opened, Bytes(4)); /* without a transaction id */
    auto* file = static_cast<tnvfd*>(drive.open("/a"));
    const LogCapture said;
    answer_with(drive, row.err, 5);
    row.call(file);
    EXPECT_EQ(said.count("TNV_OP_WIN_" + std::string(row.name)), row.shown ? 1u : 0u);
    if (row.shown != nullptr) {
      EXPECT_EQ(said.count(std::string("\"retval\":") + row.shown + ", "), 1u)
          << testing::PrintToString(said.lines());
    }
    answer_with(drive, 0, 0);
    tnw_close(file, nullptr);
  }
}
