/*
 * Descriptors over Windows handles, paths of descriptors, file locks, and the helpers that need
 * Windows.
 */
#include "ox_platform.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <set>
#include <thread>

#include "captured_log.h"
#include "ox_errno.h"
#include "ox_lock.h"
#include "ox_util.h"

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;

namespace {

constexpr ox_u32 rw_create = OX_O_RDWR | OX_O_CREAT;
constexpr ox_u32 fail_at_once_exclusive = 3;

class Platform : public testing::Test {
 protected:
  std::string path(const char* name) const { return folder_.file(name); }
  int create(const char* name, const char* content = "") const {
    const int fd = ox_creat(path(name).c_str(), rw_create | OX_O_TRUNC, 0644);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(static_cast<ox_s64>(strlen(content)), ox_pwrite(fd, content, strlen(content), 0));
    return fd;
  }
  HANDLE open_handle(const char* name) const {
    return CreateFileA(path(name).c_str(), GENERIC_READ, 7, nullptr, OPEN_EXISTING, 0, nullptr);
  }
  ox_u64 size_of(const char* name) const {
    ox_stat_t st = {};
    EXPECT_EQ(0, ox_stat(path(name).c_str(), &st));
    return st.st_size;
  }
  temp_folder folder_;
};

/* The descriptor that the next open gets: it stays the same while none is kept. */
int next_descriptor() {
  const int fd = ox_open("NUL", OX_O_RDONLY);
  EXPECT_EQ(0, ox_close(fd));
  return fd;
}

}  // namespace

TEST(Disposition, OfOpenFlags) {
  EXPECT_EQ(3u, ox_create_disposition(OX_O_RDONLY));
  EXPECT_EQ(1u, ox_create_disposition(OX_O_RDONLY | OX_O_CREAT));
  EXPECT_EQ(3u, ox_create_disposition(OX_O_RDONLY | OX_O_TRUNC));
  for (const ox_u32 access : {OX_O_WRONLY, OX_O_RDWR}) {
    EXPECT_EQ(3u, ox_create_disposition(access));
    EXPECT_EQ(4u, ox_create_disposition(access | OX_O_CREAT));
    EXPECT_EQ(4u, ox_create_disposition(access | OX_O_CREAT | OX_O_EXCL));
    EXPECT_EQ(5u, ox_create_disposition(access | OX_O_TRUNC | OX_O_SYNC));
    EXPECT_EQ(2u, ox_create_disposition(access | OX_O_CREAT | OX_O_TRUNC));
  }
}

TEST_F(Platform, CreatesOpensAndTruncates) {
  const captured_log log;
  EXPECT_EQ(0, ox_close(create("f", "content")));
  EXPECT_EQ(-1, ox_creat(path("f").c_str(), OX_O_RDONLY | OX_O_CREAT, 0644));
  EXPECT_EQ(ERROR_FILE_EXISTS, static_cast<DWORD>(errno));
  EXPECT_EQ(-1, ox_creat(path("no/f").c_str(), rw_create, 0644));
  EXPECT_EQ(OX_ENOENT, errno);
  EXPECT_THAT(log.lines(), IsEmpty()) << "ox_creat is silent";

  const int kept = ox_creat(path("f").c_str(), rw_create | OX_O_SYNC, 0644);
  EXPECT_EQ(7u, size_of("f"));
  EXPECT_EQ(0, ox_unlink(path("f").c_str())) << "shared for deletion";
  EXPECT_EQ(0, ox_close(kept));
  EXPECT_EQ(-1, ox_unlink(path("f").c_str()));
  EXPECT_EQ(OX_ENOENT, errno);

  EXPECT_EQ(0, ox_close(ox_creat(path("ro").c_str(), rw_create, 0444)));
  EXPECT_NE(0u, GetFileAttributesA(path("ro").c_str()) & FILE_ATTRIBUTE_READONLY);
  EXPECT_EQ(-1, ox_open(path("").c_str(), OX_O_RDWR)) << "a folder";
  EXPECT_EQ(ERROR_ACCESS_DENIED, static_cast<DWORD>(errno)) << "kept by the log line before it";
  const auto lines = log.lines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_THAT(lines[0], EndsWith("ox_open: Cannot open file " + path("")));
  EXPECT_NE(std::string::npos, lines[0].find("] ERR:005 ox_platform_:")) << lines[0];
}

TEST_F(Platform, SeeksToEachWhence) {
  const int fd = create("f", "0123456789");
  EXPECT_EQ(4, ox_lseek(fd, 4, 0));
  EXPECT_EQ(22, ox_lseek(fd, 1, 3));
  EXPECT_EQ(22, ox_lseek(fd, 1, -1));
  EXPECT_EQ(6, ox_lseek(fd, 2, 1)) << "22 left the position";
  EXPECT_EQ(13, ox_lseek(fd, 3, 2));
  EXPECT_EQ(0x500000000, ox_lseek(fd, 0x500000000, 0));
  EXPECT_EQ(-1, ox_lseek(fd, -1, 0));
  EXPECT_EQ(ERROR_NEGATIVE_SEEK, static_cast<DWORD>(errno));
  EXPECT_EQ(0, ox_close(fd));
  EXPECT_EQ(-1, ox_lseek(fd, 0, 0));
  EXPECT_EQ(ERROR_INVALID_HANDLE, static_cast<DWORD>(errno));
}

TEST_F(Platform, TruncatesAndLeavesThePositionThere) {
  const int fd = create("f", "0123456789abcdef");
  EXPECT_EQ(0, ox_ftruncate(fd, 10));
  EXPECT_EQ(10, ox_lseek(fd, 0, 1));
  EXPECT_EQ(10u, size_of("f"));
  EXPECT_EQ(0, ox_ftruncate(fd, 4096));
  char tail[8] = "#######";
  EXPECT_EQ(8, ox_pread(fd, tail, 8, 9));
  EXPECT_EQ(std::string("9\0\0\0\0\0\0\0", 8), std::string(tail, 8));
  EXPECT_EQ(0, ox_close(fd));

  const captured_log log;
  EXPECT_EQ(-1, ox_ftruncate(-1, 5000000000));
  EXPECT_EQ(ERROR_INVALID_HANDLE, static_cast<DWORD>(errno));
  EXPECT_THAT(log.lines(),
              ElementsAre(EndsWith("ox_ftruncate: Cannot truncate fd -1 to 5000000000")));
}

TEST_F(Platform, TransfersAtOffsets) {
  const int fd = create("f", "0123456789");
  char buf[32] = "";
  EXPECT_EQ(4, ox_pread(fd, buf, sizeof(buf), 6));
  EXPECT_STREQ("6789", buf);
  EXPECT_EQ(3, ox_pwrite(fd, "abc", 3, 9));
  EXPECT_EQ(12u, size_of("f"));
  errno = 0;
  EXPECT_EQ(-1, ox_pread(fd, buf, 1, 12));
  EXPECT_EQ(38, errno) << "the end of the file";
  errno = 0;
  EXPECT_EQ(-1, ox_pread(fd, buf, 1, 0x100000000)) << "the offset's upper half counts";
  EXPECT_EQ(38, errno);
  EXPECT_EQ(0, ox_close(fd));
  errno = 77;
  EXPECT_EQ(-1, ox_pread(fd, buf, 1, 0));
  EXPECT_EQ(-1, ox_pwrite(-1, buf, 1, 0));
  EXPECT_EQ(-1, ox_pread(123456789, buf, 1, 0));
  EXPECT_EQ(77, errno) << "left alone";
  EXPECT_EQ(-1, ox_close(fd));
  EXPECT_EQ(OX_EBADF, errno);
  EXPECT_EQ(-1, ox_close(-1));
}

TEST_F(Platform, NamesDescriptors) {
  const captured_log log;
  const int fd = create("f");
  char buf[1024];
  ASSERT_EQ(1, ox_fd2path(fd, buf, sizeof(buf), nullptr));
  const std::string whole = buf;
  EXPECT_EQ(0u, whole.find("\\\\?\\"));
  EXPECT_THAT(whole, EndsWith("\\f"));
  ASSERT_EQ(1, ox_fd2path(fd, buf, sizeof(buf), "a/b"));
  EXPECT_EQ(whole + "\\a\\b", buf);

  const size_t fits = whole.size() + strlen("name") + 2;
  memset(buf, '#', sizeof(buf));
  ASSERT_EQ(1, ox_fd2path(fd, buf, fits, "name"));
  EXPECT_EQ(whole + "\\name", buf);
  EXPECT_EQ('#', buf[fits]);
  errno = 0;
  EXPECT_EQ(0, ox_fd2path(fd, buf, fits - 1, "name"));
  EXPECT_EQ(7, errno);
  ASSERT_EQ(1, ox_fd2path(fd, buf, whole.size() + 1, nullptr));
  EXPECT_EQ(whole, buf);
  EXPECT_THAT(log.lines(), IsEmpty());

  errno = 0;
  EXPECT_EQ(0, ox_fd2path(fd, buf, whole.size(), nullptr));
  EXPECT_EQ(7, errno) << "the path itself does not fit";
  EXPECT_EQ(0, ox_close(fd));
  EXPECT_EQ(0, ox_fd2path(-1, buf, sizeof(buf), nullptr));
  EXPECT_EQ(ERROR_INVALID_HANDLE, static_cast<DWORD>(errno));
  EXPECT_THAT(log.lines(),
              ElementsAre(EndsWith(" sz " + std::to_string(whole.size())),
                          EndsWith("ox_fd2path: Failed to GetFinalPathNameByHandleA for fd -1 fh "
                                   "ffffffffffffffff sz 1024")));
}

TEST_F(Platform, NamesHandlesAndKeepsNoDescriptor) {
  EXPECT_EQ(0, ox_close(create("f")));
  HANDLE handle = open_handle("f");
  const int before = next_descriptor();
  char buf[1024];
  for (int i = 0; i < 3000; ++i) {
    ASSERT_EQ(1, ox_handle2path(handle, buf, sizeof(buf), "n")) << i;
  }
  EXPECT_THAT(buf, EndsWith("\\f\\n"));
  EXPECT_EQ(before, next_descriptor());
  EXPECT_EQ(0, ox_handle2path(handle, buf, 8, nullptr));
  EXPECT_STREQ("", buf);
  const captured_log log; /* opens a file: afterwards the closed handle's number is free */
  EXPECT_TRUE(CloseHandle(handle)) << "it stayed the caller's";
  for (HANDLE bad : {handle, static_cast<HANDLE>(nullptr), INVALID_HANDLE_VALUE}) {
    memset(buf, '#', sizeof(buf));
    EXPECT_EQ(0, ox_handle2path(bad, buf, sizeof(buf), nullptr));
    EXPECT_STREQ("", buf);
  }
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Platform, ClosesHandlesEvenWithoutAFreeDescriptor) {
  EXPECT_EQ(0, ox_close(create("f")));
  DWORD flags = 0;
  HANDLE handle = open_handle("f");
  EXPECT_EQ(0, ox_close_fhdl(handle));
  EXPECT_FALSE(GetHandleInformation(handle, &flags));
  EXPECT_EQ(-1, ox_close_fhdl(INVALID_HANDLE_VALUE));
  EXPECT_EQ(OX_EBADF, errno);

  HANDLE last = open_handle("f");
  std::vector<int> taken;
  for (int fd = 0; (fd = ox_creat("NUL", OX_O_RDONLY, 0)) >= 0;) {
    taken.push_back(fd);
  }
  EXPECT_TRUE(errno == OX_EMFILE || errno == 23) << "23 is Wine's: " << errno;
  EXPECT_EQ(0, ox_close_fhdl(last));
  EXPECT_FALSE(GetHandleInformation(last, &flags));
  for (const int fd : taken) {
    EXPECT_EQ(0, ox_close(fd));
  }
  EXPECT_GE(ox_get_max_openfiles(), 20);
}

TEST_F(Platform, LocksRangesBetweenHandles) {
  const captured_log log;
  const int one = create("f", "0123456789");
  const int two = ox_open(path("f").c_str(), OX_O_RDWR);
  OVERLAPPED at4 = {};
  at4.Offset = 4;
  OVERLAPPED at6 = {};
  at6.Offset = 6;
  EXPECT_TRUE(ox_lock_file(one, fail_at_once_exclusive, 2, 0, &at4));
  EXPECT_TRUE(ox_lock_file(two, fail_at_once_exclusive, 2, 0, &at6)) << "beside it";
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_FALSE(ox_lock_file(two, fail_at_once_exclusive, 1, 0, &at4));
  EXPECT_EQ(ERROR_LOCK_VIOLATION, static_cast<DWORD>(errno));
  EXPECT_EQ(-1, ox_flock(two, fail_at_once_exclusive));
  EXPECT_TRUE(ox_unlock_file(one, 2, 0, &at4));
  EXPECT_TRUE(ox_lock_file(two, fail_at_once_exclusive, 1, 0, &at4));
  errno = 0;
  EXPECT_FALSE(ox_unlock_file(one, 2, 0, &at4)) << "not locked any more";
  EXPECT_NE(0, errno) << "158; on Wine 33";
  EXPECT_EQ(0, ox_close(one));
  EXPECT_EQ(0, ox_close(two));
  EXPECT_FALSE(ox_lock_file(-1, fail_at_once_exclusive, 1, 0, &at4));
  EXPECT_FALSE(ox_unlock_file(-1, 1, 0, &at4));
  EXPECT_EQ(-1, ox_flock(-1, fail_at_once_exclusive));
  EXPECT_EQ(OX_EBADF, errno);
  EXPECT_THAT(log.lines(),
              ElementsAre(EndsWith(" flags 3 bytes_low 1 bytes_high 0"),
                          EndsWith(" flags 0x3 low_bytes_locked 4294967295 high_bytes_locked "
                                   "4294967295"),
                          EndsWith(" bytes_low 2 bytes_high 0"),
                          EndsWith("ox_lock_file: Failed to _get_osfhandle on fd -1"),
                          EndsWith("ox_unlock_file: Failed to _get_osfhandle on fd -1"),
                          EndsWith("ox_flock: Failed to _get_osfhandle on fd -1")));
}

TEST_F(Platform, BlocksForALockUntilItsHandleCloses) {
  const int one = create("f");
  const int two = ox_open(path("f").c_str(), OX_O_RDWR);
  ASSERT_EQ(0, ox_flock(one, fail_at_once_exclusive));
  std::atomic<bool> closing = false;
  std::thread waiter([&] {
    EXPECT_EQ(0, ox_flock(two, LOCKFILE_EXCLUSIVE_LOCK));
    EXPECT_TRUE(closing);
  });
  closing = true;
  EXPECT_EQ(0, ox_close(one));
  waiter.join();
  EXPECT_EQ(0, ox_close(two));
}

TEST_F(Platform, StatusOfFilesAndFolders) {
  EXPECT_EQ(0, ox_close(create("f", "12345")));
  ox_stat_t st = {};
  EXPECT_EQ(0, ox_stat(path("f").c_str(), &st));
  EXPECT_EQ(5u, st.st_size);
  EXPECT_FALSE(st.st_isdir);
  EXPECT_EQ(0, ox_stat(path("").c_str(), &st));
  EXPECT_TRUE(st.st_isdir);
  EXPECT_EQ(-1, ox_stat(path("no/file").c_str(), &st));
  EXPECT_EQ(OX_ENOENT, errno);
}

TEST(Uuid, EachIsNewAndRandom) {
  std::set<std::string> seen;
  for (int i = 0; i < 100; ++i) {
    ox_u8 id[OX_UUID_SIZE];
    char text[OX_UUID_TEXT_SIZE];
    ox_uuid_generate(id);
    ox_uuid_unparse(id, text);
    EXPECT_EQ('4', text[14]) << "the version of random UUIDs, in its place of the layout";
    seen.insert(text);
  }
  EXPECT_EQ(100u, seen.size());
}
