/*
 * The library with the real service on a folder of real files: what a drive application sees, and
 * what is in the cloud afterwards. Sequences of calls on files are model_test's.
 */

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

constexpr OpenHow READING = {.access = TNW_ACC_READ};

class Drive : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(drive.start()) << drive.error; }

  RealDrive drive;
};

/* Contents may be large and binary: they are compared without being printed. */
testing::AssertionResult same(const std::string& got, const std::string& want) {
  if (got == want) {
    return testing::AssertionSuccess();
  }
  const auto differ = std::mismatch(got.begin(), got.end(), want.begin(), want.end());
  return testing::AssertionFailure() << got.size() << " bytes instead of " << want.size()
                                     << ", different from " << differ.first - got.begin();
}

}  // namespace

/* ------------------------------------------------------------------ names and folders */

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
  for (const char* path :
       {"sub\\deeper", "/sub/deeper", "\\sub/deeper\\", "sub\\..\\sub\\deeper"}) {
    EXPECT_THAT(drive.list(path), ElementsAre(Key(long_name))) << path;
  }
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

TEST_F(Drive, StaysInItsShare) {
  write_file(drive.folder / "secret", "secret");
  for (const char* path :
       {"..\\secret", "/../secret", "sub/..\\../secret", "..\\my cloud\\..\\secret"}) {
    EXPECT_EQ(DriveFile(drive, path).error(), ERROR_ACCESS_DENIED) << path;
    EXPECT_EQ(DriveFile(drive, path, {.disposition = TNW_DISP_OVERWRITE_IF}).error(),
              ERROR_ACCESS_DENIED);
  }
  EXPECT_EQ(read_file(drive.folder / "secret"), "secret");
}

/* ------------------------------------------------------------------ contents */

/* As the pages of a mapped file are written: through whatever open is left. */
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
  DriveFile made(drive, "made", {.disposition = TNW_DISP_CREATE});
  EXPECT_EQ(made.close(), 0);
  EXPECT_TRUE(file_exists(drive.in_cloud("made"))) << "though nothing was written";
  DriveFile filled(drive, "empty");
  EXPECT_EQ(filled.write(2 * REGION, "x"), 0);
  EXPECT_EQ(drive.list("/")["empty"].fi_size, 2 * REGION + 1) << "as it is locally";
  EXPECT_EQ(drive.get("empty"), "") << "until the close";
  EXPECT_EQ(filled.close(), 0);
  EXPECT_TRUE(same(drive.get("empty"), std::string(2 * REGION, '\0') + "x"));
}

TEST_F(Drive, ThreadsReadOneOpenFileAtOnce) {
  const std::string original = noise(100 * REGION, 7);
  drive.put("file", original);
  DriveFile file(drive, "file", READING);
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (unsigned t = 0; t < 6; t++) {
    threads.emplace_back([&, t] {
      std::minstd_rand random(t + 1);
      for (int i = 0; i < 60; i++) {
        const size_t off = random() % original.size();
        const size_t len = 1 + random() % (2 * REGION);
        if (file.read(off, len) != original.substr(off, len)) {
          wrong++;
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong, 0);
}

/* ------------------------------------------------------------------ messages */

TEST_F(Drive, WarmReadsAndWritesSendNoMessage) {
  drive.put("file", noise(20 * REGION, 9));
  DriveFile file(drive, "file");
  ASSERT_EQ(file.read(0, 4 * REGION).size(), 4 * REGION); /* fetches four regions at once */
  ASSERT_EQ(file.write(2 * REGION + 1, "x"), 0);          /* reports one of them */
  ASSERT_EQ(file.write(30 * REGION, "x"), 0);             /* reports one that needs no fetch */
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

/* ------------------------------------------------------------------ the service's life */

TEST_F(Drive, AServiceThatIsKilledLosesNoByte) {
  const std::string original = noise(6 * REGION, 10);
  std::string expected = original;
  drive.put("file", original);
  DriveFile file(drive, "file");
  ASSERT_EQ(file.read(0, 10), original.substr(0, 10));
  ASSERT_EQ(file.write(2 * REGION, "written before the kill"), 0)
      << "not behind the read: nothing is fetched ahead";
  drive.kill_service();
  EXPECT_EQ(DriveFile(drive, "file").error(), TNW_ERROR_NO_SERVICE);
  int code = -1;
  drive.list("/", &code);
  EXPECT_EQ(code, TNW_ERROR_NO_SERVICE);
  EXPECT_EQ(file.read(0, 10), original.substr(0, 10)) << "warm";
  EXPECT_EQ(file.write(2 * REGION + 8, "AFTER!"), 0) << "dirty already";
  expected.replace(2 * REGION, 23, "written AFTER! the kill");
  file.read(4 * REGION, 10, &code);
  EXPECT_EQ(code, TNW_ERROR_NO_SERVICE) << "not cached";
  EXPECT_EQ(file.write(3 * REGION, "x"), TNW_ERROR_NO_SERVICE) << "not dirty";
  EXPECT_EQ(file.close(), 0) << "a broken connection reads as success";
  EXPECT_EQ(drive.stop_gently(), -1) << "the shut-down's result, as it is";
  EXPECT_TRUE(same(drive.get("file"), original));

  ASSERT_TRUE(drive.start()) << drive.error;
  EXPECT_TRUE(same(DriveFile(drive, "file").read_all(), original)) << "nobody closed it";
  EXPECT_EQ(drive.stop_gently(), 0);
  EXPECT_TRUE(same(drive.get("file"), original));
  const auto beside = drive.beside("file");
  ASSERT_EQ(beside.size(), 1u);
  EXPECT_TRUE(same(drive.get(beside[0]), expected)) << "what was written is not lost";
}

TEST_F(Drive, DeinitWritesBackWhatIsLeftOpen) {
  drive.put("file", "old content");
  void* slot = nullptr;
  int err = -1;
  void* file = tnw_create(drive.drive, &slot, "file", ACC_BOTH, SHARE_ALL, TNW_DISP_OPEN, 0, 0,
                          nullptr, &err);
  ASSERT_NE(file, nullptr);
  ox_s64 count = 0;
  char data[] = "new";
  EXPECT_EQ(tnw_write(file, data, 3, 0, &count, nullptr), 0);
  EXPECT_EQ(drive.stop(), 0);
  EXPECT_EQ(drive.get("file"), "new content");
  EXPECT_EQ(tnw_close(file, nullptr), TNW_ERROR_NO_SERVICE);
}

TEST(DriveStart, NeedsNoToken) {
  RealDrive drive;
  set_field(drive.record.tnw_authtoken, "");
  ASSERT_TRUE(drive.start()) << drive.error;
  drive.put("file", "x");
  EXPECT_EQ(DriveFile(drive, "file").read_all(), "x");
}
