/*
 * Extended attributes. The tests rely on this alone of the volume: "path:name" can be opened as a
 * file. NTFS makes it a stream of the file or folder, Wine an ordinary file beside it; so nothing
 * here looks at listings, and no file is deleted or made read-only to reach its attributes.
 */
#include "ox_xattr.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "ox_errno.h"
#include "ox_file.h"
#include "ox_lock.h"
#include "ox_logging.h"
#include "test_folder.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

constexpr ox_u32 fail_at_once_exclusive = 3;

/* What the linked-in calls below do before each transfer, and how much one transfers at most. */
std::function<bool()> before_transfer; /* false: the transfer fails with errno 112 */
std::function<void()> after_lock;
std::atomic<size_t> longest_transfer = SIZE_MAX;

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
ox_s64 __real_ox_pwrite(int fd, const void* buf, size_t count, ox_off offset);
bool __real_ox_lock_file(int fd, ox_u32 flags, ox_u32 low, ox_u32 high, void* overlapped);

ox_s64 __wrap_ox_pread(int fd, void* buf, size_t count, ox_off offset) {
  return may_transfer() ? __real_ox_pread(fd, buf, std::min(count, longest_transfer.load()), offset)
                        : -1;
}

ox_s64 __wrap_ox_pwrite(int fd, const void* buf, size_t count, ox_off offset) {
  return may_transfer()
             ? __real_ox_pwrite(fd, buf, std::min(count, longest_transfer.load()), offset)
             : -1;
}

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
  const std::string file_ = folder_ / "file";
  const std::string dir_ = folder_ / "dir";
};

int set(const std::string& path, const std::string& value, const char* name = "user.tag") {
  return ox_setxattr(path.c_str(), name, value.data(), value.size(), 0);
}

/* The value; "-1" when there is none. */
std::string get(const std::string& path, const char* name = "user.tag") {
  std::string value(100000, '#');
  const ox_s64 n = ox_getxattr(path.c_str(), name, value.data(), 0); /* the size does not count */
  EXPECT_EQ('#', value.back());
  return n < 0 ? "-1" : value.substr(0, static_cast<size_t>(n));
}

/* Whether nobody holds a lock on any of the stream, which must exist. */
bool is_unlocked(const std::string& stream) {
  const int fd = ox_open_directory(stream.c_str(), OX_O_RDONLY);
  EXPECT_GE(fd, 0) << stream;
  const bool unlocked = ox_flock(fd, fail_at_once_exclusive) == 0;
  EXPECT_EQ(0, ox_close(fd));
  return unlocked;
}

}  // namespace

TEST_F(Xattr, NamesStreamsUpToTheLongestPath) {
  char out[OX_MAXPATH_LEN];
  const std::string path(4990, 'p');
  EXPECT_EQ(0, ox_get_stream_name(path.c_str(), "12345678", out));
  EXPECT_EQ(path + ":12345678", out);
  EXPECT_THAT(log_.lines(), IsEmpty());
  EXPECT_EQ(-1, ox_get_stream_name(path.c_str(), "123456789", out));
  EXPECT_EQ(OX_E2BIG, errno);
  EXPECT_EQ(path + ":12345678", out) << "left alone";
  EXPECT_THAT(log_.lines(),
              ElementsAre(AllOf(HasSubstr("] WARNING ox_platform_:"),
                                EndsWith("ox_get_stream_name: stream_name_len [5001] > "
                                         "OX_MAXPATH_LEN[5000]"))));

  char value[1] = "";
  for (const auto& call : std::vector<std::function<ox_s64()>>{
           [&] { return ox_get_stream_name(file_.c_str(), nullptr, out); },
           [&] { return ox_setxattr(nullptr, "n", value, 1, 0); },
           [&] { return ox_setxattr(file_.c_str(), "n", nullptr, 1, 0); },
           [&] { return ox_getxattr(file_.c_str(), nullptr, value, 1); },
           [&] { return ox_removexattr(nullptr, "n"); }}) {
    errno = 0;
    EXPECT_EQ(-1, call());
    EXPECT_EQ(OX_EINVAL, errno);
  }
}

/* ":$DATA" above all is no name: it would be the content of the file itself. */
TEST_F(Xattr, RefusesNamesThatAreNoneWithALine) {
  char value[1] = "";
  for (const std::string name : {"", ":$DATA", "a:$DATA", "a\\b", "../a"}) {
    const int error =
        name.empty() ? static_cast<int>(ERROR_INVALID_NAME) : static_cast<int>(OX_EINVAL);
    EXPECT_EQ(-1, ox_setxattr(file_.c_str(), name.c_str(), value, 1, 0));
    EXPECT_EQ(error, errno) << name;
    EXPECT_THAT(log_.lines().back(),
                EndsWith("ox_setxattr: Cannot open stream for writing " + file_ + ":" + name));
    EXPECT_EQ(-1, ox_getxattr(file_.c_str(), name.c_str(), value, 1));
    EXPECT_TRUE(errno == error || name.empty()) << "the system's own number for an empty name";
    EXPECT_THAT(log_.lines().back(),
                EndsWith("ox_getxattr: Cannot open stream for reading " + file_ + ":" + name));
    EXPECT_EQ(-1, ox_removexattr(file_.c_str(), name.c_str()));
    EXPECT_EQ(error, errno) << name;
    EXPECT_THAT(log_.lines().back(),
                EndsWith("ox_removexattr: Failed to remove xattr " + name + " from " + file_));
  }
  EXPECT_EQ(-1, ox_setxattr("", "n", value, 1, 0));
  EXPECT_EQ(OX_ENOENT, errno);
  EXPECT_THAT(log_.lines().back(), EndsWith("ox_setxattr: Failed to ox_stat for "));
  EXPECT_EQ(-1, ox_getxattr("", "n", value, 1));
  EXPECT_EQ(OX_ENOENT, errno);
  EXPECT_THAT(log_.lines().back(), EndsWith("ox_getxattr: Failed to ox_stat for "));
  EXPECT_EQ(-1, ox_removexattr("", "n"));
  EXPECT_EQ(ERROR_INVALID_NAME, errno);
}

/* Nothing is written through the null pointer. */
TEST_F(Xattr, TellsWithoutABufferWhetherThereIsAnAttribute) {
  EXPECT_EQ(-1, ox_getxattr(file_.c_str(), "n", nullptr, 0));
  EXPECT_EQ(OX_ENOENT, errno);
  EXPECT_THAT(log_.lines().back(),
              EndsWith("ox_getxattr: Cannot open stream for reading " + file_ + ":n"));
  EXPECT_EQ(0, set(file_, "", "n"));
  EXPECT_EQ(0, ox_getxattr(file_.c_str(), "n", nullptr, 0));
  EXPECT_EQ(0, set(file_, "v", "n"));
  EXPECT_EQ(-1, ox_getxattr(file_.c_str(), "n", nullptr, 0));
  EXPECT_EQ(ERROR_NOACCESS, errno);
}

TEST_F(Xattr, KeepsValuesOfFilesAndFolders) {
  longest_transfer = 3; /* values go in pieces */
  const std::string binary("\0\r\n\x1a\xff", 5);
  for (const std::string& path : {file_, dir_}) {
    EXPECT_EQ("-1", get(path));
    EXPECT_EQ(OX_ENOENT, errno);
    EXPECT_EQ(0, ox_removexattr(path.c_str(), "user.tag")) << "there is none";
    EXPECT_EQ(0, set(path, binary));
    EXPECT_EQ(binary, get(path));
    EXPECT_EQ(0, set(path, "0123456789"));
    EXPECT_EQ(0, set(path, "abcd"));
    EXPECT_EQ("abcd456789", get(path)) << "the tail stays";
    EXPECT_EQ(0, set(path, "", "other"));
    EXPECT_EQ("", get(path, "other"));

    const int fd = ox_open_directory(path.c_str(), OX_O_RDONLY);
    ASSERT_GE(fd, 0);
    char value[16] = "";
    EXPECT_EQ(0, ox_fsetxattr(fd, "user.tag", "ABC", 3, 0));
    EXPECT_EQ(10, ox_fgetxattr(fd, "user.tag", value, sizeof(value)));
    EXPECT_STREQ("ABCd456789", value);
    EXPECT_EQ(0, ox_close(fd));

    EXPECT_EQ(0, ox_removexattr(path.c_str(), "user.tag"));
    EXPECT_EQ("-1", get(path));
    EXPECT_EQ(0, ox_removexattr(path.c_str(), "other"));
    EXPECT_EQ(0, is_native_xattr_copy_supported(path.c_str()));
  }
  ox_stat_t st = {};
  EXPECT_EQ(0, ox_stat(file_.c_str(), &st));
  EXPECT_EQ(0u, st.st_size) << "the content is another stream";
  EXPECT_EQ(-1, ox_fsetxattr(-1, "n", "v", 1, 0));
  EXPECT_EQ(-1, ox_fgetxattr(-1, "n", &st, 1));
}

TEST_F(Xattr, LogsEveryFailureWithItsError) {
  const std::string gone = folder_ / "gone", stream = file_ + ":user.tag";
  const std::string long_name(5000 - file_.size(), 'n');
  EXPECT_EQ(0, set(file_, "value"));
  HANDLE unshared =
      CreateFileA(stream.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  ASSERT_NE(INVALID_HANDLE_VALUE, unshared);
  const struct {
    std::function<ox_s64()> call;
    int error;
    std::string line;
  } table[] = {
      {[&] { return set(gone, "v"); }, 2, "ox_setxattr: Failed to ox_stat for " + gone},
      {[&] { return get(gone) == "-1" ? -1 : 0; }, 2, "ox_getxattr: Failed to ox_stat for " + gone},
      {[&] { return set(file_, "v", long_name.c_str()); }, 7,
       "ox_setxattr: stream name is too long " + file_ + ":nnn"},
      {[&] { return get(file_, long_name.c_str()) == "-1" ? -1 : 0; }, 7,
       "ox_getxattr: stream name is too long " + file_ + ":nnn"},
      {[&] { return ox_removexattr(file_.c_str(), long_name.c_str()); }, 7,
       "ox_getxattr: stream name is too long " + file_ + ":nnn"},
      {[&] { return set(file_, "v"); }, ERROR_SHARING_VIOLATION,
       "ox_setxattr: Cannot open stream for writing " + stream},
      {[&] { return get(file_) == "-1" ? -1 : 0; }, ERROR_SHARING_VIOLATION,
       "ox_getxattr: Cannot open stream for reading " + stream},
      {[&] { return ox_removexattr(file_.c_str(), "user.tag"); }, ERROR_SHARING_VIOLATION,
       "ox_removexattr: Failed to remove xattr user.tag from " + file_},
  };
  for (const auto& [call, error, line] : table) {
    EXPECT_EQ(-1, call()) << line;
    EXPECT_EQ(error, errno) << line;
    char prefix[40];
    snprintf(prefix, sizeof(prefix), "] ERR:%03d ox_platform_:", error);
    EXPECT_THAT(log_.lines().back(), AllOf(HasSubstr(prefix), HasSubstr(" " + line)));
  }
  EXPECT_TRUE(CloseHandle(unshared));
}

TEST_F(Xattr, LocksTheWholeStreamWhileItTransfers) {
  const std::string stream = file_ + ":user.tag";
  EXPECT_EQ(0, set(file_, "0123456789"));
  const int before = ox_open("NUL", OX_O_RDONLY);
  EXPECT_EQ(0, ox_close(before));
  longest_transfer = 4;
  int transfers = 0, failing = 0;
  before_transfer = [&] {
    EXPECT_FALSE(is_unlocked(stream));
    return ++transfers != failing;
  };
  EXPECT_EQ(0, set(file_, "ABCDEFGHIJ"));
  EXPECT_EQ("ABCDEFGHIJ", get(file_));
  EXPECT_EQ(6, transfers);
  EXPECT_TRUE(is_unlocked(stream));

  /* A failure in the middle, or of the size, gives up the lock and the descriptor, and its errno
   * outlives both. */
  transfers = 0, failing = 2;
  EXPECT_EQ(-1, set(file_, "abcdefghij"));
  EXPECT_EQ(ERROR_DISK_FULL, static_cast<DWORD>(errno));
  EXPECT_TRUE(is_unlocked(stream));
  transfers = 0;
  EXPECT_EQ("-1", get(file_));
  EXPECT_EQ(ERROR_DISK_FULL, static_cast<DWORD>(errno));
  EXPECT_TRUE(is_unlocked(stream));
  EXPECT_EQ(2, transfers) << "and reads no further";
  EXPECT_THAT(log_.lines(),
              testing::Contains(EndsWith("ox_getxattr: Failed to ox_pread on fd " +
                                         std::to_string(before) + " stream_size 10")));

  before_transfer = nullptr;
  EXPECT_EQ("abcdEFGHIJ", get(file_)) << "the first piece was written";
  const std::string moved = folder_ / "moved";
  after_lock = [&] { /* a stream goes with its file; what lies beside it goes on its own */
                     EXPECT_TRUE(MoveFileA(file_.c_str(), moved.c_str()));
                     (void)MoveFileA(stream.c_str(), (moved + ":user.tag").c_str());
  };
  EXPECT_EQ("-1", get(file_));
  EXPECT_EQ(OX_ENOENT, errno);
  EXPECT_THAT(log_.lines().back(),
              EndsWith("ox_getxattr: Failed to GetCompressedFileSizeA on " + stream));
  after_lock = nullptr;
  EXPECT_TRUE(is_unlocked(moved + ":user.tag"));
  const int after = ox_open("NUL", OX_O_RDONLY);
  EXPECT_EQ(before, after) << "every descriptor was given back";
  EXPECT_EQ(0, ox_close(after));
}

TEST_F(Xattr, ThreadsSeeWholeValuesOnly) {
  const std::string values[] = {std::string(1000, 'a'), std::string(1000, 'b')};
  longest_transfer = 100;
  EXPECT_EQ(0, set(file_, values[0]));
  std::thread writer([&] {
    for (int i = 0; i < 200; ++i) {
      EXPECT_EQ(0, set(file_, values[i % 2]));
    }
  });
  for (int i = 0; i < 200; ++i) {
    const std::string value = get(file_);
    EXPECT_TRUE(value == values[0] || value == values[1]) << value;
  }
  writer.join();
}

TEST_F(Xattr, HasNoRemovalByDescriptorAndNoPrefixCallback) {
  ox_logfunc = [](const char*, const char*, ox_s32, ox_s32, const ox_alert_t*) {
    return "prefix ";
  };
  for (ox_debug = 1; ox_debug <= 2; ++ox_debug) {
    errno = 0;
    EXPECT_EQ(-1, ox_fremovexattr(0, "user.tag"));
    EXPECT_EQ(OX_EINVAL, errno);
  }
  ox_debug = 1;
  ox_logfunc = nullptr;
  EXPECT_THAT(log_.lines(), ElementsAre(AllOf(StartsWith("["), HasSubstr("] DEBU-02 ox_platform_:"),
                                              EndsWith(" ox_fremovexattr UNIMPLEMENTED"))));
}
