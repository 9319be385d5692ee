// The library with the real service on a folder of real files: what a drive application sees, and
// what is in the cloud afterwards.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <random>
#include <thread>

#include "real_drive.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Key;
using testing::UnorderedElementsAre;

constexpr int NO_SERVICE = 1467;
constexpr OpenHow READING = {.access = ACC_READ};

class Drive : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(drive.start()) << drive.error; }

  RealDrive drive;
};

// A content in plain memory that takes the same writes as a file.
class Plain {
 public:
  explicit Plain(std::string start = "") : bytes_(std::move(start)) {}
  void write(size_t off, const std::string& data) {
    if (data.empty()) return;
    if (bytes_.size() < off + data.size()) bytes_.resize(off + data.size());
    bytes_.replace(off, data.size(), data);
  }
  std::string read(size_t off, size_t len) const {
    return off < bytes_.size() ? bytes_.substr(off, len) : "";
  }
  void clear() { bytes_.clear(); }
  size_t size() const { return bytes_.size(); }
  const std::string& all() const { return bytes_; }

 private:
  std::string bytes_;
};

// Contents may be large and binary: they are compared without being printed.
testing::AssertionResult same(const std::string& got, const std::string& want) {
  if (got == want) return testing::AssertionSuccess();
  const auto differ = std::mismatch(got.begin(), got.end(), want.begin(), want.end());
  return testing::AssertionFailure() << got.size() << " bytes instead of " << want.size()
                                     << ", different from " << differ.first - got.begin();
}

}  // namespace

// ------------------------------------------------------------------ names and folders

TEST_F(Drive, ListsNamesOfAnyScript) {
  const std::string long_name(240, 'n');
  drive.put("plain.txt", "12345");
  drive.put("gr\u00f6\u00dfe \u65e5\u672c\u8a9e.txt", "1");
  drive.put("\U0001f600 smile", "");
  drive.put("sub/deeper/" + long_name, "x");
  std::filesystem::create_directory(drive.in_cloud("empty"));

  int code = -1;
  auto root = drive.list("\\", &code);
  EXPECT_EQ(code, ERROR_NO_MORE_FILES);
  EXPECT_THAT(root,
              UnorderedElementsAre(Key("plain.txt"), Key("gr\u00f6\u00dfe \u65e5\u672c\u8a9e.txt"),
                                   Key("\U0001f600 smile"), Key("sub"), Key("empty")));
  EXPECT_EQ(root["plain.txt"].fi_size, 5u);
  EXPECT_EQ(root["plain.txt"].fi_attr & FILE_ATTRIBUTE_DIRECTORY, 0u);
  EXPECT_NE(root["sub"].fi_attr & FILE_ATTRIBUTE_DIRECTORY, 0u);
  for (const char* path : {"sub\\deeper", "/sub/deeper", "\\sub/deeper\\", "sub\\..\\sub\\deeper"})
    EXPECT_THAT(drive.list(path), ElementsAre(Key(long_name))) << path;
  DriveFile file(drive, "\\gr\u00f6\u00dfe \u65e5\u672c\u8a9e.txt");
  EXPECT_EQ(file.read_all(), "1");
}

TEST_F(Drive, TellsAnEmptyFolderFromAMissingOne) {
  std::filesystem::create_directory(drive.in_cloud("empty"));
  drive.put("file", "x");
  tnw_fileinfo entry;
  int code = -1;
  void* listing = tnw_findfirst(drive.drive, "empty", &entry, nullptr, &code);
  ASSERT_NE(listing, nullptr);
  EXPECT_EQ(code, ERROR_NO_MORE_FILES);
  bool is_empty = false;
  EXPECT_EQ(tnw_checkfolderempty(listing, &is_empty), 0);
  EXPECT_TRUE(is_empty);
  EXPECT_EQ(tnw_findnext(listing, &entry), ERROR_NO_MORE_FILES);
  EXPECT_EQ(tnw_findclose(listing), 0);
  EXPECT_EQ(tnw_findclose(listing), ERROR_BAD_ARGUMENTS);

  const auto refusal = [&](const char* path) {
    int err = -1;
    EXPECT_THAT(drive.list(path, &err), IsEmpty()) << path;
    return err;
  };
  EXPECT_EQ(refusal("missing"), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(refusal("missing\\below"), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(refusal("file"), ERROR_DIRECTORY);
  EXPECT_EQ(refusal("..\\work"), ERROR_ACCESS_DENIED);
}

TEST_F(Drive, MakesFolders) {
  DriveFile made(drive, "new", {CREATE, ACC_READ, SHARE_ALL, WANT_FOLDER});
  ASSERT_EQ(made.error(), 0);
  EXPECT_TRUE(std::filesystem::is_directory(drive.in_cloud("new")));
  int code = -1;
  made.read(0, 1, &code);
  EXPECT_EQ(code, ERROR_INVALID_HANDLE);
  EXPECT_EQ(tnw_cleanup_file(made.handle()), 0);
  EXPECT_EQ(made.close(), 0);
  EXPECT_EQ(DriveFile(drive, "new", {CREATE, ACC_READ, SHARE_ALL, WANT_FOLDER}).error(),
            ERROR_FILE_EXISTS);
  EXPECT_EQ(DriveFile(drive, "/new", {.flags = WANT_FOLDER}).error(), 0);
  EXPECT_EQ(DriveFile(drive, "new", {.flags = WANT_FILE}).error(), ERROR_ACCESS_DENIED);
  drive.put("new/file", "x");
  EXPECT_EQ(DriveFile(drive, "new\\file", {.flags = WANT_FOLDER}).error(), ERROR_DIRECTORY);
  EXPECT_EQ(DriveFile(drive, "new/file", {.flags = WANT_FILE}).error(), 0);
}

TEST_F(Drive, StaysInItsShare) {
  write_file(drive.folder / "secret", "secret");
  for (const char* path :
       {"..\\secret", "/../secret", "sub/..\\../secret", "..\\my cloud\\..\\secret"}) {
    EXPECT_EQ(DriveFile(drive, path).error(), ERROR_ACCESS_DENIED) << path;
    EXPECT_EQ(DriveFile(drive, path, {.disposition = OVERWRITE_IF}).error(), ERROR_ACCESS_DENIED);
  }
  EXPECT_EQ(read_file(drive.folder / "secret"), "secret");
}

// ------------------------------------------------------------------ contents

TEST_F(Drive, ReadsWhatTheCloudHas) {
  const std::string original = noise(70 * REGION + 123, 1);
  drive.put("file", original);
  DriveFile file(drive, "file", READING);
  std::minstd_rand random(2);
  for (int i = 0; i < 150; i++) {
    const size_t off = random() % original.size();
    const size_t len = 1 + random() % (3 * REGION);
    int code = -1;
    ASSERT_TRUE(same(file.read(off, len, &code), original.substr(off, len))) << off << ' ' << len;
    ASSERT_EQ(code, 0);
  }
  EXPECT_TRUE(same(file.read_all(), original));

  int code = -1;
  EXPECT_EQ(file.read(original.size() - 10, 100, &code).size(), 10u) << "straddles the end";
  EXPECT_EQ(code, 0);
  for (const ox_u64 past : {original.size(), original.size() + 10 * REGION, size_t{1} << 40}) {
    EXPECT_EQ(file.read(past, 10, &code), "");
    EXPECT_EQ(code, ERROR_HANDLE_EOF) << past;
  }
}

TEST_F(Drive, WritesLikePlainMemoryAndKeepsTheCloudsFileUntilTheClose) {
  Plain plain(noise(10 * REGION, 3));
  drive.put("file", plain.all());
  const std::string before = plain.all();
  DriveFile file(drive, "file");
  const auto write = [&](size_t off, size_t len) {
    const std::string data = noise(len, static_cast<unsigned>(off));
    EXPECT_EQ(file.write(off, data), 0);
    plain.write(off, data);
  };
  write(17, 100);                           // within a region
  write(2 * REGION - 5, 10);                // across two
  write(4 * REGION, 2 * REGION);            // whole ones
  write(plain.size() - 3, 50);              // over the end
  write(plain.size(), 3 * REGION);          // appended
  write(plain.size() + 9 * REGION + 7, 1);  // behind a gap
  EXPECT_TRUE(same(file.read_all(), plain.all()));
  EXPECT_TRUE(same(drive.get("file"), before));
  EXPECT_EQ(drive.list("/")["file"].fi_size, plain.size()) << "as it is locally";
  EXPECT_EQ(file.close(), 0);
  EXPECT_TRUE(same(drive.get("file"), plain.all()));
}

// The maps of an open cover what it may grow to; far behind them the service is asked each time.
TEST_F(Drive, WritesFarBehindTheMaps) {
  Plain plain("start");
  drive.put("file", plain.all());
  DriveFile file(drive, "file");
  for (int i = 0; i < 3; i++) {
    const size_t off = (2000 + 2 * static_cast<size_t>(i)) * REGION - 1;
    EXPECT_EQ(file.write(off, "far away"), 0);
    plain.write(off, "far away");
    EXPECT_EQ(file.read(off, 8), "far away");
  }
  EXPECT_TRUE(same(file.read_all(), plain.all()));
  EXPECT_EQ(file.close(), 0);
  EXPECT_TRUE(same(drive.get("file"), plain.all()));
}

TEST_F(Drive, OpensOfOneFileSeeEachOthersWrites) {
  Plain plain(noise(5 * REGION, 4));
  drive.put("file", plain.all());
  DriveFile one(drive, "file");
  DriveFile two(one, {});
  EXPECT_EQ(two.read(0, 10), plain.read(0, 10)) << "cached here before it is dirty there";
  EXPECT_EQ(one.write(5, "one"), 0);
  EXPECT_EQ(two.write(7, "two"), 0);
  EXPECT_EQ(two.write(3 * REGION, "only here"), 0);
  plain.write(5, "one");
  plain.write(7, "two");
  plain.write(3 * REGION, "only here");
  EXPECT_TRUE(same(one.read_all(), plain.all()));
  EXPECT_TRUE(same(two.read_all(), plain.all()));
  EXPECT_EQ(one.close(), 0);
  EXPECT_TRUE(same(drive.get("file"), plain.all())) << "a close that wrote takes all back";
  EXPECT_EQ(two.write(8, "again"), 0) << "a region that was written back meanwhile";
  plain.write(8, "again");
  EXPECT_TRUE(same(two.read_all(), plain.all()));
  EXPECT_EQ(two.close(), 0);
  EXPECT_TRUE(same(drive.get("file"), plain.all()));
}

// As the pages of a mapped file are written: through whatever open is left.
TEST_F(Drive, WritesThroughAReadOnlyOpenReachTheCloud) {
  drive.put("mapped", "old content");
  drive.put("carried", "old content");
  DriveFile alone(drive, "mapped", READING);
  EXPECT_EQ(alone.write(0, "new"), 0);
  EXPECT_EQ(alone.close(), 0);
  EXPECT_EQ(drive.get("mapped"), "new content");

  DriveFile reader(drive, "carried", READING);
  DriveFile writer(reader, {});
  EXPECT_EQ(reader.write(0, "new"), 0);
  EXPECT_EQ(writer.close(), 0);
  EXPECT_EQ(drive.get("carried"), "new content") << "told by the close of the writable open";
}

TEST_F(Drive, EmptyFiles) {
  drive.put("empty", "");
  DriveFile file(drive, "empty");
  int code = -1;
  EXPECT_EQ(file.read(0, 10, &code), "");
  EXPECT_EQ(code, ERROR_HANDLE_EOF);
  EXPECT_EQ(file.close(), 0);
  DriveFile made(drive, "made", {.disposition = CREATE});
  EXPECT_EQ(made.close(), 0);
  EXPECT_TRUE(file_exists(drive.in_cloud("made"))) << "though nothing was written";
  DriveFile filled(drive, "empty");
  EXPECT_EQ(filled.write(2 * REGION, "x"), 0);
  EXPECT_EQ(filled.close(), 0);
  EXPECT_TRUE(same(drive.get("empty"), std::string(2 * REGION, '\0') + "x"));
}

TEST_F(Drive, SeesAtTheNextOpenWhatChangedInTheCloud) {
  drive.put("file", noise(4 * REGION, 5));
  DriveFile before(drive, "file", READING);
  EXPECT_EQ(before.read_all().size(), 4 * REGION);
  EXPECT_EQ(before.close(), 0);
  for (const size_t size : {size_t{7 * REGION}, size_t{10}}) {
    const std::string changed = noise(size, 6);
    drive.put("file", changed);
    EXPECT_TRUE(same(DriveFile(drive, "file", READING).read_all(), changed));
  }
}

TEST_F(Drive, ThreadsReadOneOpenFileAtOnce) {
  const std::string original = noise(100 * REGION, 7);
  drive.put("file", original);
  DriveFile file(drive, "file", READING);
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (unsigned t = 0; t < 6; t++)
    threads.emplace_back([&, t] {
      std::minstd_rand random(t + 1);
      for (int i = 0; i < 60; i++) {
        const size_t off = random() % original.size();
        const size_t len = 1 + random() % (2 * REGION);
        if (file.read(off, len) != original.substr(off, len)) wrong++;
      }
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

// ------------------------------------------------------------------ how files are opened

TEST_F(Drive, DispositionsOnWhatIsThere) {
  struct {
    Disposition disposition;
    int error;
    ox_u32 last_error;
    std::string content;
  } const cases[] = {
      {SUPERSEDE, 0, ERROR_ALREADY_EXISTS, ""},
      {OPEN, 0, 0, "content"},
      {CREATE, ERROR_FILE_EXISTS, 0, "content"},
      {OPEN_IF, 0, ERROR_ALREADY_EXISTS, "content"},
      {OVERWRITE, 0, 0, ""},
      {OVERWRITE_IF, 0, ERROR_ALREADY_EXISTS, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.disposition);
    drive.put("file", "content");
    DriveFile file(drive, "file", {.disposition = c.disposition});
    EXPECT_EQ(file.error(), c.error);
    if (!file.handle()) continue;
    EXPECT_EQ(file.last_error(), c.last_error);
    EXPECT_EQ(file.read_all(), c.content);
    EXPECT_EQ(file.close(), 0);
    EXPECT_EQ(drive.get("file"), c.content);
  }
}

TEST_F(Drive, DispositionsOnWhatIsMissing) {
  for (const ox_u32 disposition : {SUPERSEDE, OPEN, CREATE, OPEN_IF, OVERWRITE, OVERWRITE_IF}) {
    SCOPED_TRACE(disposition);
    const std::string name = "file" + std::to_string(disposition);
    const bool creates = disposition != OPEN && disposition != OVERWRITE;
    DriveFile file(drive, name, {.disposition = disposition});
    EXPECT_EQ(file.error(), creates ? 0 : ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(file_exists(drive.in_cloud(name)), creates);
    if (!file.handle()) continue;
    EXPECT_EQ(file.last_error(), 0u);
    EXPECT_EQ(file.write(0, "new"), 0);
    EXPECT_EQ(file.close(), 0);
    EXPECT_EQ(drive.get(name), "new");
  }
}

// An open that empties the file does so before it returns, for all its opens.
TEST_F(Drive, TruncationIsSeenByOtherOpens) {
  for (const Disposition disposition : {SUPERSEDE, OVERWRITE_IF}) {
    SCOPED_TRACE(disposition);
    drive.put("file", noise(3 * REGION, 8));
    DriveFile other(drive, "file");
    EXPECT_EQ(other.read(0, 5).size(), 5u);
    DriveFile emptied(other, {.disposition = disposition});
    for (const ox_u64 off : {ox_u64{0}, 2 * REGION}) {
      int code = -1;
      EXPECT_EQ(other.read(off, 5, &code), "");
      EXPECT_EQ(code, ERROR_HANDLE_EOF);
    }
    EXPECT_EQ(other.write(1, "b"), 0);
    EXPECT_EQ(emptied.write(0, "a"), 0);
    EXPECT_EQ(other.read_all(), "ab");
    EXPECT_EQ(emptied.close(), 0);
    EXPECT_EQ(other.write(2, "c"), 0);
    EXPECT_EQ(other.close(), 0);
    EXPECT_EQ(drive.get("file"), "abc");
  }
}

TEST_F(Drive, RefusesOpensThatAreNotShared) {
  drive.put("file", "x");
  struct {
    OpenHow first;
    OpenHow second;
    int error;
  } const cases[] = {
      {{.share = SHARE_NONE}, {.access = ACC_READ}, ERROR_SHARING_VIOLATION},
      {{.access = ACC_READ, .share = SHARE_READ}, {.access = ACC_READ}, 0},
      {{.access = ACC_READ, .share = SHARE_READ}, {.access = ACC_WRITE}, ERROR_SHARING_VIOLATION},
      {{.access = ACC_WRITE}, {.access = ACC_READ, .share = SHARE_READ}, ERROR_SHARING_VIOLATION},
      {{.access = ACC_READ, .share = SHARE_READ},
       {.disposition = OVERWRITE, .access = ACC_READ},
       ERROR_SHARING_VIOLATION},
      {{.share = SHARE_NONE}, {.access = ACC_NONE}, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    DriveFile first(drive, "file", c.first);
    ASSERT_EQ(first.error(), 0);
    EXPECT_EQ(DriveFile(first, c.second).error(), c.error);
    EXPECT_EQ(tnw_cleanup_file(first.handle()), 0);
    EXPECT_EQ(DriveFile(first, c.second).error(), 0) << "after the cleanup it blocks nobody";
  }
}

// ------------------------------------------------------------------ messages

TEST_F(Drive, WarmReadsAndWritesSendNoMessage) {
  drive.put("file", noise(20 * REGION, 9));
  DriveFile file(drive, "file");
  ASSERT_EQ(file.read(0, 4 * REGION).size(), 4 * REGION);  // fetches four regions at once
  ASSERT_EQ(file.write(2 * REGION + 1, "x"), 0);           // reports one of them
  ASSERT_EQ(file.write(30 * REGION, "x"), 0);              // reports one that needs no fetch
  for (ox_u64 i = 0; i < 500; i++) {
    ASSERT_EQ(file.read(i * 7, REGION + 1).size(), REGION + 1);
    ASSERT_EQ(file.write(2 * REGION + i * 8, "warm"), 0);
    ASSERT_EQ(file.write(30 * REGION + i * 8, "appended"), 0);
  }
  EXPECT_EQ(file.close(), 0);
  ASSERT_EQ(drive.stop(), 0);
  EXPECT_EQ(drive.count("cache_region"), 1u);
  EXPECT_EQ(drive.count("dirty_region"), 2u);
  EXPECT_EQ(drive.count("open"), 1u);
  EXPECT_EQ(drive.count("close"), 1u);
  EXPECT_EQ(drive.count("regions_fetched"), 4u);
  EXPECT_EQ(drive.count("bytes_fetched"), 4 * REGION);
  EXPECT_EQ(drive.count("files_written_back"), 1u);
  EXPECT_EQ(drive.count("malformed"), 0u);
}

// ------------------------------------------------------------------ the service's life

TEST_F(Drive, AServiceThatIsKilledLosesNoByte) {
  const std::string original = noise(6 * REGION, 10);
  Plain plain(original);
  drive.put("file", original);
  DriveFile file(drive, "file");
  ASSERT_EQ(file.read(0, 10), original.substr(0, 10));
  ASSERT_EQ(file.write(REGION, "written before the kill"), 0);
  plain.write(REGION, "written before the kill");
  drive.kill_service();
  EXPECT_EQ(DriveFile(drive, "file").error(), NO_SERVICE);
  int code = -1;
  drive.list("/", &code);
  EXPECT_EQ(code, NO_SERVICE);
  EXPECT_EQ(file.read(0, 10), original.substr(0, 10)) << "warm";
  EXPECT_EQ(file.write(REGION + 8, "AFTER!"), 0) << "dirty already";
  plain.write(REGION + 8, "AFTER!");
  file.read(4 * REGION, 10, &code);
  EXPECT_EQ(code, NO_SERVICE) << "not cached";
  EXPECT_EQ(file.write(3 * REGION, "x"), NO_SERVICE) << "not dirty";
  EXPECT_EQ(file.close(), 0) << "a broken connection reads as success";
  EXPECT_EQ(drive.stop_gently(), -1) << "the shut-down's result, as it is";
  EXPECT_TRUE(same(drive.get("file"), original));

  ASSERT_TRUE(drive.start()) << drive.error;
  EXPECT_TRUE(same(drive.get("file"), plain.all())) << "recovered";
  EXPECT_TRUE(same(DriveFile(drive, "file").read_all(), plain.all()));
  EXPECT_EQ(drive.stop_gently(), 0);
}

TEST_F(Drive, DeinitWritesBackWhatIsLeftOpen) {
  drive.put("file", "old content");
  void* slot = nullptr;
  int err = -1;
  void* file =
      tnw_create(drive.drive, &slot, "file", ACC_BOTH, SHARE_ALL, OPEN, 0, 0, nullptr, &err);
  ASSERT_NE(file, nullptr);
  ox_s64 count = 0;
  char data[] = "new";
  EXPECT_EQ(tnw_write(file, data, 3, 0, &count, nullptr), 0);
  EXPECT_EQ(drive.stop(), 0);
  EXPECT_EQ(drive.get("file"), "new content");
  EXPECT_EQ(tnw_close(file, nullptr), NO_SERVICE);
}

TEST(DriveStart, NeedsNoToken) {
  RealDrive drive;
  set_field(drive.record.tnw_authtoken, "");
  ASSERT_TRUE(drive.start()) << drive.error;
  drive.put("file", "x");
  EXPECT_EQ(DriveFile(drive, "file").read_all(), "x");
}

// ------------------------------------------------------------------ all at once

namespace {

// One thread's file: random calls, each compared with plain memory.
class Worker {
 public:
  Worker(RealDrive& drive, unsigned seed)
      : drive_(drive), random_(seed), name_("file " + std::to_string(seed)) {
    if (seed % 2) plain_ = Plain(noise(seed * 3 * REGION, seed));
    drive.put(name_, plain_.all());
  }

  void run() {
    reopen();
    for (int i = 0; i < 160 && !failed(); i++) step();
    expect(file_->close() == 0, "last close");
    expect(drive_.get(name_) == plain_.all(), "the cloud's content");
  }
  const std::string& failure() const { return failure_; }

 private:
  unsigned below(size_t limit) { return static_cast<unsigned>(random_() % limit); }
  bool failed() const { return !failure_.empty(); }
  void expect(bool holds, const char* what) {
    if (!holds && !failed()) failure_ = name_ + ": " + what;
  }

  void step() {
    switch (below(16)) {
      case 0:
        return reopen();
      case 1:
        return second_open();
      case 2:
        return write(plain_.size(), 1 + below(REGION));
      case 3:
        return write(plain_.size() + below(3 * REGION), 1 + below(100));
      case 4:
      case 5:
      case 6:
      case 7:
        return write(below(plain_.size() + 1), 1 + below(2 * REGION));
      default:
        return read(below(plain_.size() + REGION), 1 + below(3 * REGION));
    }
  }

  void reopen() {
    const bool empties = below(10) == 0;
    if (file_) {
      expect(file_->close() == 0, "close");
      expect(drive_.get(name_) == plain_.all(), "the cloud's content after a close");
    }
    file_ = std::make_unique<DriveFile>(drive_, name_,
                                        OpenHow{.disposition = empties ? OVERWRITE_IF : OPEN});
    expect(file_->error() == 0, "open");
    if (empties) plain_.clear();
  }

  void second_open() {
    DriveFile other(*file_, {});
    const size_t off = below(plain_.size() + 1);
    const std::string data = noise(1 + below(REGION), below(1000));
    expect(other.write(off, data) == 0, "write through a second open");
    plain_.write(off, data);
    expect(other.close() == 0, "close of a second open");
  }

  void write(size_t off, size_t len) {
    const std::string data = noise(len, below(1000));
    expect(file_->write(off, data) == 0, "write");
    plain_.write(off, data);
  }

  void read(size_t off, size_t len) {
    int code = -1;
    const std::string got = file_->read(off, len, &code);
    expect(code == (off < plain_.size() ? 0 : ERROR_HANDLE_EOF), "code of a read");
    expect(got == plain_.read(off, len), "content of a read");
  }

  RealDrive& drive_;
  std::minstd_rand random_;
  const std::string name_;
  Plain plain_;
  std::unique_ptr<DriveFile> file_;
  std::string failure_;
};

}  // namespace

TEST_F(Drive, ThreadsOnFilesOfTheirOwnAgreeWithPlainMemory) {
  std::vector<std::unique_ptr<Worker>> workers;
  for (unsigned seed = 1; seed <= 8; seed++)
    workers.push_back(std::make_unique<Worker>(drive, seed));
  std::vector<std::thread> threads;
  for (auto& worker : workers) threads.emplace_back([&worker] { worker->run(); });
  for (std::thread& thread : threads) thread.join();
  for (auto& worker : workers) EXPECT_EQ(worker->failure(), "");
}
