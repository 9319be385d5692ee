/*
 * Extended attributes. The tests rely on this alone of the volume: "path:name" can be opened as a
 * file. NTFS makes it a stream of the file or folder, Wine an ordinary file beside it; so nothing
 * here looks at listings, and no file is deleted or made read-only to reach its attributes.
 */
#include "ox_xattr.h"

#include <windows.h>

#include "oxley_test.h"
#include "process_state.h"

namespace {

/* What the linked-in calls below do before each transfer, and how much one transfers at most. */
std::function<bool()> before_transfer; /* false: the transfer fails with errno 112 */
std::function<void()> after_lock;
size_t longest_transfer = SIZE_MAX;

bool may_transfer() {
  if (before_transfer == nullptr || before_transfer()) {
    return true;
  }
  errno = ERROR_DISK_FULL;
  return false;
}

}  // namespace

extern "C" {
ox_s64 __real_ox_pread(int fd, void* buf, size_t count, ox_off offset);
ox_s64 __wrap_ox_pread(int fd, void* buf, size_t count, ox_off offset) {
  count = std::min(count, longest_transfer);
  return may_transfer() ? __real_ox_pread(fd, buf, count, offset) : -1;
}

ox_s64 __real_ox_pwrite(int fd, const void* buf, size_t count, ox_off offset);
ox_s64 __wrap_ox_pwrite(int fd, const void* buf, size_t count, ox_off offset) {
  count = std::min(count, longest_transfer);
  return may_transfer() ? __real_ox_pwrite(fd, buf, count, offset) : -1;
}

bool __real_ox_lock_file(int fd, ox_u32 flags, ox_u32 low, ox_u32 high, void* overlapped);
bool __wrap_ox_lock_file(int fd, ox_u32 flags, ox_u32 low, ox_u32 high, void* overlapped) {
  const bool locked = __real_ox_lock_file(fd, flags, low, high, overlapped);
  if (after_lock != nullptr) {
    after_lock();
  }
  return locked;
}
}

namespace {

class Xattr : public testing::Test {
 protected:
  Xattr() {
    EXPECT_EQ(0, ox_close(ox_creat(file_.c_str(), OX_O_RDWR | OX_O_CREAT, 0644)));
    EXPECT_TRUE(CreateDirectoryA(dir_.c_str(), nullptr));
  }
  ~Xattr() override {
    before_transfer = nullptr;
    after_lock = nullptr;
    longest_transfer = SIZE_MAX;
  }
  const LogCapture log_;
  const TestFolder folder_;
  const std::string file_ = folder_ / "file", dir_ = folder_ / "dir", stream_ = file_ + ":user.tag";
};

int set(const std::string& path, const std::string& value, const std::string& name = "user.tag") {
  return ox_setxattr(path.c_str(), name.c_str(), value.data(), value.size(), 0);
}

/* The value; "-1" when there is none. */
std::string get(const std::string& path, const std::string& name = "user.tag") {
  std::string value(100000, '#');
  const ox_s64 n = ox_getxattr(path.c_str(), name.c_str(), value.data(), 0);
  EXPECT_EQ('#', value.back());
  return n < 0 ? "-1" : value.substr(0, static_cast<size_t>(n));
}

/* What becomes of another's try to lock the stream, which must exist, with these flags. */
bool can_lock(const std::string& stream, ox_u32 flags = FAIL_AT_ONCE_EXCLUSIVE) {
  const int fd = ox_open_directory(stream.c_str(), OX_O_RDONLY);
  EXPECT_GE(fd, 0) << stream;
  const bool locked = ox_flock(fd, flags) == 0;
  EXPECT_EQ(0, ox_close(fd));
  return locked;
}

}  // namespace

/* Others neither read nor write meanwhile, so that they see whole values only. */
TEST_F(Xattr, LocksTheWholeStreamWhileItTransfers) {
  EXPECT_EQ(0, set(file_, "0123456789"));
  const int before = fresh_descriptor();
  longest_transfer = 4;
  int transfers = 0, failing = 0;
  before_transfer = [&] {
    EXPECT_FALSE(can_lock(stream_, LOCKFILE_FAIL_IMMEDIATELY)) << "not even shared";
    return ++transfers != failing;
  };
  EXPECT_EQ(0, set(file_, "ABCDEFGHIJ"));
  EXPECT_EQ("ABCDEFGHIJ", get(file_));
  EXPECT_EQ(6, transfers);
  EXPECT_TRUE(can_lock(stream_));

  /* A failure in the middle, or of the size, gives up the lock and the descriptor, and its errno
   * outlives both. */
  for (const bool writes : {true, false}) {
    transfers = 0, failing = 2;
    EXPECT_REFUSED(ERROR_DISK_FULL, writes               ? set(file_, "abcdefghij")
                                    : get(file_) == "-1" ? -1
                                                         : 0);
    EXPECT_TRUE(can_lock(stream_));
    EXPECT_EQ(2, transfers) << "and goes no further";
  }
  EXPECT_THAT(log_.lines(),
              testing::Contains(EndsWith("ox_getxattr: Failed to ox_pread on fd " +
                                         std::to_string(before) + " stream_size 10")));
  before_transfer = nullptr;
  EXPECT_EQ("abcdEFGHIJ", get(file_)) << "the first piece was written";

  const std::string moved = folder_ / "moved";
  after_lock = [&] { /* a stream goes with its file; what lies beside it goes on its own */
                     EXPECT_TRUE(MoveFileA(file_.c_str(), moved.c_str()));
                     (void)MoveFileA(stream_.c_str(), (moved + ":user.tag").c_str());
  };
  EXPECT_REFUSED(OX_ENOENT, get(file_) == "-1" ? -1 : 0);
  EXPECT_THAT(log_.lines().back(),
              EndsWith("ox_getxattr: Failed to GetCompressedFileSizeA on " + stream_));
  after_lock = nullptr;
  EXPECT_TRUE(can_lock(moved + ":user.tag"));
  EXPECT_EQ(before, fresh_descriptor()) << "every descriptor was given back";
}
