/*
 * Descriptors over Windows handles, paths of descriptors, file locks, and the helpers that need
 * Windows.
 */
#include "ox_platform.h"

#include <windows.h>

#include "ox_uuid.h"
#include "oxley_test.h"
#include "process_state.h"

using testing::MatchesRegex;

namespace {

constexpr ox_u32 RW_CREATE = OX_O_RDWR | OX_O_CREAT;

class Platform : public testing::Test {
 protected:
  std::string path(const char* name) const { return folder_ / name; }
  int create(const char* name, const char* content = "") const {
    const int fd = ox_creat(path(name).c_str(), RW_CREATE | OX_O_TRUNC, 0644);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(static_cast<ox_s64>(strlen(content)), ox_pwrite(fd, content, strlen(content), 0));
    return fd;
  }
  HANDLE open_handle(const char* name) const {
    EXPECT_EQ(0, ox_close(create(name)));
    return CreateFileA(path(name).c_str(), GENERIC_READ, 7, nullptr, OPEN_EXISTING, 0, nullptr);
  }
  ox_u64 size_of(const char* name) const {
    ox_stat_t st = {};
    EXPECT_EQ(0, ox_stat(path(name).c_str(), &st));
    return st.st_size;
  }
  TestFolder folder_;
};

}  // namespace

/* The columns: nothing, create, truncate, both. */
TEST(Disposition, OfOpenFlags) {
  const ox_u32 of_access[][4] = {{3, 1, 3, 2}, {3, 4, 5, 2}, {3, 4, 5, 2}}; /* read, write, both */
  for (ox_u32 access = 0; access < 3; ++access) {
    for (ox_u32 how = 0; how < 4; ++how) {
      for (const ox_u32 ignored : {0u, OX_O_EXCL + 0u, OX_O_SYNC, OX_O_DIRECT + 0u}) {
        const ox_u32 flags = access | how * OX_O_CREAT | ignored;
        EXPECT_EQ(of_access[access][how], ox_create_disposition(flags)) << flags;
      }
    }
  }
}

TEST_F(Platform, CreatesOpensAndTruncates) {
  const LogCapture log;
  EXPECT_EQ(0, ox_close(create("f", "content")));
  EXPECT_REFUSED(ERROR_FILE_EXISTS, ox_creat(path("f").c_str(), OX_O_RDONLY | OX_O_CREAT, 0644));
  EXPECT_REFUSED(OX_ENOENT, ox_creat(path("no/f").c_str(), RW_CREATE, 0644));
  EXPECT_THAT(log.lines(), IsEmpty()) << "ox_creat is silent";

  const int kept = ox_creat(path("f").c_str(), RW_CREATE | OX_O_SYNC, 0644);
  EXPECT_EQ(7u, size_of("f"));
  EXPECT_EQ(0, ox_unlink(path("f").c_str())) << "shared for deletion";
  EXPECT_EQ(0, ox_close(kept));
  EXPECT_REFUSED(OX_ENOENT, ox_unlink(path("f").c_str()));

  EXPECT_EQ(0, ox_close(ox_creat(path("ro").c_str(), RW_CREATE, 0444)));
  EXPECT_NE(0u, GetFileAttributesA(path("ro").c_str()) & FILE_ATTRIBUTE_READONLY);
  EXPECT_REFUSED(ERROR_ACCESS_DENIED, ox_open(path("").c_str(), OX_O_RDWR)); /* a folder */
  EXPECT_THAT(log.lines(), ElementsAre(AllOf(HasSubstr("] ERR:005 ox_platform_:"),
                                             EndsWith("ox_open: Cannot open file " + path("")))));

  ox_stat_t st = {};
  EXPECT_EQ(0, ox_stat(path("ro").c_str(), &st));
  EXPECT_FALSE(st.st_isdir);
  EXPECT_EQ(0, ox_stat(path("").c_str(), &st));
  EXPECT_TRUE(st.st_isdir);
  EXPECT_REFUSED(OX_ENOENT, ox_stat(path("no/file").c_str(), &st));
}

TEST_F(Platform, SeeksToEachWhenceAndTruncatesThere) {
  const LogCapture log;
  const int fd = create("f", "0123456789");
  EXPECT_EQ(4, ox_lseek(fd, 4, 0));
  EXPECT_EQ(22, ox_lseek(fd, 1, 3));
  EXPECT_EQ(6, ox_lseek(fd, 2, 1)) << "22 left the position";
  EXPECT_EQ(13, ox_lseek(fd, 3, 2));
  EXPECT_EQ(0x500000000, ox_lseek(fd, 0x500000000, 0));
  EXPECT_REFUSED(ERROR_NEGATIVE_SEEK, ox_lseek(fd, -1, 0));

  EXPECT_EQ(0, ox_ftruncate(fd, 8));
  EXPECT_EQ(8, ox_lseek(fd, 0, 1));
  EXPECT_EQ(0, ox_ftruncate(fd, 4096));
  EXPECT_EQ(4096u, size_of("f"));
  char tail[4] = "###";
  EXPECT_EQ(4, ox_pread(fd, tail, 4, 7));
  EXPECT_EQ(std::string("7\0\0\0", 4), std::string(tail, 4));
  EXPECT_EQ(0, ox_close(fd));
  EXPECT_REFUSED(ERROR_INVALID_HANDLE, ox_lseek(fd, 0, 0));
  EXPECT_REFUSED(ERROR_INVALID_HANDLE, ox_ftruncate(-1, 5000000000));
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
  for (const ox_u64 at : {ox_u64{12}, ox_u64{0x100000000}}) { /* the upper half counts */
    errno = 0;
    EXPECT_EQ(-1, ox_pread(fd, buf, 1, at));
    EXPECT_EQ(38, errno) << "the end of the file";
  }
  EXPECT_EQ(0, ox_close(fd));
  errno = 77;
  EXPECT_EQ(-1, ox_pread(fd, buf, 1, 0));
  EXPECT_EQ(-1, ox_pwrite(-1, buf, 1, 0));
  EXPECT_EQ(77, errno) << "left alone";
  EXPECT_REFUSED(OX_EBADF, ox_close(fd));
}

TEST_F(Platform, NamesDescriptors) {
  const LogCapture log;
  const int fd = create("f");
  char buf[1024];
  ASSERT_EQ(1, ox_fd2path(fd, buf, sizeof(buf), nullptr));
  const std::string whole = buf;
  EXPECT_THAT(whole, AllOf(StartsWith("\\\\?\\"), EndsWith("\\f")));
  const struct {
    const char* name;
    size_t size;
    std::string path; /* empty: it does not fit */
  } table[] = {
      {"a/b", sizeof(buf), whole + "\\a\\b"},
      {"name", whole.size() + 6, whole + "\\name"},
      {"name", whole.size() + 5, ""},
      {nullptr, whole.size() + 1, whole},
      {nullptr, whole.size(), ""},
  };
  for (const auto& [name, size, path] : table) {
    memset(buf, '#', sizeof(buf));
    errno = 0;
    EXPECT_EQ(path.empty() ? 0 : 1, ox_fd2path(fd, buf, size, name)) << size;
    EXPECT_EQ(path.empty() ? 7 : 0, errno) << size;
    EXPECT_TRUE(path.empty() || path == buf) << buf;
    EXPECT_TRUE(size == sizeof(buf) || buf[size] == '#');
  }
  EXPECT_EQ(0, ox_close(fd));
  EXPECT_EQ(0, ox_fd2path(-1, buf, sizeof(buf), nullptr));
  EXPECT_EQ(ERROR_INVALID_HANDLE, static_cast<DWORD>(errno));
  EXPECT_THAT(log.lines(),
              ElementsAre(EndsWith(" sz " + std::to_string(whole.size())),
                          EndsWith("ox_fd2path: Failed to GetFinalPathNameByHandleA for fd -1 fh "
                                   "ffffffffffffffff sz 1024")));
}

TEST_F(Platform, NamesHandlesAndKeepsNoDescriptor) {
  HANDLE handle = open_handle("f");
  const int before = fresh_descriptor();
  char buf[1024];
  for (int i = 0; i < 3000; ++i) {
    ASSERT_EQ(1, ox_handle2path(handle, buf, sizeof(buf), "n")) << i;
  }
  EXPECT_THAT(buf, EndsWith("\\f\\n"));
  EXPECT_EQ(before, fresh_descriptor());
  EXPECT_EQ(0, ox_handle2path(handle, buf, 8, nullptr));
  EXPECT_STREQ("", buf);
  const LogCapture log;
  EXPECT_TRUE(CloseHandle(handle)) << "it stayed the caller's";
  memset(buf, '#', sizeof(buf));
  EXPECT_EQ(0, ox_handle2path(handle, buf, sizeof(buf), nullptr));
  EXPECT_STREQ("", buf);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Platform, ClosesHandlesEvenWithoutAFreeDescriptor) {
  DWORD flags = 0;
  HANDLE handle = open_handle("f");
  EXPECT_EQ(0, ox_close_fhdl(handle));
  EXPECT_FALSE(GetHandleInformation(handle, &flags));
  EXPECT_REFUSED(OX_EBADF, ox_close_fhdl(INVALID_HANDLE_VALUE));

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
  const int one = create("f", "0123456789");
  const int two = ox_open(path("f").c_str(), OX_O_RDWR);
  OVERLAPPED at4 = {}, at6 = {};
  at4.Offset = 4;
  at6.Offset = 6;
  const LogCapture log;
  EXPECT_TRUE(ox_lock_file(one, FAIL_AT_ONCE_EXCLUSIVE, 2, 0, &at4));
  EXPECT_TRUE(ox_lock_file(two, FAIL_AT_ONCE_EXCLUSIVE, 2, 0, &at6)) << "beside it";
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_FALSE(ox_lock_file(two, FAIL_AT_ONCE_EXCLUSIVE, 1, 0, &at4));
  EXPECT_EQ(ERROR_LOCK_VIOLATION, static_cast<DWORD>(errno));
  EXPECT_EQ(-1, ox_flock(two, FAIL_AT_ONCE_EXCLUSIVE)) << "the whole file";
  EXPECT_TRUE(ox_unlock_file(one, 2, 0, &at4));
  EXPECT_TRUE(ox_lock_file(two, FAIL_AT_ONCE_EXCLUSIVE, 1, 0, &at4));
  EXPECT_FALSE(ox_unlock_file(one, 2, 0, &at4)) << "not locked any more";
  EXPECT_EQ(0, ox_close(two));
  EXPECT_REFUSED(OX_EBADF, ox_flock(-1, FAIL_AT_ONCE_EXCLUSIVE));
  EXPECT_THAT(log.lines(),
              ElementsAre(MatchesRegex(".* ox_lock_file: Failed to LockFileEx on fd \\d+ fh \\w+ "
                                       "flags 3 bytes_low 1 bytes_high 0"),
                          MatchesRegex(".* ox_flock: Failed to LockFile on fd \\d+ fh \\w+ flags "
                                       "0x3 low_bytes_locked 4294967295 high_bytes_locked "
                                       "4294967295"),
                          MatchesRegex(".* ox_unlock_file: Failed to UnlockFileEx on fd \\d+ fh "
                                       "\\w+ bytes_low 2 bytes_high 0"),
                          EndsWith("ox_flock: Failed to _get_osfhandle on fd -1")));

  /* A lock that is waited for comes when its holder closes. */
  const int three = ox_open(path("f").c_str(), OX_O_RDWR);
  ASSERT_EQ(0, ox_flock(one, FAIL_AT_ONCE_EXCLUSIVE));
  std::atomic<bool> closing = false;
  std::thread waiter([&] {
    EXPECT_EQ(0, ox_flock(three, LOCKFILE_EXCLUSIVE_LOCK));
    EXPECT_TRUE(closing);
  });
  closing = true;
  EXPECT_EQ(0, ox_close(one));
  waiter.join();
  EXPECT_EQ(0, ox_close(three));
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
