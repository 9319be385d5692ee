/*
 * Descriptors over Windows handles, paths of descriptors, file locks, and the helpers that need
 * Windows.
 */
#include "ox_platform.h"

#include <windows.h>
/* after windows.h */
#include <io.h>

#include "oxley_test.h"
#include "process_state.h"

namespace {

class Platform : public testing::Test {
 protected:
  std::string path(const char* name) const { return folder_ / name; }
  int create(const char* name) const {
    const int fd = ox_creat(path(name).c_str(), OX_O_RDWR | OX_O_CREAT, 0644);
    EXPECT_GE(fd, 0);
    return fd;
  }
  HANDLE open_handle(const char* name) const {
    EXPECT_EQ(0, ox_close(create(name)));
    return CreateFileA(path(name).c_str(), GENERIC_READ, 7, nullptr, OPEN_EXISTING, 0, nullptr);
  }
  TestFolder folder_;
};

}  // namespace

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
  /* Copies of one, so that the system opens no more than a single file. */
  std::vector<int> taken = {ox_creat("NUL", OX_O_RDONLY, 0)};
  for (int fd = 0; (fd = _dup(taken.front())) >= 0;) {
    taken.push_back(fd);
  }
  EXPECT_EQ(-1, ox_creat("NUL", OX_O_RDONLY, 0));
  EXPECT_TRUE(errno == OX_EMFILE || errno == 23) << "23 is Wine's: " << errno;
  EXPECT_EQ(0, ox_close_fhdl(last));
  EXPECT_FALSE(GetHandleInformation(last, &flags));
  for (const int fd : taken) {
    EXPECT_EQ(0, ox_close(fd));
  }
  EXPECT_GE(ox_get_max_openfiles(), 20);
}

TEST_F(Platform, ALockThatIsWaitedForComesWhenItsHolderCloses) {
  const int one = create("f");
  const int two = ox_open(path("f").c_str(), OX_O_RDWR);
  ASSERT_EQ(0, ox_flock(one, FAIL_AT_ONCE_EXCLUSIVE));
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
