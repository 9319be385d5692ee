/*
 * Every call of the client with handles that are none, texts that fill their fields, and numbers at
 * the edge. Buffers end where their page does: a byte read or written past one ends the test.
 */

#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>
#include <functional>
#include <future>
#include <utility>
#include <vector>

#include "log_capture.h"
#include "peer_drive.h"
#include "tnw_fd.h"

namespace {

constexpr int UNKNOWN = 1467;
constexpr int BAD_ARGUMENTS = 160;
constexpr int INVALID = 13; /* what EINVAL becomes */
constexpr int BAD_HANDLE = 6;
constexpr int BAD_PARAMETER = 87;

/* Bytes with an unmapped page right behind them. */
class AtPageEnd {
 public:
  explicit AtPageEnd(const void* bytes, size_t size) {
    constexpr size_t room = 0x10000;
    pages_ = static_cast<char*>(
        VirtualAlloc(nullptr, room + 0x1000, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
    DWORD before;
    VirtualProtect(pages_ + room, 0x1000, PAGE_NOACCESS, &before);
    at = pages_ + room - size;
    memcpy(at, bytes, size);
  }
  explicit AtPageEnd(const std::string& bytes) : AtPageEnd(bytes.data(), bytes.size()) {}
  ~AtPageEnd() { VirtualFree(pages_, 0, MEM_RELEASE); }
  AtPageEnd(const AtPageEnd&) = delete;

  char* at;

 private:
  char* pages_;
};

/* A text of that many characters, with its NUL at the end of the page. */
AtPageEnd text_of(size_t length) { return AtPageEnd(std::string(length, 'n') + '\0'); }
/* The same without the NUL: it fills a field of that size. */
AtPageEnd full_field(size_t size) { return AtPageEnd(std::string(size, 'f')); }

/* A call on a handle of its kind, with arguments that are good otherwise. */
struct HandleCall {
  const char* name;
  std::function<int(void* handle)> call;
  int for_null; /* also for a closed file */
  int for_unknown;
};

class BadInput : public testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(drive.start(), nullptr); }

  /* A file whose local one has ten bytes, without maps. */
  void* open() {
    tnv_wopen_resp answer = open_answer();
    answer.wopen_resp_handle = local_file(drive.folder / "local", "0123456789");
    drive.answer_opens(answer);
    return drive.open("f");
  }
  void* list() {
    int err = -1;
    return tnw_findfirst(drive.drive, "d", &info, nullptr, &err);
  }

  PeerDrive drive;
  tnw_fileinfo info = {};
  bool flag = false;
  int err = 0;
  char text[2] = "t";
  char byte = 0;

  const std::vector<HandleCall> drive_calls = {
      {"tnw_create",
       [&](void* d) { return tnw_create(d, nullptr, "f", 1, 7, 1, 0, 0, nullptr, &err), err; },
       BAD_ARGUMENTS, UNKNOWN},
      {"tnw_findfirst", [&](void* d) { return tnw_findfirst(d, "d", &info, nullptr, &err), err; },
       BAD_ARGUMENTS, UNKNOWN},
      {"tnw_getfileinfo", [&](void* d) { return tnw_getfileinfo(d, "f", &info, nullptr); },
       BAD_ARGUMENTS, UNKNOWN},
      {"tnw_rename", [&](void* d) { return tnw_rename(d, "f", "g", nullptr); }, INVALID, UNKNOWN},
      {"tnw_delete", [&](void* d) { return tnw_delete(d, "f", nullptr); }, INVALID, UNKNOWN},
      {"tnw_canfilebedeleted", [&](void* d) { return tnw_canfilebedeleted(d, "f", &flag); },
       INVALID, UNKNOWN},
      {"tnw_updatetoken", [&](void* d) { return tnw_updatetoken(d, text); }, BAD_ARGUMENTS,
       UNKNOWN},
      {"tnw_set_http_proxy", [&](void* d) { return tnw_set_http_proxy(d, "p", "", ""); },
       BAD_ARGUMENTS, UNKNOWN},
      {"tnw_get_tninstance_id", [&](void* d) { return int{tnw_get_tninstance_id(d)[0]}; }, 0, 0},
      {"tnw_deinit", [&](void* d) { return tnw_deinit(d, false); }, BAD_PARAMETER, BAD_PARAMETER},
      {"tnw_deinit_force", [&](void* d) { return tnw_deinit_force(d); }, BAD_PARAMETER,
       BAD_PARAMETER},
  };
  const std::vector<HandleCall> file_calls = {
      {"tnw_read", [&](void* f) { return tnw_read(f, &byte, 1, 0, nullptr, nullptr); }, BAD_HANDLE,
       UNKNOWN},
      {"tnw_write", [&](void* f) { return tnw_write(f, &byte, 1, 0, nullptr, nullptr); },
       BAD_HANDLE, UNKNOWN},
      {"tnw_setfilesize", [&](void* f) { return tnw_setfilesize(f, 1, 0, nullptr); }, BAD_HANDLE,
       UNKNOWN},
      {"tnw_lockfile", [&](void* f) { return tnw_lockfile(f, 0, 0, 0, 1, 0, 1); }, INVALID,
       UNKNOWN},
      {"tnw_unlockfile", [&](void* f) { return tnw_unlockfile(f, 0, 0, 1, 0, 1); }, INVALID,
       UNKNOWN},
      {"tnw_findnext", [&](void* f) { return tnw_findnext(f, &info); }, BAD_ARGUMENTS, UNKNOWN},
      {"tnw_checkfolderempty", [&](void* f) { return tnw_checkfolderempty(f, &flag); },
       BAD_ARGUMENTS, UNKNOWN},
      {"tnw_cleanup_file", [&](void* f) { return tnw_cleanup_file(f); }, BAD_ARGUMENTS, UNKNOWN},
      {"tnw_findclose", [&](void* f) { return tnw_findclose(f); }, BAD_ARGUMENTS, UNKNOWN},
      {"tnw_close", [&](void* f) { return tnw_close(f, nullptr); }, BAD_ARGUMENTS, UNKNOWN},
  };
};

void* moved(void* handle, ptrdiff_t bytes) { return static_cast<char*>(handle) + bytes; }

}  // namespace

TEST_F(BadInput, HandlesThatAreNoneAreRefusedWithoutARequest) {
  tnw_tninit other = drive.record;
  set_field(other.tnw_da_drive_id, "44444444-4444-4444-4444-444444444444");
  void* const second = tnw_init(&other, nullptr);
  ASSERT_NE(second, nullptr);
  void* const first = drive.drive;
  void* const file = open();
  void* const listing = list();
  ASSERT_NE(listing, nullptr);
  void* const closed = open();
  drive.drive = second;
  void* const orphan = open();
  drive.drive = first;
  ASSERT_EQ(tnw_close(closed, nullptr), 0);
  ASSERT_EQ(tnw_deinit(second, false), 0);
  int on_stack = 0;
  void* const wild = reinterpret_cast<void*>(0x10);
  void* const unmapped = moved(full_field(1).at, 1);
  ASSERT_EQ(static_cast<const tnvfd*>(file)->fdt_fd, 0);
  void* const before_table = moved(file, -static_cast<ptrdiff_t>(sizeof(tnvfd)));
  const size_t sent = drive.peer->requests().size();

  for (const HandleCall& c : drive_calls) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.call(nullptr), c.for_null);
    for (void* handle :
         {wild, unmapped, static_cast<void*>(&on_stack), second, file, listing, moved(first, 8)}) {
      EXPECT_EQ(c.call(handle), c.for_unknown) << handle;
    }
  }
  info.fi_size = 5;
  for (const HandleCall& c : file_calls) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.call(nullptr), c.for_null);
    EXPECT_EQ(c.call(closed), c.for_null);
    for (void* handle : {wild, unmapped, static_cast<void*>(&on_stack), first, second, orphan,
                         moved(file, 8), before_table}) {
      EXPECT_EQ(c.call(handle), c.for_unknown) << handle;
    }
    if (c.for_null == BAD_HANDLE) {
      EXPECT_EQ(c.call(listing), BAD_HANDLE) << "it has no local file";
    }
  }
  EXPECT_EQ(info.fi_size, 5u) << "a refused call leaves its output";
  EXPECT_EQ(drive.peer->requests().size(), sent);

  EXPECT_EQ(tnw_findnext(file, &info), ERROR_NO_MORE_FILES) << "a file has no listing";
  EXPECT_EQ(tnw_checkfolderempty(file, &flag), 0);
  EXPECT_TRUE(flag);
  EXPECT_EQ(tnw_close(listing, nullptr), 0) << "the two closes do the same";
  EXPECT_EQ(tnw_findclose(file), 0);
  EXPECT_EQ(tnw_close(file, nullptr), BAD_ARGUMENTS);

  void* const left_open = open();
  tnw_deinit_force(first);
  drive.drive = nullptr;
  for (const HandleCall& c : drive_calls) {
    EXPECT_EQ(c.call(first), c.for_unknown) << c.name;
  }
  MEMORY_BASIC_INFORMATION page = {};
  VirtualQuery(left_open, &page, sizeof page);
  EXPECT_EQ(page.State, DWORD{MEM_RESERVE}) << "the memory went back, the address did not";
  drive.peer.reset();
  ASSERT_NE(drive.start(), nullptr);
  EXPECT_NE(open(), nullptr);
  for (const HandleCall& c : file_calls) {
    EXPECT_EQ(c.call(left_open), UNKNOWN) << c.name;
  }
}

TEST_F(BadInput, CallsThatComeDuringAForcedShutDownAreRefusedAtOnce) {
  void* const file = open();
  std::promise<void> asked;
  drive.peer->on_request([&](PeerConnection& conn) {
    if (conn.opcode() == TNV_OP_SHUTDOWN) {
      asked.set_value();
      conn.stall();
    }
    conn.answer();
  });
  void* const first = std::exchange(drive.drive, nullptr);
  auto code = std::async(std::launch::async, [&] { return tnw_deinit_force(first); });
  asked.get_future().wait();
  for (const HandleCall& c : drive_calls) {
    EXPECT_EQ(c.call(first), c.for_unknown) << c.name;
  }
  for (const HandleCall& c : file_calls) {
    EXPECT_EQ(c.call(file), UNKNOWN) << c.name;
  }
  drive.peer->resume();
  EXPECT_EQ(code.get(), 0);
}

TEST_F(BadInput, ADriveThatIsGoneIsNotToldWhileTheServiceIsUnauthorized) {
  tnw_tninit other = drive.record;
  set_field(other.tnw_da_drive_id, "44444444-4444-4444-4444-444444444444");
  void* const second = tnw_init(&other, nullptr);
  void* const listing = tnw_findfirst(second, "d", &info, nullptr, nullptr);
  ASSERT_EQ(tnw_deinit(second, false), 0);
  drive.peer->on_request([](PeerConnection& conn) {
    tnv_resphdr header = conn.header();
    header.rhdr_tn_unauthd = 1;
    conn.send(bytes_of(header));
  });
  EXPECT_EQ(tnw_delete(drive.drive, "f", nullptr), 1326);
  EXPECT_EQ(tnw_findnext(listing, &info), UNKNOWN);
  EXPECT_EQ(tnw_findclose(listing), 1326) << "looks at the authorisation first, deliberately";
}

TEST_F(BadInput, NullArgumentsAreRefusedOrDoneWithout) {
  void* const d = drive.drive;
  const size_t sent = drive.peer->requests().size();
  const struct {
    const char* name;
    int code;
    int expected;
  } refused[] = {
      {"init", (tnw_init(nullptr, &err), err), 31},
      {"create", (tnw_create(d, nullptr, nullptr, 1, 7, 1, 0, 0, nullptr, &err), err), 160},
      {"disposition", (tnw_create(d, nullptr, "f", 1, 7, 6, 0, 0, nullptr, &err), err), 87},
      {"list", (tnw_findfirst(d, nullptr, &info, nullptr, &err), err), 160},
      {"list without room", (tnw_findfirst(d, "d", nullptr, nullptr, &err), err), 160},
      {"stat", tnw_getfileinfo(d, nullptr, &info, nullptr), 160},
      {"stat without room", tnw_getfileinfo(d, "f", nullptr, nullptr), 160},
      {"rename from", tnw_rename(d, nullptr, "g", nullptr), 13},
      {"rename to", tnw_rename(d, "f", nullptr, nullptr), 13},
      {"delete", tnw_delete(d, nullptr, nullptr), 13},
      {"can delete", tnw_canfilebedeleted(d, nullptr, &flag), 13},
      {"can delete without room", tnw_canfilebedeleted(d, "f", nullptr), 13},
      {"token", tnw_updatetoken(d, nullptr), 160},
      {"proxy", tnw_set_http_proxy(d, nullptr, "", ""), 160},
      {"empty proxy", tnw_set_http_proxy(d, "", "", ""), 160},
      {"proxy user", tnw_set_http_proxy(d, "p", nullptr, ""), 160},
      {"proxy password", tnw_set_http_proxy(d, "p", "", nullptr), 160},
  };
  for (const auto& r : refused) {
    EXPECT_EQ(r.code, r.expected) << r.name;
  }
  EXPECT_EQ(drive.peer->requests().size(), sent);

  void* const file = open();
  EXPECT_EQ(tnw_findnext(file, nullptr), 160);
  EXPECT_EQ(tnw_checkfolderempty(file, nullptr), 0);
  flag = true;
  EXPECT_EQ(tnw_checkfolderempty(nullptr, &flag), 160);
  EXPECT_FALSE(flag);
  EXPECT_EQ(tnw_read(file, &byte, 1, 0, nullptr, nullptr), 0);
  EXPECT_NE(tnw_create(d, nullptr, "f", 1, 7, 1, 0, 0, nullptr, nullptr), nullptr);
  EXPECT_NE(tnw_findfirst(d, "d", &info, nullptr, nullptr), nullptr);
}

TEST_F(BadInput, TextsOfAnyLengthGoOutWhole) {
  void* const d = drive.drive;
  const auto name = full_field(32);
  const auto no_room = tnw_fileinfo{};
  const AtPageEnd out(&no_room, sizeof no_room);
  auto* const entry = reinterpret_cast<tnw_fileinfo*>(out.at);
  for (const ox_u32 answered : {0u, 28u}) { /* the lines of refusals show the texts, too */
    drive.peer->on_request([=](PeerConnection& conn) { conn.answer(answered, Bytes(1168)); });
    const int expected = answered != 0 ? ERROR_DISK_FULL : 0;
    for (const size_t length : {0u, 1u, 5000u}) {
      SCOPED_TRACE(length);
      const auto path = text_of(length);
      const auto last_size = [&] { return drive.peer->requests().back().bytes.size(); };
      EXPECT_EQ(tnw_getfileinfo(d, path.at, entry, name.at), expected);
      EXPECT_EQ(last_size(), 505 + length);
      EXPECT_EQ(tnw_rename(d, path.at, path.at, name.at), expected);
      EXPECT_EQ(last_size(), 506 + 2 * length);
      EXPECT_EQ(tnw_delete(d, path.at, name.at), expected);
      EXPECT_EQ(memcmp(drive.peer->requests().back().msg().hdr.hdr_procname, name.at, 32), 0);
      EXPECT_EQ(tnw_canfilebedeleted(d, path.at, &flag), expected);
      EXPECT_EQ(tnw_updatetoken(d, path.at), expected);
      EXPECT_EQ(last_size(), 505 + length);
      EXPECT_EQ(tnw_set_http_proxy(d, length ? path.at : "p", path.at, path.at), expected);
      EXPECT_EQ(last_size(), 507 + (length ? length : 1) + 2 * length);
      tnw_findclose(tnw_findfirst(d, path.at, entry, name.at, &err));
      EXPECT_EQ(err, answered ? ERROR_DISK_FULL : ERROR_NO_MORE_FILES);
      void* const file = tnw_create(d, nullptr, path.at, 1, 7, 1, 0, 0, name.at, &err);
      EXPECT_EQ(err, expected);
      EXPECT_EQ(file != nullptr, answered == 0);
      tnw_close(file, nullptr);
    }
  }
}

TEST_F(BadInput, NothingIsWrittenPastAField) {
  tnw_fileinfo full;
  memset(&full, 0xff, sizeof full); /* a name of 245 bytes, and all other texts as full */
  tnv_wdenum_resp listed = {};
  listed.wde_fi_len = 2;
  drive.peer->on_request([=](PeerConnection& conn) {
    if (conn.opcode() == TNV_OP_WIN_STAT) {
      return conn.answer(0, full);
    }
    if (conn.opcode() != TNV_OP_WIN_DENUM) {
      return conn.answer(0, Bytes(1, 0xff));
    }
    conn.answer(0, listed);
    conn.send(bytes_of(full) + bytes_of(full));
  });
  const AtPageEnd out(&info, sizeof info);
  auto* const entry = reinterpret_cast<tnw_fileinfo*>(out.at);
  const auto is_full = [&] { return memcmp(entry, &full, sizeof full) == 0; };
  EXPECT_EQ(tnw_getfileinfo(drive.drive, "f", entry, nullptr), 0);
  EXPECT_TRUE(is_full());
  *entry = {};
  void* const listing = tnw_findfirst(drive.drive, "d", entry, nullptr, &err);
  EXPECT_TRUE(is_full());
  *entry = {};
  EXPECT_EQ(tnw_findnext(listing, entry), 0);
  EXPECT_TRUE(is_full());
  const AtPageEnd can_delete(&flag, sizeof flag);
  EXPECT_EQ(tnw_canfilebedeleted(drive.drive, "f", reinterpret_cast<bool*>(can_delete.at)), 0);
  EXPECT_EQ(*can_delete.at, 1) << "the byte 0xff is true";

  open();
  const auto opener = full_field(32);
  void* const file = [&] {
    tnv_wopen_resp answer = open_answer();
    answer.wopen_resp_handle = local_file(drive.folder / "local", "0123456789");
    drive.answer_opens(answer);
    return tnw_create(drive.drive, nullptr, "f", 3, 7, 1, 0, 0, opener.at, nullptr);
  }();
  const AtPageEnd buffer(std::string(10, '-'));
  const ox_s64 no_count = 0;
  const AtPageEnd count(&no_count, sizeof no_count);
  auto* const counted = reinterpret_cast<ox_s64*>(count.at);
  const AtPageEnd told(std::string(32, '-'));
  const auto is_told = [&] {
    const bool same = memcmp(told.at, opener.at, 32) == 0;
    memset(told.at, 0, 32);
    return same;
  };
  EXPECT_EQ(tnw_read(file, buffer.at, 10, 0, counted, told.at), 0);
  EXPECT_EQ(std::string(buffer.at, 10), "0123456789");
  EXPECT_TRUE(is_told());
  EXPECT_EQ(tnw_write(file, buffer.at, 10, 0, counted, told.at), 0);
  EXPECT_TRUE(is_told());
  EXPECT_EQ(tnw_setfilesize(file, 10, 0, told.at), 0);
  EXPECT_TRUE(is_told());
  EXPECT_EQ(tnw_close(file, told.at), 0);
  EXPECT_TRUE(is_told());
}

TEST_F(BadInput, OffsetsAndLengthsAtTheEdge) {
  void* const file = open();
  constexpr ox_off far_off = (1ll << 32) + 5;
  constexpr ox_s64 untouched = -77;
  ox_s64 count = untouched;
  const auto read = [&](ox_u64 len, ox_off off) {
    count = untouched;
    return tnw_read(file, &byte, len, off, &count, nullptr);
  };
  EXPECT_EQ(read(0, 0), 0);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(read(0, 5000), 0) << "no byte is at the end of nothing";
  EXPECT_EQ(read(1, far_off), ERROR_HANDLE_EOF);
  EXPECT_EQ(read((1ull << 32) + 1, 3), 0) << "the length is cut to 32 bits";
  EXPECT_EQ(count, 1);
  EXPECT_EQ(byte, '3');
  EXPECT_EQ(tnw_write(file, &byte, 1, far_off, &count, nullptr), 0);
  EXPECT_EQ(read(1, far_off), 0);
  EXPECT_EQ(byte, '3');
  EXPECT_EQ(read(1, far_off + 1), ERROR_HANDLE_EOF);
  for (const ox_off negative : {-1ll, -2ll, -3ll, -0x7fffffffffffffffll - 1}) {
    count = untouched;
    EXPECT_EQ(tnw_write(file, &byte, 1, negative, &count, nullptr), BAD_PARAMETER);
    EXPECT_EQ(read(1, negative), BAD_PARAMETER);
    EXPECT_EQ(count, untouched);
  }
  EXPECT_EQ(std::filesystem::file_size(drive.folder / "local"), static_cast<ox_u64>(far_off) + 1)
      << "nothing was appended";
  EXPECT_EQ(tnw_setfilesize(file, 7, 1, nullptr), 0);
  EXPECT_EQ(std::filesystem::file_size(drive.folder / "local"), (1ull << 32) + 7);
  EXPECT_NE(tnw_setfilesize(file, 0, 0x80000000, nullptr), 0) << "a file's size is positive";
  EXPECT_EQ(static_cast<tnvfd*>(file)->fdt_stat.st_size, (1ull << 32) + 7);
  EXPECT_EQ(tnw_lockfile(file, ~0u, ~0u, ~0u, 0, 0, -1), 0);
  EXPECT_EQ(drive.peer->requests().back().msg().u.wbrl.wbrl_off, 0xffffffffu);
}

/* ------------------------------------------------------------------- records */

TEST(BadRecords, AStartWithEveryFieldFullGivesUp) {
  tnw_tninit record;
  memset(&record, 'x', sizeof record);
  record.tnw_flags = TNW_INIT_NO_RETRY;
  TestFolder folder;
  set_field(record.tnw_logdir, folder.path().string());
  const AtPageEnd full(&record, sizeof record);
  int err = 0;
  EXPECT_EQ(tnw_init(reinterpret_cast<tnw_tninit*>(full.at), &err), nullptr);
  EXPECT_EQ(err, 31);
  EXPECT_EQ(memcmp(full.at + sizeof(int), &record.tnw_min_threads, sizeof record - sizeof(int)), 0);
}

TEST(BadRecords, AStartWithFullNamesWorks) {
  LogCapture log;
  PeerDrive drive;
  const std::string domain = "d." + std::string(49, 'd');
  set_field(drive.record.tnw_uds_workdir, drive.folder / "s");
  set_field(drive.record.tnw_domain, domain);
  for (auto& c : drive.record.tnw_username) {
    c = 'u';
  }
  for (auto& c : drive.record.tnw_authtoken) {
    c = 't';
  }
  for (auto& c : drive.record.tnw_api_addr) {
    c = 'a';
  }
  for (auto& c : drive.record.tnw_config_addr) {
    c = 'c';
  }
  for (auto& c : drive.record.tnw_da_device_id) {
    c = 'i';
  }
  for (auto& c : drive.record.tnw_tn_device_id) {
    c = 'j';
  }
  for (auto& c : drive.record.tnw_da_drive_id) {
    c = 'k';
  }
  ASSERT_NE(drive.start(), nullptr);
  const tnv_wconn_msg connect = drive.peer->requests().front().msg().u.wconn;
  EXPECT_EQ(std::string(connect.wconmsg_user), std::string(64, 'u'));
  EXPECT_EQ(std::string(connect.wconmsg_devid, 37), std::string(37, 'i'));
  EXPECT_EQ(log.count(" --access-token " + std::string(512, 't') + " --logfile "), 1u);
  EXPECT_EQ(log.count(" --confaddr " + std::string(128, 'c') + " --tn-devid " +
                      std::string(37, 'j') + " --da-devid " + std::string(37, 'i') + " "),
            1u);

  const AtPageEnd same(&drive.record, sizeof drive.record);
  EXPECT_EQ(tnw_init(reinterpret_cast<tnw_tninit*>(same.at), nullptr), drive.drive)
      << "the same full names and id";
  tnw_purge_opt_t po;
  memset(&po, 'u', sizeof po);
  set_field(po.po_domain, domain);
  set_field(po.po_workdir, drive.folder.path().string());
  const AtPageEnd options(&po, sizeof po);
  EXPECT_EQ(tnw_purge_cache(reinterpret_cast<tnw_purge_opt_t*>(options.at)), ERROR_BUSY);
  memset(&po, 'w', sizeof po);
  memcpy(options.at, &po, sizeof po);
  EXPECT_EQ(tnw_purge_cache(reinterpret_cast<tnw_purge_opt_t*>(options.at)), 38)
      << "a path that does not fit";
}
