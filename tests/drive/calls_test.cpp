/* The calls of one exchange each, and tnw_setfilesize: what goes out, and what each answer does. */

#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>
#include <functional>
#include <future>
#include <utility>

#include "log_capture.h"
#include "peer_drive.h"
#include "tn_util.h"
#include "tnw_fd.h"

namespace {

constexpr int UNAUTHORIZED = 1326;

/* A text with NULs inside. */
template <size_t N>
std::string raw(const char (&text)[N]) {
  return std::string(text, N - 1);
}

struct AnsweredCall {
  const char* name;
  std::function<int(void* file)> call;
  const char* failure; /* the line of a refused request; null: told elsewhere */
  bool heeds_mark;     /* that the answer says unauthorised */
  int when_dead;       /* what it gives on a dead connection */
};

class Calls : public testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(drive.start(), nullptr); }

  /* A file of 100 bytes with maps of 16 regions of 16 bytes, which have these bits. */
  void* open(Bytes maps = Bytes(4), DWORD access = GENERIC_READ | GENERIC_WRITE,
             size_t size = 100) {
    tnv_wopen_resp opened = open_answer();
    CloseHandle(reinterpret_cast<HANDLE>(local_file(local(), std::string(size, 'x'))));
    opened.wopen_resp_handle = reinterpret_cast<ox_u64>(
        CreateFileA(local().c_str(), access, 7, nullptr, OPEN_EXISTING, 0, nullptr));
    opened.wopen_resp_rmap_size = maps.size() / 2;
    opened.wopen_resp_tnflags = TNV_FL_MAPPED;
    opened.wopen_resp_stat.st_size = size;
    drive.answer_opens(opened, maps);
    return drive.open("f");
  }
  void answer(ox_u32 err, bool unauthorized = false, const Bytes& payload = {}) {
    drive.peer->on_request([=](PeerConnection& conn) {
      tnv_resphdr header = conn.header(err, static_cast<ox_u32>(payload.size()));
      header.rhdr_tn_unauthd = static_cast<ox_u8>(unauthorized);
      conn.send(bytes_of(header) + payload);
    });
  }
  int get_info() { return tnw_getfileinfo(drive.drive, "p", &info, nullptr); }
  int send_token() { return tnw_updatetoken(drive.drive, token); }
  std::string local() { return drive.folder / "local"; }

  PeerDrive drive;
  tnw_fileinfo info = {};
  bool can_delete = false;
  char token[2] = "t";
  char byte = 0;
  int err = 0;

  const std::vector<AnsweredCall> calls = {
      {"stat", [&](void*) { return get_info(); }, "Failed to get file info for p.", true, 0},
      {"rename", [&](void*) { return tnw_rename(drive.drive, "p", "q", nullptr); },
       "Failed to rename p->q.", true, 0},
      {"delete", [&](void*) { return tnw_delete(drive.drive, "p", nullptr); },
       "Failed to delete file p.", true, 0},
      {"can delete", [&](void*) { return tnw_canfilebedeleted(drive.drive, "p", &can_delete); },
       "Failed to check if file p can be deleted.", true, 0},
      {"lock", [](void* f) { return tnw_lockfile(f, 0, 0, 0, 1, 0, 1); },
       "Failed to lock file 00000001-0000-0000-0000-000000000000.", true, 0},
      {"unlock", [](void* f) { return tnw_unlockfile(f, 0, 0, 1, 0, 1); },
       "Failed to unlock file 00000001-0000-0000-0000-000000000000.", true, 0},
      {"open",
       [&](void*) { return tnw_create(drive.drive, nullptr, "p", 1, 7, 1, 0, 0, "", &err), err; },
       nullptr, true, 1467},
      {"list", [&](void*) { return tnw_findfirst(drive.drive, "p", &info, nullptr, &err), err; },
       nullptr, true, 1467},
      {"end list", [](void* f) { return tnw_findclose(f); }, nullptr, true, 0},
      {"fetch", [&](void* f) { return tnw_read(f, &byte, 1, 0, nullptr, nullptr); }, nullptr, false,
       1467},
      {"report", [&](void* f) { return tnw_write(f, &byte, 1, 0, nullptr, nullptr); }, nullptr,
       false, 1467},
      {"resize", [](void* f) { return tnw_setfilesize(f, 20, 0, nullptr); }, nullptr, false, 1467},
      {"cleanup", [](void* f) { return tnw_cleanup_file(f); }, "Failed to close file.", true, 0},
      {"close", [](void* f) { return tnw_close(f, nullptr); }, "Failed to close file.", true, 0},
      {"proxy", [&](void*) { return tnw_set_http_proxy(drive.drive, "p", "", ""); },
       "Failed to update proxy", false, 0},
      {"token", [&](void*) { return send_token(); }, "Failed to update token", false, 0},
  };
};

struct Request {
  const char* name;
  std::function<int()> call;
  vfs_op opcode;
  Bytes fields;
  std::string texts;
  const char* procname; /* null: neither a name nor a drive */
};

}  // namespace

TEST_F(Calls, SendTheirRequests) {
  void* file = open();
  void* d = drive.drive;
  const auto lock_fields = [](int kind) {
    tnv_wbrl_msg brl = {kind, 77, 0, 0, 10, 5, {}, {}};
    brl.wbrl_fso.fso_handle.id[0] = brl.wbrl_gid.id[0] = 1;
    return bytes_of(brl);
  };
  const Request requests[] = {
      {"stat", [&] { return tnw_getfileinfo(d, "\\p", &info, "me.exe"); }, TNV_OP_WIN_STAT,
       bytes_of(tnv_wstat_msg{3}), raw("\\p\0"), "me.exe"},
      {"rename", [&] { return tnw_rename(d, "a", "bc", "me.exe"); }, TNV_OP_WIN_RENAME,
       bytes_of(tnv_wrename_msg{1, 2}), raw("a\0bc\0"), "me.exe"},
      {"delete", [&] { return tnw_delete(d, "abc", "a-name-that-fills-the-whole-field"); },
       TNV_OP_WIN_DELETE, bytes_of(tnv_wdelete_msg{3}), raw("abc\0"),
       "a-name-that-fills-the-whole-fiel"},
      {"can delete", [&] { return tnw_canfilebedeleted(d, "abc", &can_delete); },
       TNV_OP_WIN_CANDELETE, bytes_of(tnv_wcandelete_msg{3}), raw("abc\0"), ""},
      {"shared lock", [&] { return tnw_lockfile(file, 1, 10, 1, 5, 1, 77); }, TNV_OP_WIN_BRL,
       lock_fields(2), "", "writer.exe"},
      {"exclusive lock", [&] { return tnw_lockfile(file, 3, 10, 0, 5, 0, 77); }, TNV_OP_WIN_BRL,
       lock_fields(3), "", "writer.exe"},
      {"unlock", [&] { return tnw_unlockfile(file, 10, 1, 5, 1, 77); }, TNV_OP_WIN_BRL,
       lock_fields(4), "", "writer.exe"},
      {"token", [&] { return send_token(); }, TNV_OP_UPDATETOKEN, bytes_of(tnv_updatetoken_msg{1}),
       raw("t\0"), nullptr},
      {"proxy", [&] { return tnw_set_http_proxy(d, "p:1", "", "pw"); }, TNV_OP_WIN_SETPROXY,
       bytes_of(tnv_wsetproxy_msg{3, 0, 2}), raw("p:1\0\0pw\0"), nullptr},
  };
  for (const Request& r : requests) {
    SCOPED_TRACE(r.name);
    EXPECT_EQ(r.call(), 0);
    const PeerRequest sent = drive.peer->requests().back();
    const tnv_msghdr& header = sent.msg().hdr;
    EXPECT_EQ(sent.opcode(), static_cast<ox_u32>(r.opcode));
    char procname[33] = {};
    memcpy(procname, header.hdr_procname, 32);
    EXPECT_STREQ(procname, r.procname ? r.procname : "");
    EXPECT_EQ(header.hdr_drvid.id[0], r.procname ? 0x22 : 0);
    Bytes body = r.fields;
    body.resize(504 - 72);
    body.insert(body.end(), r.texts.begin(), r.texts.end());
    EXPECT_EQ(Bytes(sent.bytes.begin() + 72, sent.bytes.end()), body);
  }
}

TEST_F(Calls, DoWithTheirAnswersWhatEachShould) {
  for (const AnsweredCall& c : calls) {
    SCOPED_TRACE(c.name);
    void* file = open();
    if (c.failure != nullptr) {
      LogCapture log;
      answer(13, false, Bytes(1168, 0xff));
      memset(&info, 0x5a, sizeof info);
      can_delete = false;
      EXPECT_EQ(c.call(file), ERROR_SHARING_VIOLATION);
      EXPECT_EQ(log.count(13, c.failure), 1u) << c.failure;
      EXPECT_EQ(info.fi_id[0], 0x5a);
      EXPECT_FALSE(can_delete);
      if (strcmp(c.name, "close") == 0) {
        file = open();
      }
    }
    answer(0, true);
    EXPECT_EQ(c.call(file), c.heeds_mark ? UNAUTHORIZED : 0);

    const size_t sent = drive.peer->requests().size();
    LogCapture log;
    answer(0, false, Bytes(1168, 0xff));
    EXPECT_EQ(get_info(), c.heeds_mark ? UNAUTHORIZED : 0);
    EXPECT_EQ(drive.peer->requests().size(), sent + !c.heeds_mark);
    EXPECT_EQ(log.count(13, "tarn is unauthorized"), c.heeds_mark);
    answer(5, true);
    EXPECT_EQ(send_token(), ERROR_IO_DEVICE) << "sent whatever the mark says";
    answer(0, false, Bytes(1168, 0xff));
    EXPECT_EQ(get_info(), c.heeds_mark ? UNAUTHORIZED : 0) << "a marked answer leaves it";
    answer(5);
    EXPECT_EQ(send_token(), ERROR_IO_DEVICE);
    answer(0, false, Bytes(1168, 0xff));
    EXPECT_EQ(get_info(), 0) << "an answer without the mark lifts it, a refusal too";
    EXPECT_EQ(info.fi_name[244], '\xff') << "a name that fills its field";
    EXPECT_EQ(tnw_canfilebedeleted(drive.drive, "p", &can_delete), 0);
    EXPECT_TRUE(can_delete);
  }
}

TEST_F(Calls, AreRefusedWithoutARequestOnceTheServiceIsUnauthorized) {
  void* const file = open();
  answer(0, true);
  EXPECT_EQ(get_info(), UNAUTHORIZED);
  const size_t sent = drive.peer->requests().size();
  EXPECT_EQ(tnw_findnext(file, &info), UNAUTHORIZED);
  EXPECT_EQ(tnw_checkfolderempty(file, &can_delete), UNAUTHORIZED);
  for (const AnsweredCall& c : calls) {
    SCOPED_TRACE(c.name);
    const bool sends = strcmp(c.name, "proxy") == 0 || strcmp(c.name, "token") == 0;
    LogCapture log;
    EXPECT_EQ(c.call(file), sends ? 0 : UNAUTHORIZED);
    EXPECT_EQ(log.count(13, "tarn is unauthorized"), !sends);
  }
  EXPECT_EQ(drive.peer->requests().size(), sent + 2);
}

TEST_F(Calls, OnADeadConnectionMostlyReadAsSuccess) {
  std::vector<void*> files;
  for (size_t i = 0; i < calls.size(); i++) {
    files.push_back(open());
  }
  drive.peer->hang_up();
  EXPECT_TRUE(drive.peer->wait_for_ended(2));
  for (size_t i = 0; i < calls.size(); i++) {
    EXPECT_EQ(calls[i].call(files[i]), calls[i].when_dead) << calls[i].name;
  }
}

/* One worker, so that all calls share the connection whose transaction ids decide. */
TEST(Events, AreLeftAlsoWhileAnotherCallWaitsForItsAnswer) {
  PeerDrive drive;
  drive.record.tnw_max_threads = 1;
  ASSERT_NE(drive.start(), nullptr);
  tnv_wopen_resp opened = open_answer();
  opened.wopen_resp_handle = local_file(drive.folder / "local", "local");
  drive.answer_opens(opened);
  void* const file = drive.open("f");
  std::promise<void> asked;
  ox_u64 utxid = 5;
  drive.peer->on_request([&](PeerConnection& conn) {
    if (conn.opcode() == TNV_OP_WIN_STAT) {
      asked.set_value();
      conn.stall();
    }
    tnv_resphdr header = conn.header();
    header.rhdr_utxid = std::exchange(utxid, 0);
    conn.send(bytes_of(header));
  });
  const auto events = [&] {
    const LogCapture log;
    char byte;
    EXPECT_EQ(tnw_read(file, &byte, 1, 0, nullptr, nullptr), 0);
    return log.count("TNV_OP_WIN_READ");
  };
  EXPECT_EQ(events(), 0u) << "no id came yet";
  EXPECT_EQ(tnw_delete(drive.drive, "p", nullptr), 0);
  EXPECT_EQ(events(), 1u);
  tnw_fileinfo info;
  auto stat = std::async(std::launch::async,
                         [&] { return tnw_getfileinfo(drive.drive, "p", &info, nullptr); });
  asked.get_future().wait();
  EXPECT_EQ(events(), 1u) << "the last answer had an id, the next is still to come";
  drive.peer->resume();
  EXPECT_EQ(stat.get(), 0);
  EXPECT_EQ(events(), 0u) << "the last answer had none";
}

/* ------------------------------------------------------------------- size */

namespace {

struct Resize {
  const char* name;
  ox_u64 from; /* the size that the service reports */
  ox_u64 to;
  ox_u32 fetch_err;
  enum { SIZE, NO_SIZE, CLEAR } answer;
  ox_u32 truncate_err;
  int code;
  ox_s64 asked; /* the region's offset, or -1 */
  bool truncates;
  int cached; /* bits afterwards; -1: no maps. Before: cached 0x7f, dirty 0x0f */
  int dirty;
};

const Resize resizes[] = {
    {"grow from a byte", 1, 48, 0, Resize::SIZE, 0, 0, 32, true, 0x7f, 0x0f | 0x06},
    {"grow", 100, 150, 0, Resize::SIZE, 0, 0, 144, true, 0x3ff, 0x38f},
    {"within the region", 100, 101, 0, Resize::SIZE, 0, 0, 96, true, 0x7f, 0x0f},
    {"to a multiple", 100, 32, 0, Resize::SIZE, 0, 0, 16, true, 0x03, 0x03},
    {"shrink", 100, 33, 0, Resize::SIZE, 0, 0, 32, true, 0x07, 0x07},
    {"past 4 GiB", 100, 1ull << 32, 0, Resize::SIZE, 0, 0, (1ll << 32) - 16, true, 0xffff, 0xff8f},
    {"empty", 100, 0, 0, Resize::SIZE, 0, 0, -1, true, -1, -1},
    {"empty, refused", 100, 0, 0, Resize::SIZE, 28, 112, -1, true, 0x7f, 0x0f},
    {"nothing to fetch", 100, 33, 7, Resize::SIZE, 0, 0, 32, true, 0x07, 0x07},
    {"nothing to fetch, no size", 100, 33, 7, Resize::NO_SIZE, 0, 0, 32, true, 0x7f, 0x0f},
    {"will not cache", 100, 150, 25, Resize::SIZE, 0, 0, 144, true, 0x7f, 0x0f},
    {"clear mark", 100, 33, 0, Resize::CLEAR, 0, 0, 32, false, -1, -1},
    {"fetch failed", 100, 33, 5, Resize::SIZE, 0, 1117, 32, true, 0x07, 0x07},
    {"fetch failed, no size", 100, 33, 5, Resize::NO_SIZE, 0, 1117, 32, true, 0x7f, 0x0f},
    {"truncate failed", 100, 33, 0, Resize::SIZE, 28, 112, 32, true, 0x07, 0x07},
    {"both failed", 100, 33, 5, Resize::SIZE, 28, 112, 32, true, 0x07, 0x07},
};

int bits(const ox_u8* map) { return map != nullptr ? map[0] | map[1] << 8 : -1; }

}  // namespace

TEST_F(Calls, ResizeTheLocalFileAndItsMaps) {
  for (const Resize& r : resizes) {
    SCOPED_TRACE(r.name);
    void* file = open({0x7f, 0, 0x0f, 0});
    drive.peer->on_request([&](PeerConnection& conn) {
      const tnv_cache_region_resp fetched = {
          0, 16, r.from, static_cast<ox_u8>(r.answer == Resize::CLEAR), {}};
      if (conn.opcode() == TNV_OP_FTRUNCATE) {
        return conn.answer(r.truncate_err);
      }
      if (conn.opcode() != TNV_OP_CACHE_REGION) {
        return conn.answer();
      }
      if (r.answer == Resize::NO_SIZE) {
        return conn.answer(r.fetch_err);
      }
      conn.answer(r.fetch_err, fetched);
    });
    const size_t before = drive.peer->requests().size();
    LogCapture log;
    char procname[32] = "";
    EXPECT_EQ(
        tnw_setfilesize(file, static_cast<ox_u32>(r.to), static_cast<ox_u32>(r.to >> 32), procname),
        r.code);
    EXPECT_STREQ(procname, "writer.exe");
    EXPECT_EQ(std::filesystem::file_size(local()), r.to) << "whatever the service answered";

    const auto requests = drive.peer->requests();
    ox_s64 asked = -1;
    bool truncates = false;
    for (size_t i = before; i < requests.size(); i++) {
      const tnv_cache_region_msg& fetch = requests[i].msg().u.cache_region;
      if (requests[i].opcode() == TNV_OP_CACHE_REGION) {
        asked = static_cast<ox_s64>(fetch.cache_read_off);
        EXPECT_EQ(fetch.cache_read_len, 16u);
        EXPECT_EQ(fetch.cache_read_trunc, 1);
      } else {
        truncates = true;
        EXPECT_EQ(requests[i].msg().u.ftruncate.cache_trunc_nfsz, r.to);
      }
    }
    EXPECT_EQ(asked, r.asked);
    EXPECT_EQ(truncates, r.truncates);
    const auto* fde = static_cast<const tnvfd*>(file);
    EXPECT_EQ(bits(fde->fdt_rmap), r.cached);
    EXPECT_EQ(bits(fde->fdt_dmap), r.dirty);
    EXPECT_EQ(fde->fdt_stat.st_size, r.to);
    EXPECT_EQ(log.count(5, "Cache regions message sent as part of setfilesize() to 33 failed."),
              r.fetch_err == 5);
    drive.peer->on_request(ScriptedPeer::answer_success);
    EXPECT_EQ(tnw_close(file, nullptr), 0);
    EXPECT_EQ(drive.peer->requests().back().msg().u.wclose.wclose_tnflags & TNV_FL_MODIFIED, 8u);
  }
}

TEST_F(Calls, ResizeAFileThatIsMarkedAsMappedButHasNoMaps) {
  void* file = open({});
  drive.peer->on_request(ScriptedPeer::answer_success);
  EXPECT_EQ(tnw_setfilesize(file, 20, 0, nullptr), 0);
  EXPECT_EQ(drive.peer->count(TNV_OP_FTRUNCATE), 1u);
  EXPECT_EQ(std::filesystem::file_size(local()), 20u);
}

TEST_F(Calls, KeepTheSizeThatTheLocalFileKeeps) {
  LogCapture log;
  void* file = open(Bytes(4), GENERIC_READ);
  drive.peer->on_request([](PeerConnection& conn) { conn.answer(28); });
  FILE_END_OF_FILE_INFO end = {};
  ASSERT_FALSE(SetFileInformationByHandle(static_cast<tnvfd*>(file)->fdt_ofd, FileEndOfFileInfo,
                                          &end, sizeof end));
  const DWORD code = GetLastError(); /* 5, but Wine has another opinion */
  EXPECT_EQ(tnw_setfilesize(file, 20, 0, nullptr), static_cast<int>(code))
      << "not what the service answered";
  EXPECT_EQ(static_cast<tnvfd*>(file)->fdt_stat.st_size, 100u);
  EXPECT_EQ(log.count(static_cast<int>(winerr2unixerr(code)),
                      "Failed to set filesize for 00000001-0000-0000-0000-000000000000:"
                      "00000000-0000-0000-0000-000000000000"),
            1u);
}

/* ------------------------------------------------------------------- purge */

namespace {

/* Runs a program of the host that Wine runs on, in a folder. */
void run_under_wine(const std::string& program, std::string command, const std::string& in) {
  STARTUPINFOA start = {};
  PROCESS_INFORMATION run = {};
  EXPECT_TRUE(CreateProcessA(("Z:\\bin\\" + program).c_str(), command.data(), nullptr, nullptr,
                             false, 0, nullptr, in.c_str(), &start, &run));
}

/* Waits up to five seconds until the path is there, or gone. */
void wait_for(const std::string& path, bool there) {
  const auto is_there = [&] { return GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES; };
  for (int i = 0; i < 500 && is_there() != there; i++) {
    Sleep(10);
  }
}

/*
 * A junction `link` to `target`, which is `relative` to it. False where only Wine's own kind of
 * link could be made, which it lists as one but cannot remove.
 */
bool link_folder(const std::string& link, const std::string& target, const std::string& relative) {
  std::filesystem::create_directories(link);
  HANDLE folder = CreateFileA(link.c_str(), GENERIC_WRITE, 7, nullptr, OPEN_EXISTING,
                              FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
  const std::wstring to = std::filesystem::path("\\??\\" + target).wstring();
  const auto size = static_cast<WORD>(to.size() * 2);
  WORD junction[512] = {0,
                        0xa000 /* IO_REPARSE_TAG_MOUNT_POINT */,
                        static_cast<WORD>(size + 12),
                        0,
                        0,
                        size,
                        static_cast<WORD>(size + 2)};
  memcpy(junction + 8, to.data(), size);
  DWORD done;
  const bool made = DeviceIoControl(folder, 0x900a4 /* FSCTL_SET_REPARSE_POINT */, junction,
                                    size + 20u, nullptr, 0, &done, nullptr) != 0;
  CloseHandle(folder);
  if (made) {
    return true;
  }
  std::filesystem::remove(link);
  const std::filesystem::path path(link);
  run_under_wine("ln", "ln -s " + relative + " " + path.filename().string(),
                 path.parent_path().string());
  wait_for(link, true);
  return false;
}

class Purge : public testing::Test {
 protected:
  Purge() {
    write_file((std::filesystem::create_directories(neighbour), neighbour + "\\file"), "x");
    std::filesystem::create_directories(dir);
    write_file(dir + "\\file", "x");
  }
  ~Purge() override { SetEnvironmentVariableA("TMP", nullptr); }

  int purge(const std::string& domain = "drive.test", const std::string& user = "ada") {
    tnw_purge_opt_t po = {};
    set_field(po.po_workdir, drive.folder.path().string());
    set_field(po.po_domain, domain);
    set_field(po.po_username, user);
    return tnw_purge_cache(&po);
  }

  PeerDrive drive;
  const std::string dir = cache_dir(drive.record);
  const std::string neighbour = drive.folder / "drive.test\\bob";
};

}  // namespace

TEST_F(Purge, RemovesWhateverIsThereAndNothingElse) {
  std::string deep = "\\\\?\\" + dir;
  for (int i = 0; i < 200; i++) {
    CreateDirectoryA((deep += "\\deeper").c_str(), nullptr);
  }
  write_file(deep + "\\file", "x");
  write_file(std::filesystem::path(dir) / L"\u65e5\u0416\U0001f600", "x");
  write_file(dir + "\\read-only", "x");
  SetFileAttributesA((dir + "\\read-only").c_str(), FILE_ATTRIBUTE_READONLY);
  LogCapture log;
  EXPECT_EQ(purge(), 0);
  EXPECT_FALSE(file_exists(dir));
  EXPECT_TRUE(file_exists(neighbour + "\\file"));
  EXPECT_EQ(log.count("Failed") + log.count("ERROR"), 0u);

  EXPECT_EQ(purge(), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(log.count(2, "Failed to purge cachedir " + dir), 2u) << "the move and the removal";
}

TEST_F(Purge, DoesNotFollowALink) {
  const std::string target = drive.folder / "target";
  write_file((std::filesystem::create_directories(target), target + "\\precious"), "x");
  SetEnvironmentVariableA("TMP", (drive.folder / "drive.test").c_str()); /* a relative link holds */
  const bool removable = link_folder(dir + "\\link", target, "../../target");
  LogCapture log;
  const int code = purge();
  EXPECT_TRUE(file_exists(target + "\\precious"));
  EXPECT_FALSE(file_exists(dir));
  EXPECT_EQ(code == 0, removable);
  EXPECT_EQ(log.count("Failed to purge tmp/cachedir "), !removable);
  if (removable) {
    return;
  }
  run_under_wine("rm", "rm -r drive.test", drive.folder.path().string());
  wait_for(drive.folder / "drive.test", false);
}

TEST_F(Purge, DeletesInPlaceWhatItCannotMove) {
  LogCapture log;
  SetEnvironmentVariableA("TMP", (drive.folder / "missing").c_str());
  EXPECT_EQ(purge(), ERROR_FILE_NOT_FOUND) << "the move's failure, deliberately";
  EXPECT_FALSE(file_exists(dir));
  EXPECT_EQ(log.count("Failed to purge cachedir " + dir + "\""), 1u);
  EXPECT_EQ(log.count("Unable to move folder from " + dir + " to " + drive.folder.path().string() +
                      "\\missing\\\\ada_"),
            1u);
}

TEST_F(Purge, TouchesNothingOfARunningService) {
  ASSERT_NE(drive.start(), nullptr);
  LogCapture log;
  EXPECT_EQ(purge(), ERROR_BUSY);
  EXPECT_EQ(log.count(16, "Cannot purge cachedir " + dir +
                              " because tarnd is still running for ada@drive.test"),
            1u);
  EXPECT_EQ(purge("Drive.test", "Ada"), ERROR_BUSY) << "the same folder";
  EXPECT_EQ(purge("drive.test", "ada. "), ERROR_BUSY) << "the same folder by another name";
  EXPECT_EQ(purge("drive.test", "ada\\logs"), ERROR_BUSY) << "a part of it";
  EXPECT_TRUE(file_exists(dir + "\\file"));
  EXPECT_EQ(purge("drive.test", "bob"), 0) << "another user's service is in nobody's way";
  EXPECT_FALSE(file_exists(neighbour));
}

/* And a folder that holds a running service's cache is as busy as that. */
TEST_F(Purge, TakesTheNamesThatAStartTakes) {
  for (const std::string user : {"CORP\\ada", "ada."}) {
    set_field(drive.record.tnw_username, user);
    ASSERT_NE(drive.start(), nullptr) << user;
    EXPECT_EQ(purge("drive.test", user), ERROR_BUSY);
    EXPECT_EQ(purge("drive.test", user.substr(0, user.find('\\'))), ERROR_BUSY);
    EXPECT_EQ(tnw_deinit_force(std::exchange(drive.drive, nullptr)), 0);
    drive.peer.reset();
    write_file(cache_dir(drive.record) + "\\file", "x");
    EXPECT_EQ(purge("drive.test", user), 0);
    EXPECT_FALSE(file_exists(cache_dir(drive.record)));
    EXPECT_TRUE(file_exists(neighbour + "\\file"));
  }
}

TEST_F(Purge, RefusesNamesThatLeadElsewhere) {
  LogCapture log;
  const char* const names[] = {"",
                               ".",
                               "..",
                               ".. ",
                               "...",
                               "a\\..",
                               "a\\..\\..",
                               "..\\bob",
                               "/../bob",
                               "c:",
                               "ada::$INDEX_ALLOCATION"};
  for (const std::string name : names) {
    EXPECT_EQ(purge("drive.test", name), ERROR_INVALID_DATA) << name;
    EXPECT_EQ(purge(name, "ada"), ERROR_INVALID_DATA) << name;
  }
  EXPECT_EQ(log.count("\"errno\":22, \"message\":\"Cannot purge a cache of "),
            2 * std::size(names));
  EXPECT_EQ(tnw_purge_cache(nullptr), ERROR_INVALID_DATA);
  EXPECT_EQ(log.count(22, "tnw_purge_opt_t param is NULL"), 1u);
  EXPECT_TRUE(file_exists(dir + "\\file"));
  EXPECT_TRUE(file_exists(neighbour + "\\file"));
}
