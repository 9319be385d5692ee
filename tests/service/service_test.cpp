// tarnd.exe from outside: its process, and every operation as bytes on the socket.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <winsock2.h>
// after winsock2.h
#include <windows.h>

#include <fstream>
#include <memory>
#include <sstream>

#include "ox_errno.h"
#include "raw_client.h"
#include "test_folder.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;

constexpr RawOpen kCreateNew{.disposition = 1};
constexpr RawOpen kCreateAlways{.disposition = 2};
constexpr RawOpen kOpenAlways{.disposition = 4};
constexpr RawOpen kTruncate{.disposition = 5};
constexpr RawOpen kFolder{.disposition = 4, .flags = 0x1};
constexpr uint32_t kModified = TNV_FL_MODIFIED;

class ServiceTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    WSADATA data;
    WSAStartup(MAKEWORD(2, 2), &data);
  }
  void SetUp() override { fs::create_directory(Cloud("")); }

  void StartAndConnect(const std::map<std::string, std::string>& variables = {
                           {"TARND_REGION_SHIFT", "4"}}) {
    ASSERT_TRUE(service_.Start("", variables)) << Log();
    connection_ = std::make_unique<RawConnection>(service_);
    ASSERT_EQ(connection_->Connect().error(), 0);
  }
  int Shutdown() {
    EXPECT_EQ(connection_->Ask(RawRequest(TNV_OP_SHUTDOWN)).error(), 0);
    connection_.reset();
    return service_.Wait();
  }

  fs::path Cloud(const std::string& name) const { return folder_.path() / "cloud" / name; }
  void Put(const std::string& name, const std::string& content) const {
    std::ofstream(Cloud(name), std::ios::binary) << content;
  }
  std::string Get(const std::string& name) const { return Text(Cloud(name)); }
  std::string Log() const { return Text(folder_.path() / "tarnd.log"); }
  static std::string Text(const fs::path& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
  }

  static void WriteAt(const RawFile& file, uint32_t offset, const std::string& data) {
    OVERLAPPED position = {};
    position.Offset = offset;
    DWORD written = 0;
    ASSERT_TRUE(WriteFile(file.handle(), data.data(), static_cast<DWORD>(data.size()), &written,
                          &position));
  }
  // As the client does: cached, reported, written.
  void Change(const RawFile& file, uint32_t offset, const std::string& data) {
    ASSERT_EQ(connection_->CacheRegion(file, offset, data.size()).error(), 0);
    ASSERT_EQ(connection_->DirtyRegion(file, offset, data.size()).error(), 0);
    WriteAt(file, offset, data);
  }
  int CloseFile(const RawFile& file, uint32_t tnflags = 0) {
    CloseHandle(file.handle());
    return connection_->Close(file, tnflags);
  }

  TestFolder folder_;
  ServiceProcess service_{folder_.path().string()};
  std::unique_ptr<RawConnection> connection_;
};

// ------------------------------------------------------------------ the process

TEST_F(ServiceTest, StartsOnceAndEndsWhenAsked) {
  StartAndConnect();
  EXPECT_EQ(Text(folder_.path() / "cache" / "tarnd_pid"), std::to_string(service_.pid()));
  const HANDLE pid_file = CreateFileW(
      (folder_.path() / "cache" / "tarnd_pid").c_str(), GENERIC_READ,
      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING, 0, nullptr);
  OVERLAPPED start = {};
  const DWORD at_once = LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY;
  EXPECT_FALSE(LockFileEx(pid_file, at_once, 0, MAXDWORD, MAXDWORD, &start));

  ServiceProcess second(folder_.path().string());
  EXPECT_FALSE(second.Start());
  EXPECT_EQ(second.Wait(), 1);

  connection_->List("/");
  EXPECT_EQ(Shutdown(), 0);
  EXPECT_TRUE(LockFileEx(pid_file, at_once, 0, MAXDWORD, MAXDWORD, &start));
  CloseHandle(pid_file);
  EXPECT_FALSE(fs::exists(service_.socket_path()));
  const auto counts = service_.Counts();
  EXPECT_EQ(counts.at("connect"), 1u);
  EXPECT_EQ(counts.at("denum"), 1u);
  EXPECT_EQ(counts.at("requests"), 4u) << "connect, denum, close, shutdown";
}

TEST_F(ServiceTest, RefusesToStartWithoutACloud) {
  fs::remove(Cloud(""));
  EXPECT_FALSE(service_.Start());
  EXPECT_EQ(service_.Wait(), 1);
  EXPECT_THAT(Log(), testing::HasSubstr("Cloud address"));
}

TEST_F(ServiceTest, WritesBackWhatAKilledServiceLeft) {
  Put("a.txt", "0123456789abcdefGHIJ");
  StartAndConnect();
  const RawFile file = connection_->Open("a.txt");
  Change(file, 2, "xx");
  service_.Kill();
  EXPECT_EQ(Get("a.txt"), "0123456789abcdefGHIJ");
  CloseHandle(file.handle());
  StartAndConnect();
  EXPECT_EQ(Get("a.txt"), "01xx456789abcdefGHIJ");
  EXPECT_EQ(Shutdown(), 0);
}

TEST_F(ServiceTest, SaysWhatItIs) {
  StartAndConnect();
  const RawAnswer answer = connection_->Ask(RawRequest(TNV_OP_GET_VERSION));
  const ox_get_version_t& version = answer.resp.u.get_version.ver_fields;
  EXPECT_EQ(answer.resp.rhdr.rhdr_len, 536u);
  EXPECT_EQ(version.gv_process_id, static_cast<int>(service_.pid()));
  EXPECT_STREQ(version.gv_device_id, "t-dev");
  EXPECT_STREQ(version.gv_da_device_id, "d-dev");
  EXPECT_STREQ(version.gv_tn_args.sa_cfs, "https://acme.example.com");
  EXPECT_EQ(version.gv_vfs_enabled, 1);
  EXPECT_EQ(version.gv_authorized, 1);
}

TEST_F(ServiceTest, NumbersAndDelaysAnswersWhenTold) {
  StartAndConnect(
      {{"TARND_UTXID", "70"}, {"TARND_LATENCY_MS", "300"}, {"TARND_LATENCY_OPS", "stat"}});
  ULONGLONG start = GetTickCount64();
  EXPECT_EQ(connection_->Ask(RawRequest(TNV_OP_GET_VERSION)).resp.rhdr.rhdr_utxid, 71u);
  EXPECT_LT(GetTickCount64() - start, 290u);
  start = GetTickCount64();
  EXPECT_EQ(connection_->Stat("/").resp.rhdr.rhdr_utxid, 72u);
  EXPECT_GE(GetTickCount64() - start, 290u);
}

// ------------------------------------------------------------------ malformed requests

TEST_F(ServiceTest, LengthsThatCannotBeEndTheConnection) {
  StartAndConnect();
  for (const ox_u32 length : {0u, 72u, 503u, 0x7fffffffu, 0xffffffffu}) {
    RawConnection connection(service_);
    RawRequest request(TNV_OP_GET_VERSION);
    request->hdr.hdr_len = length;
    request.bytes.resize(sizeof(tnv_msghdr));
    ASSERT_TRUE(connection.Send(request.bytes));
    EXPECT_EQ(connection.Receive().error(), OX_EINVAL) << length;
    EXPECT_FALSE(connection.Receive().came) << length;
  }
  EXPECT_EQ(connection_->Ask(RawRequest(TNV_OP_GET_VERSION)).error(), 0) << "others go on";
}

TEST_F(ServiceTest, TextsThatDisagreeWithTheLengthAreRefused) {
  StartAndConnect();
  for (const ox_s32 length : {-1, 0, 1, 2, 4, 5, INT32_MAX, INT32_MIN}) {
    RawRequest request(TNV_OP_WIN_STAT);
    request.Text("ab");  // 3 with the NUL
    request->u.wstat.wstat_path_len = length;
    EXPECT_EQ(connection_->Ask(request).error(), OX_EINVAL) << length;
  }
  RawRequest unterminated(TNV_OP_WIN_STAT);
  unterminated.bytes.push_back('a');
  unterminated->u.wstat.wstat_path_len = 1;
  EXPECT_EQ(connection_->Ask(unterminated).error(), OX_EINVAL);
  RawRequest rename(TNV_OP_WIN_RENAME);
  rename.Text("a").Text("b");
  rename->u.wrename.wrename_msg_slen = 3;
  rename->u.wrename.wrename_msg_dlen = -1;
  EXPECT_EQ(connection_->Ask(rename).error(), OX_EINVAL);
  EXPECT_EQ(connection_->Ask(RawRequest(99)).error(), OX_ENOSYS);
  EXPECT_EQ(connection_->Ask(RawRequest(TNV_OP_WIN_OPEN)).error(), OX_EINVAL);
  EXPECT_EQ(RawConnection(service_).Stat("/").error(), OX_EINVAL) << "before CONNECT";
  EXPECT_EQ(connection_->Ask(RawRequest(TNV_OP_WIN_DISCONNECT)).error(), 0);
  EXPECT_FALSE(connection_->Receive().came);
}

TEST_F(ServiceTest, AnyBytesLeaveItAlive) {
  StartAndConnect();
  unsigned state = 12345;
  for (int round = 0; round < 100; round++) {
    RawRequest request(static_cast<uint32_t>(round) % (TNV_OP_SHUTDOWN + 3));
    if (request->hdr.hdr_opcode == TNV_OP_SHUTDOWN) continue;
    for (size_t i = sizeof(tnv_msghdr); i < request.bytes.size(); i++) {
      state = state * 1103515245 + 12345;
      request.bytes[i] = static_cast<uint8_t>(state >> 24);
    }
    request.Text("some/path");
    RawConnection connection(service_);
    connection.Connect();
    connection.Ask(request);
  }
  EXPECT_EQ(connection_->Ask(RawRequest(TNV_OP_GET_VERSION)).error(), 0);
}

// ------------------------------------------------------------------ files

TEST_F(ServiceTest, Dispositions) {
  Put("there.txt", "content");
  StartAndConnect();
  EXPECT_EQ(connection_->Open("there.txt", kCreateNew).error, OX_EEXIST);
  EXPECT_EQ(connection_->Open("missing.txt").error, OX_ENOENT);
  EXPECT_EQ(connection_->Open("missing.txt", kTruncate).error, OX_ENOENT);
  EXPECT_EQ(connection_->Open("no/folder.txt", kCreateNew).error, OX_ENOENT);
  EXPECT_EQ(connection_->Open("there.txt", kFolder).error, OX_ENOTDIR);
  EXPECT_EQ(connection_->Open("../there.txt").error, OX_EPERM);
  EXPECT_EQ(connection_->Open("x", {.disposition = 6}).error, OX_EINVAL);
  EXPECT_EQ(connection_->Open("/", {.flags = 0x40}).error, OX_EPERM);

  RawFile file = connection_->Open("\\there.txt", kOpenAlways);
  EXPECT_EQ(file.error, TNV_OPEN_EXISTED);
  EXPECT_EQ(file.answer.wopen_resp_stat.st_size, 7u);
  EXPECT_EQ(file.answer.wopen_resp_tnflags, uint32_t{TNV_FL_MAPPED});
  EXPECT_EQ(file.maps.size(), 2 * file.answer.wopen_resp_rmap_size);
  EXPECT_EQ(CloseFile(file), 0);
  EXPECT_EQ(connection_->Close(file), OX_EBADF);

  file = connection_->Open("there.txt", kCreateAlways);
  EXPECT_EQ(file.error, TNV_OPEN_EXISTED);
  EXPECT_EQ(file.answer.wopen_resp_stat.st_size, 0u);
  EXPECT_EQ(file.answer.wopen_resp_tnflags, uint32_t{TNV_FL_MAPPED | TNV_FL_NEWER});
  EXPECT_EQ(Get("there.txt"), "content") << "until the close";
  EXPECT_EQ(CloseFile(file), 0);
  EXPECT_EQ(Get("there.txt"), "");

  file = connection_->Open("Grüße 🚀.txt", kCreateNew);
  EXPECT_EQ(file.error, 0);
  Change(file, 0, "new");
  EXPECT_EQ(CloseFile(file, kModified), 0);
  EXPECT_EQ(Text(Cloud("") / L"Gr\u00fc\u00dfe \U0001F680.txt"), "new");
}

TEST_F(ServiceTest, FetchesOnDemandAndWritesBackTheWhole) {
  Put("a.txt", "0123456789abcdef0123456789ABCDEFxyz");
  StartAndConnect();
  const RawFile file = connection_->Open("a.txt");
  const RawAnswer answer = connection_->CacheRegion(file, 20, 1);
  EXPECT_EQ(answer.resp.u.cache_region.cr_soff, 16u);
  EXPECT_EQ(answer.resp.u.cache_region.cr_sz, 12u) << "to the region's end";
  EXPECT_EQ(answer.resp.u.cache_region.cr_fsz, 35u);
  Change(file, 34, "Z and more than fits the last region");
  EXPECT_EQ(CloseFile(file, kModified), 0);
  EXPECT_EQ(Get("a.txt"), "0123456789abcdef0123456789ABCDEFxyZ and more than fits the last region");
  EXPECT_EQ(Shutdown(), 0);
  const auto counts = service_.Counts();
  EXPECT_EQ(counts.at("regions_fetched"), 2u);
  EXPECT_EQ(counts.at("bytes_fetched"), 19u);
  EXPECT_EQ(counts.at("files_written_back"), 1u);
}

TEST_F(ServiceTest, ShareModes) {
  Put("a.txt", "x");
  StartAndConnect();
  const RawFile reader = connection_->Open("a.txt", {.access = 1, .share = 1});
  ASSERT_EQ(reader.error, 0);
  EXPECT_EQ(connection_->Open("A.TXT", {.access = 2}).error, OX_EACCES);
  EXPECT_EQ(connection_->Open("a.txt", {.access = 1, .share = 2}).error, OX_EACCES);
  EXPECT_EQ(connection_->Open("a.txt", {.access = 1, .disposition = 5}).error, OX_EACCES);
  const RawFile attributes = connection_->Open("a.txt", {.access = 0, .share = 0});
  EXPECT_EQ(attributes.error, 0);
  EXPECT_EQ(connection_->PathRequest(TNV_OP_WIN_CANDELETE, "a.txt"), -2);
  EXPECT_EQ(connection_->PathRequest(TNV_OP_WIN_DELETE, "a.txt"), OX_EACCES);
  EXPECT_EQ(connection_->Rename("a.txt", "b.txt"), OX_EACCES);
  EXPECT_EQ(connection_->Cleanup(reader), 0);
  const RawFile writer = connection_->Open("a.txt", {.access = 2, .share = 0});
  EXPECT_EQ(writer.error, 0) << "a cleaned-up open blocks nobody";
  EXPECT_EQ(CloseFile(writer) | CloseFile(reader) | CloseFile(attributes), 0);
}

TEST_F(ServiceTest, RangeLocksBelongToOpens) {
  Put("a.txt", "x");
  StartAndConnect();
  const RawFile one = connection_->Open("a.txt");
  RawConnection other(service_);
  ASSERT_EQ(other.Connect().error(), 0);
  RawFile two = connection_->Open("a.txt");
  EXPECT_EQ(connection_->Lock(one, TN_SMBLK_EX_BRL, 0, 10), 0);
  EXPECT_EQ(other.Lock(two, TN_SMBLK_SH_BRL, 9, 1), OX_EACCES);
  EXPECT_EQ(other.Lock(two, TN_SMBLK_UNLOCK_BRL, 0, 10), OX_EINVAL);
  EXPECT_EQ(connection_->Cleanup(one), 0);
  EXPECT_EQ(other.Lock(two, TN_SMBLK_EX_BRL, 0, 10), 0) << "released by the cleanup";
  EXPECT_EQ(connection_->Lock(two, TN_SMBLK_LEASE, 0, 10), OX_EINVAL);
  EXPECT_EQ(CloseFile(two) | CloseFile(one), 0);
  EXPECT_EQ(other.Lock(two, TN_SMBLK_SH_BRL, 0, 1), OX_EBADF);
}

TEST_F(ServiceTest, AClientThatLeavesLosesNothing) {
  Put("a.txt", "old");
  StartAndConnect();
  RawFile file = connection_->Open("a.txt", {.share = 0});
  Change(file, 0, "new");
  CloseHandle(file.handle());
  connection_.reset();
  // The opens end with the last connection; nothing tells a client when.
  for (int tries = 0; tries < 100; tries++) {
    RawConnection next(service_);
    ASSERT_EQ(next.Connect().error(), 0);
    file = next.Open("a.txt", {.share = 0});
    if (file.error == 0) break;
    Sleep(20);
  }
  EXPECT_EQ(file.error, 0);
  EXPECT_EQ(Get("a.txt"), "new");
  CloseHandle(file.handle());
}

TEST_F(ServiceTest, ShutdownWritesBackWhatIsStillOpen) {
  Put("a.txt", "old");
  StartAndConnect();
  const RawFile file = connection_->Open("a.txt");
  Change(file, 0, "new");
  EXPECT_EQ(Shutdown(), 0);
  EXPECT_EQ(Get("a.txt"), "new");
  CloseHandle(file.handle());
}

// ------------------------------------------------------------------ names

TEST_F(ServiceTest, ListsWhatIsThereAsItIsLocally) {
  Put("b.txt", "1");
  Put("a.txt", "22");
  fs::create_directory(Cloud("folder"));
  StartAndConnect();
  const RawFile file = connection_->Open("a.txt");
  Change(file, 2, "2222");
  const auto list = connection_->List("\\");
  ASSERT_EQ(list.size(), 3u);
  EXPECT_STREQ(list[0].fi_name, "a.txt");
  EXPECT_EQ(list[0].fi_size, 6u) << "grown, not yet written back";
  EXPECT_STREQ(list[1].fi_name, "b.txt");
  EXPECT_EQ(list[1].fi_size, 1u);
  EXPECT_STREQ(list[2].fi_name, "folder");
  EXPECT_EQ(list[2].fi_attr & 16, 16u);
  EXPECT_EQ(connection_->Stat("a.txt").resp.u.wstat.wstat_fi.fi_size, 6u);
  EXPECT_EQ(connection_->Stat("none").error(), OX_ENOENT);
  EXPECT_EQ(connection_->List("folder").size(), 0u);
  EXPECT_EQ(CloseFile(file, kModified), 0);
}

TEST_F(ServiceTest, RenamesAndDeletes) {
  Put("a.txt", "content");
  Put("b.txt", "");
  StartAndConnect();
  ASSERT_EQ(connection_->Close(connection_->Open("folder", kFolder)), 0);
  EXPECT_EQ(connection_->Rename("a.txt", "b.txt"), OX_EEXIST);
  EXPECT_EQ(connection_->Rename("none", "c"), OX_ENOENT);
  EXPECT_EQ(connection_->Rename("/", "c"), OX_EPERM);
  EXPECT_EQ(connection_->Rename("a.txt", "../c"), OX_EPERM);
  const RawFile file = connection_->Open("a.txt");
  Change(file, 0, "CON");
  EXPECT_EQ(connection_->Rename("a.txt", "folder\\c.txt"), 0) << "it shares deletion";
  EXPECT_EQ(connection_->Rename("folder", "moved"), OX_EBUSY);
  EXPECT_EQ(connection_->PathRequest(TNV_OP_WIN_DELETE, "folder"), OX_ENOTEMPTY);
  EXPECT_EQ(connection_->PathRequest(TNV_OP_WIN_CANDELETE, "folder"), -2);
  EXPECT_EQ(CloseFile(file, kModified), 0);
  EXPECT_EQ(Get("folder/c.txt"), "CONtent");
  EXPECT_EQ(connection_->Rename("folder", "moved"), 0);

  const RawFile again = connection_->Open("moved/c.txt");
  EXPECT_EQ(connection_->PathRequest(TNV_OP_WIN_CANDELETE, "moved/c.txt"), 0);
  EXPECT_EQ(connection_->PathRequest(TNV_OP_WIN_DELETE, "moved/c.txt"), 0);
  const RawFile fresh = connection_->Open("moved/c.txt", kCreateNew);
  EXPECT_EQ(fresh.error, 0) << "another file of that name";
  EXPECT_EQ(CloseFile(again, kModified), 0);
  EXPECT_EQ(Get("moved/c.txt"), "");
  EXPECT_EQ(CloseFile(fresh), 0);
  EXPECT_EQ(connection_->PathRequest(TNV_OP_WIN_DELETE, "moved/c.txt"), 0);
  EXPECT_EQ(connection_->PathRequest(TNV_OP_WIN_DELETE, "moved"), 0);
  EXPECT_EQ(connection_->PathRequest(TNV_OP_WIN_DELETE, "moved"), OX_ENOENT);
}

TEST_F(ServiceTest, TheShareIsARoot) {
  fs::create_directories(Cloud("team/docs"));
  Put("team/docs/a.txt", "x");
  Put("secret.txt", "x");
  StartAndConnect();
  RawConnection share(service_);
  EXPECT_EQ(share.Connect("/none").error(), OX_ENOENT);
  EXPECT_EQ(share.Connect("/secret.txt").error(), OX_ENOTDIR);
  EXPECT_EQ(share.Connect("/team/docs").error(), 0);
  EXPECT_EQ(share.Stat("a.txt").error(), 0);
  EXPECT_EQ(share.Stat("../../secret.txt").error(), OX_EPERM);
  EXPECT_EQ(share.PathRequest(TNV_OP_WIN_DELETE, "/"), OX_EPERM);
}

// ------------------------------------------------------------------ credentials

TEST_F(ServiceTest, AnExpiredTokenStopsFileRequestsUntilTheNextOne) {
  Put("a.txt", "old");
  StartAndConnect();
  const RawFile file = connection_->Open("a.txt");
  Change(file, 0, "new");
  EXPECT_EQ(connection_->UpdateToken("expired"), OX_EPERM);
  const RawAnswer refused = connection_->Stat("a.txt");
  EXPECT_EQ(refused.error(), OX_EPERM);
  EXPECT_EQ(refused.resp.rhdr.rhdr_tn_unauthd, 1);
  EXPECT_EQ(connection_->Close(file, kModified), OX_EPERM);
  EXPECT_EQ(connection_->Ask(RawRequest(TNV_OP_GET_VERSION)).error(), 0);
  EXPECT_EQ(connection_->UpdateToken(""), 0);
  EXPECT_EQ(CloseFile(file, kModified), 0) << "the refused close can be repeated";
  EXPECT_EQ(Get("a.txt"), "new");

  RawRequest proxy(TNV_OP_WIN_SETPROXY);
  proxy.Text("proxy:80").Text("").Text("");
  proxy->u.wsetproxy.wproxy_server_len = 8;
  EXPECT_EQ(connection_->Ask(proxy).error(), 0);
}

}  // namespace
