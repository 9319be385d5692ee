/*
 * Every call of the client where it refuses, and where the service does: what it returns, and the
 * whole of what it logs. One table has all calls, and every test goes through it.
 */
#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>
#include <functional>
#include <future>
#include <utility>

#include "page_end.h"
#include "peer_drive.h"
#include "tnw_fd.h"

namespace {

constexpr ox_u32 REFUSED = 13; /* the service's error; the calls give 32 for it */

const std::string NO_PATH = "ERROR 22: Invalid drive handle or no path specified.";
/* The error number of the second line comes out of a table that does not know the first. */
const std::string NO_SIZE =
    "INFO: Unidentified windows error 6\nERROR 22: Invalid handle specified";
const std::string NO_LOCK = "ERROR 22: Invalid open handle or lock request.";
const std::string NO_UNLOCK = "ERROR 22: Invalid open handle passed.";
const std::string NO_TOKEN = "ERROR 22: Invalid drive handle or no token specified.";
const std::string NO_PROXY = "ERROR 22: Invalid drive handle or no proxy specified.";
const std::string NO_DRIVE = "ERROR 22: Invalid drive handle passed";
const std::string UNKNOWN = "ERROR -1: Could not find handle with address 0xADDRESS";
const std::string UNKNOWN_DRIVE =
    UNKNOWN + "\nERROR 22: Drive handle is not associated with any tninstance";
const std::string UNAUTHORIZED = "ERROR 13 ada: tarn is unauthorized";
const std::string BROKEN =
    "ERROR 10057 ada: Could not send messages id ID, opcode N, len N. Requesting client to "
    "reinitialize.";
const std::string ID = "00000001-0000-0000-0000-000000000000";

enum class On { DRIVE, FILE };

/* The lines are those of PeerDrive::said. */
struct Call {
  const char* name;
  On on;
  std::function<int(void* handle)> call; /* with arguments that are good otherwise */
  int null_code;                         /* for a null handle and for a closed file */
  std::string null_lines;
  std::string refused_lines = ""; /* for REFUSED; empty: the call asks the service nothing */
  bool heeds_mark = true;         /* the mark "unauthorised" of an answer, and of the service */
  int dead_code = 0;              /* on a broken connection */
  std::string dead_lines = "";    /* after that of the request that could not be sent */
  std::string notice = "";        /* what it says before it asks */
  int unknown_code = TNW_ERROR_NO_SERVICE;
  std::string unknown_lines = UNKNOWN;
};

class Refusals : public testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(drive_.start(), nullptr); }

  /* A file of ten bytes with maps in which nothing is set. */
  void* open(const char* path = "f") {
    tnv_wopen_resp answer = open_answer();
    answer.wopen_resp_handle = local_file(drive_.folder / "local", "0123456789");
    answer.wopen_resp_rmap_size = 2;
    answer.wopen_resp_tnflags = TNV_FL_MAPPED;
    drive_.answer_opens(answer, Bytes(4));
    return drive_.open(path);
  }
  void* open_for(const Call& c) { return c.on == On::FILE ? open() : drive_.drive; }
  /* With a full payload, or with a mark and nothing else. */
  void answer(ox_u32 err, bool unauthorized = false) {
    const Bytes payload(unauthorized ? 0 : sizeof(tnw_fileinfo), 0xff);
    drive_.peer->on_request([=](PeerConnection& conn) {
      tnv_resphdr header = conn.header(err, static_cast<ox_u32>(payload.size()));
      header.rhdr_tn_unauthd = unauthorized ? 1 : 0;
      conn.send(bytes_of(header) + payload);
    });
  }
  void expect(const Call& c, void* handle, int code, const std::string& lines) {
    SCOPED_TRACE(testing::Message() << c.name << " of " << handle);
    const LogCapture log;
    EXPECT_EQ(c.call(handle), code);
    EXPECT_EQ(drive_.said(log), lines);
  }
  void expect_unknown(const Call& c, void* handle) {
    expect(c, handle, c.unknown_code, c.unknown_lines);
  }
  void expect_all_unknown(void* drive, void* file) {
    for (const Call& c : calls_) {
      expect_unknown(c, c.on == On::FILE ? file : drive);
    }
  }
  /* A second drive of the same service. */
  void* second_drive() {
    tnw_tninit other = drive_.record;
    set_field(other.tnw_da_drive_id, "44444444-4444-4444-4444-444444444444");
    return tnw_init(&other, nullptr);
  }
  size_t sent() const { return drive_.peer->requests().size(); }

  PeerDrive drive_;
  tnw_fileinfo info_ = {};
  bool flag_ = false;
  int err_ = 0;
  char token_[2] = "t";
  char byte_ = 0;

  const std::vector<Call> calls_ = {
      {"create", On::DRIVE,
       [&](void* d) { return tnw_create(d, nullptr, "p", 1, 7, 1, 0, 0, "", &err_), err_; }, 160,
       NO_PATH, "ERROR 13 ada: Server returned error for open msg.", true, 1467,
       "ERROR 133 ada: Failed to send open message.\n"
       "ERROR 133 ada: Server returned error for open msg."},
      {"findfirst", On::DRIVE,
       [&](void* d) { return tnw_findfirst(d, "p", &info_, nullptr, &err_), err_; }, 160, NO_PATH,
       "ERROR 13 ada: Failed to send directory enumeration message for path p.", true, 1467,
       "ERROR 133 ada: Failed to send directory enumeration message.\n"
       "ERROR 133 ada: Failed to send directory enumeration message for path p."},
      {"getfileinfo", On::DRIVE, [&](void* d) { return tnw_getfileinfo(d, "p", &info_, nullptr); },
       160, NO_PATH, "ERROR 13 ada: Failed to get file info for p."},
      {"rename", On::DRIVE, [&](void* d) { return tnw_rename(d, "p", "q", nullptr); }, 13, NO_PATH,
       "ERROR 13 ada: Failed to rename p->q."},
      {"delete", On::DRIVE, [&](void* d) { return tnw_delete(d, "p", nullptr); }, 13, NO_PATH,
       "ERROR 13 ada: Failed to delete file p."},
      {"canfilebedeleted", On::DRIVE, [&](void* d) { return tnw_canfilebedeleted(d, "p", &flag_); },
       13, NO_PATH, "ERROR 13 ada: Failed to check if file p can be deleted."},
      {"updatetoken", On::DRIVE, [&](void* d) { return tnw_updatetoken(d, token_); }, 160, NO_TOKEN,
       "ERROR 13 ada: Failed to update token", false, 0, "", "INFO ada: Updating auth token"},
      {"set_http_proxy", On::DRIVE, [&](void* d) { return tnw_set_http_proxy(d, "p", "", ""); },
       160, NO_PROXY, "ERROR 13 ada: Failed to update proxy", false, 0, "",
       "INFO ada: Setting http proxy"},
      {"deinit", On::DRIVE, [&](void* d) { return tnw_deinit(d, false); }, 87, NO_DRIVE, "", false,
       0, "", "", 87, UNKNOWN_DRIVE},
      {"deinit_force", On::DRIVE, [&](void* d) { return tnw_deinit_force(d); }, 87, NO_DRIVE, "",
       false, 0, "", "", 87, UNKNOWN_DRIVE},
      {"read", On::FILE, [&](void* f) { return tnw_read(f, &byte_, 1, 0, nullptr, nullptr); }, 6,
       "ERROR 6: Read from invalid handle.",
       "ERROR 13 ada: cache_region(FD, 0, 1 : " + ID +
           ") failed\n"
           "ERROR 13 ada: Failed to cache regions off:0, len:1, trunc: 0",
       false, 1467, "ERROR 133 ada: Failed to cache regions off:0, len:1, trunc: 0"},
      {"write", On::FILE, [&](void* f) { return tnw_write(f, &byte_, 1, 0, nullptr, nullptr); }, 6,
       "ERROR 6: Write to invalid handle.",
       "ERROR 13 ada: cache_region(FD, 0, 1 : " + ID +
           ") failed\n"
           "ERROR 13 ada: Failed to cache regions off:0, len:1, trunc: 0",
       false, 1467, "ERROR 133 ada: Failed to cache regions off:0, len:1, trunc: 0"},
      {"setfilesize", On::FILE, [](void* f) { return tnw_setfilesize(f, 20, 0, nullptr); }, 6,
       NO_SIZE,
       "ERROR 13 ada: cache_region(FD, 16, 16 : " + ID +
           ") failed\n"
           "ERROR 13 ada: Failed to cache regions off:16, len:16, trunc: 1\n"
           "ERROR 13 ada: Cache regions message sent as part of setfilesize() to 20 failed.\n"
           "ERROR 13 ada: ftruncate(FD, 20: " +
           ID +
           ") failed\n"
           "ERROR 13 ada: Failed to truncate to new size: 20",
       false, 1467,
       "ERROR 133 ada: Failed to cache regions off:16, len:16, trunc: 1\n"
       "ERROR 133 ada: Cache regions message sent as part of setfilesize() to 20 failed.\n" +
           BROKEN + "\nERROR 133 ada: Failed to truncate to new size: 20"},
      {"lockfile", On::FILE, [](void* f) { return tnw_lockfile(f, 0, 0, 0, 1, 0, 1); }, 13, NO_LOCK,
       "ERROR 13 ada: Failed to lock file " + ID + "."},
      {"unlockfile", On::FILE, [](void* f) { return tnw_unlockfile(f, 0, 0, 1, 0, 1); }, 13,
       NO_UNLOCK, "ERROR 13 ada: Failed to unlock file " + ID + "."},
      {"findnext", On::FILE, [&](void* f) { return tnw_findnext(f, &info_); }, 160, NO_PATH},
      {"checkfolderempty", On::FILE, [&](void* f) { return tnw_checkfolderempty(f, &flag_); }, 160,
       NO_PATH},
      {"cleanup_file", On::FILE, [](void* f) { return tnw_cleanup_file(f); }, 160, NO_PATH,
       "ERROR 13 ada: Failed to close file."},
      {"findclose", On::FILE, [](void* f) { return tnw_findclose(f); }, 160, NO_PATH,
       "ERROR 13 ada: Failed to close diretory enumeration context."},
      {"close", On::FILE, [](void* f) { return tnw_close(f, nullptr); }, 160, NO_PATH,
       "ERROR 13 ada: Failed to close file."},
  };
};

void* moved(void* handle, ptrdiff_t bytes) { return static_cast<char*>(handle) + bytes; }

std::string both(const std::string& one, const std::string& other) {
  return one.empty() || other.empty() ? one + other : one + "\n" + other;
}

}  // namespace

TEST_F(Refusals, OfHandlesThatAreNone) {
  void* const first = drive_.drive;
  void* const second = second_drive();
  void* const file = open();
  void* const listing = tnw_findfirst(first, "d", &info_, nullptr, &err_);
  void* const closed = open();
  drive_.drive = second;
  void* const orphan = open();
  drive_.drive = first;
  ASSERT_EQ(tnw_close(closed, nullptr), 0);
  ASSERT_EQ(tnw_deinit(second, false), 0);
  ASSERT_EQ(static_cast<const tnvfd*>(file)->fdt_fd, 0);
  void* const before_table = moved(file, -static_cast<ptrdiff_t>(sizeof(tnvfd)));
  void* const unmapped = moved(full_field(1).at, 1);
  int on_stack = 0;
  info_.fi_size = 5;
  const size_t before = sent();

  for (const Call& c : calls_) {
    const bool on_file = c.on == On::FILE;
    expect(c, nullptr, c.null_code, c.null_lines);
    for (void* handle : {reinterpret_cast<void*>(0x10), unmapped, static_cast<void*>(&on_stack),
                         second, on_file ? first : file, on_file ? orphan : listing,
                         on_file ? moved(file, 8) : moved(first, 8), before_table}) {
      expect_unknown(c, handle);
    }
    if (on_file) {
      expect(c, closed, c.null_code, c.null_lines);
    }
    if (c.null_code == ERROR_INVALID_HANDLE) {
      expect(c, listing, c.null_code, c.null_lines); /* it has no local file */
    }
  }
  EXPECT_STREQ(tnw_get_tninstance_id(nullptr), "");
  EXPECT_STREQ(tnw_get_tninstance_id(file), "");
  EXPECT_EQ(info_.fi_size, 5u) << "a refused call leaves its output";
  EXPECT_EQ(sent(), before);

  EXPECT_EQ(tnw_findnext(file, &info_), ERROR_NO_MORE_FILES) << "a file has no listing";
  EXPECT_EQ(tnw_checkfolderempty(file, &flag_), 0);
  EXPECT_TRUE(flag_);
  EXPECT_EQ(tnw_close(listing, nullptr), 0) << "the two closes do the same";
  EXPECT_EQ(tnw_findclose(file), 0);
  EXPECT_EQ(tnw_close(file, nullptr), ERROR_BAD_ARGUMENTS);

  void* const left_open = open();
  tnw_deinit_force(first);
  drive_.drive = nullptr;
  expect_all_unknown(first, left_open);
  MEMORY_BASIC_INFORMATION page = {};
  VirtualQuery(left_open, &page, sizeof page);
  EXPECT_EQ(page.State, DWORD{MEM_RESERVE}) << "the memory went back, the address did not";
  drive_.peer.reset();
  ASSERT_NE(drive_.start(), nullptr);
  EXPECT_NE(open(), nullptr);
  expect_all_unknown(first, left_open);
}

TEST_F(Refusals, OfCallsThatComeDuringAForcedShutDownComeAtOnce) {
  void* const file = open();
  std::promise<void> asked;
  drive_.peer->on_request([&](PeerConnection& conn) {
    if (conn.opcode() == TNV_OP_SHUTDOWN) {
      asked.set_value();
      conn.stall();
    }
    conn.answer();
  });
  void* const first = std::exchange(drive_.drive, nullptr);
  auto code = std::async(std::launch::async, [&] { return tnw_deinit_force(first); });
  asked.get_future().wait();
  expect_all_unknown(first, file);
  drive_.peer->resume();
  EXPECT_EQ(code.get(), 0);
}

TEST_F(Refusals, OfTheService) {
  for (const Call& c : calls_) {
    if (c.refused_lines.empty()) {
      continue;
    }
    void* handle = open_for(c);
    info_.fi_size = 5;
    flag_ = false;
    answer(REFUSED);
    expect(c, handle, ERROR_SHARING_VIOLATION, both(c.notice, c.refused_lines));
    EXPECT_EQ(info_.fi_size, 5u);
    EXPECT_FALSE(flag_);
    if (c.on == On::FILE) { /* a refused findclose alone gives its entry back */
      tnw_fileinfo entry;
      EXPECT_EQ(tnw_findnext(handle, &entry),
                c.name == std::string("findclose") ? ERROR_BAD_ARGUMENTS : ERROR_NO_MORE_FILES);
    }
    handle = open_for(c);
    answer(0, true);
    expect(c, handle, c.heeds_mark ? ERROR_LOGON_FAILURE : 0, c.notice);

    const auto get_info = [&] { return tnw_getfileinfo(drive_.drive, "p", &info_, nullptr); };
    const int now = c.heeds_mark ? ERROR_LOGON_FAILURE : 0;
    answer(0);
    EXPECT_EQ(get_info(), now) << c.name;
    answer(5, true);
    EXPECT_EQ(tnw_updatetoken(drive_.drive, token_), ERROR_IO_DEVICE) << "sent all the same";
    answer(0);
    EXPECT_EQ(get_info(), now) << "a marked answer leaves the mark";
    answer(5);
    EXPECT_EQ(tnw_updatetoken(drive_.drive, token_), ERROR_IO_DEVICE);
    answer(0);
    EXPECT_EQ(get_info(), 0) << "an answer without the mark lifts it, a refusal too";
    EXPECT_EQ(info_.fi_name[244], '\xff') << "a name that fills its field";
  }
}

TEST_F(Refusals, WithoutARequestOnceTheServiceIsUnauthorized) {
  void* const file = open();
  void* const second = second_drive();
  void* const listing = tnw_findfirst(second, "d", &info_, nullptr, nullptr);
  ASSERT_EQ(tnw_deinit(second, false), 0);
  answer(0, true);
  EXPECT_EQ(tnw_delete(drive_.drive, "f", nullptr), ERROR_LOGON_FAILURE);
  const size_t before = sent();
  for (const Call& c : calls_) {
    if (c.unknown_code == TNW_ERROR_NO_SERVICE && c.notice.empty()) {
      expect(c, c.on == On::FILE ? file : drive_.drive, ERROR_LOGON_FAILURE, UNAUTHORIZED);
    }
  }
  EXPECT_EQ(sent(), before);
  EXPECT_EQ(tnw_findnext(listing, &info_), TNW_ERROR_NO_SERVICE);
  EXPECT_EQ(tnw_findclose(listing), ERROR_LOGON_FAILURE) << "looks at the authorisation first";
}

/* The first request finds the connection dead; the others find it broken. */
TEST_F(Refusals, OfADeadConnectionAreFew) {
  std::vector<void*> handles;
  for (const Call& c : calls_) {
    handles.push_back(open_for(c));
  }
  drive_.peer->hang_up();
  EXPECT_TRUE(drive_.peer->wait_for_ended(1));
  const LogCapture log;
  EXPECT_EQ(tnw_getfileinfo(drive_.drive, "p", &info_, nullptr), 0);
  EXPECT_EQ(drive_.said(log),
            "ERROR 10054: Socket send connection hungup\nERROR 10054: Send failed on sockfd N\n\n"
            "ERROR 10054 ada: Could not send messages id ID, opcode N, len N. Requesting client to "
            "reinitialize.");
  for (size_t i = 0; i < calls_.size(); i++) {
    const Call& c = calls_[i];
    if (!c.refused_lines.empty()) {
      expect(c, handles[i], c.dead_code, both(c.notice, both(BROKEN, c.dead_lines)));
    }
  }
}

TEST_F(Refusals, OfNullArguments) {
  void* const d = drive_.drive;
  const struct {
    std::function<int()> call;
    int code;
    std::string lines;
  } refused[] = {
      {[&] { return tnw_init(nullptr, &err_), err_; }, 31, "ERROR 22: No start-up record given"},
      {[&] { return tnw_create(d, nullptr, nullptr, 1, 7, 1, 0, 0, nullptr, &err_), err_; }, 160,
       NO_PATH},
      {[&] { return tnw_create(d, nullptr, "f", 1, 7, 6, 0, 0, nullptr, &err_), err_; }, 87,
       "ERROR 22 ada: Invalid create disposition 6"},
      {[&] { return tnw_findfirst(d, nullptr, &info_, nullptr, &err_), err_; }, 160, NO_PATH},
      {[&] { return tnw_findfirst(d, "d", nullptr, nullptr, &err_), err_; }, 160, NO_PATH},
      {[&] { return tnw_getfileinfo(d, nullptr, &info_, nullptr); }, 160, NO_PATH},
      {[&] { return tnw_rename(d, nullptr, "g", nullptr); }, 13, NO_PATH},
      {[&] { return tnw_rename(d, "f", nullptr, nullptr); }, 13, NO_PATH},
      {[&] { return tnw_delete(d, nullptr, nullptr); }, 13, NO_PATH},
      {[&] { return tnw_canfilebedeleted(d, nullptr, &flag_); }, 13, NO_PATH},
      {[&] { return tnw_updatetoken(d, nullptr); }, 160, NO_TOKEN},
      {[&] { return tnw_set_http_proxy(d, nullptr, "", ""); }, 160, NO_PROXY},
      {[&] { return tnw_set_http_proxy(d, "", "", ""); }, 160, NO_PROXY},
      {[&] { return tnw_set_http_proxy(d, "p", nullptr, ""); }, 160, NO_PROXY},
      {[&] { return tnw_set_http_proxy(d, "p", "", nullptr); }, 160, NO_PROXY},
      {[&] { return tnw_findnext(d, nullptr); }, 160, NO_PATH},
      {[&] { return tnw_checkfolderempty(nullptr, &(flag_ = true)); }, 160, NO_PATH},
  };
  const size_t before = sent();
  for (const auto& r : refused) {
    const LogCapture log;
    EXPECT_EQ(r.call(), r.code) << &r - refused;
    EXPECT_EQ(drive_.said(log), r.lines) << &r - refused;
  }
  EXPECT_FALSE(flag_) << "of the last call";
  EXPECT_EQ(sent(), before);

  void* const file = open();
  EXPECT_EQ(tnw_checkfolderempty(file, nullptr), 0);
  EXPECT_EQ(tnw_read(file, &byte_, 1, 0, nullptr, nullptr), 0);
  EXPECT_NE(tnw_create(d, nullptr, "f", 1, 7, 1, 0, 0, nullptr, nullptr), nullptr);
  EXPECT_NE(tnw_findfirst(d, "d", &info_, nullptr, nullptr), nullptr);
}
