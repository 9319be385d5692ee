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

int remove(const std::string& path, const std::string& name = "user.tag") {
  return ox_removexattr(path.c_str(), name.c_str());
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

TEST_F(Xattr, NamesStreamsUpToTheLongestPath) {
  char out[OX_MAXPATH_LEN];
  const std::string path(4990, 'p');
  EXPECT_EQ(0, ox_get_stream_name(path.c_str(), "12345678", out));
  EXPECT_EQ(path + ":12345678", out);
  EXPECT_THAT(log_.lines(), IsEmpty());
  EXPECT_REFUSED(OX_E2BIG, ox_get_stream_name(path.c_str(), "123456789", out));
  EXPECT_EQ(path + ":12345678", out) << "left alone";
  EXPECT_THAT(log_.lines(),
              ElementsAre(AllOf(HasSubstr("] WARNING ox_platform_:"),
                                EndsWith("ox_get_stream_name: stream_name_len [5001] > "
                                         "OX_MAXPATH_LEN[5000]"))));
  EXPECT_REFUSED(OX_EINVAL, ox_get_stream_name(file_.c_str(), nullptr, out));
  EXPECT_REFUSED(OX_EINVAL, ox_setxattr(nullptr, "n", out, 1, 0));
  EXPECT_REFUSED(OX_EINVAL, ox_setxattr(file_.c_str(), "n", nullptr, 1, 0));
  EXPECT_REFUSED(OX_EINVAL, ox_getxattr(file_.c_str(), nullptr, out, 1));
  EXPECT_REFUSED(OX_EINVAL, ox_removexattr(nullptr, "n"));
  EXPECT_REFUSED(OX_EINVAL, ox_fremovexattr(0, "n"));
}

/* ":$DATA" above all is no name: it would be the content of the file itself. */
TEST_F(Xattr, LogsEveryRefusalWithItsError) {
  EXPECT_EQ(0, set(file_, "value"));
  HANDLE unshared =
      CreateFileA(stream_.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  const std::string gone = folder_ / "gone", too_long(5000 - file_.size(), 'n');
  const std::string set_stat = "ox_setxattr: Failed to ox_stat for ",
                    get_stat = "ox_getxattr: Failed to ox_stat for ",
                    set_long = "ox_setxattr: stream name is too long ",
                    get_long = "ox_getxattr: stream name is too long ",
                    set_open = "ox_setxattr: Cannot open stream for writing ",
                    get_open = "ox_getxattr: Cannot open stream for reading ",
                    removal = "ox_removexattr: Failed to remove xattr ";
  const int any = 0; /* the system's own number */
  struct Refusal {
    int error;
    std::string line; /* empty: the call is not made */
  };
  const struct {
    std::string path, name;
    Refusal set, get, remove;
  } table[] = {
      {"", "n", {2, set_stat}, {2, get_stat}, {123, removal + "n from "}},
      {gone, "n", {2, set_stat + gone}, {2, get_stat + gone}, {}},
      {file_,
       "",
       {123, set_open + file_ + ":"},
       {any, get_open},
       {123, removal + " from " + file_}},
      {file_, too_long, {7, set_long + file_}, {7, get_long + file_}, {7, get_long + file_}},
      {file_, "user.tag", {32, set_open}, {32, get_open}, {32, removal + "user.tag from " + file_}},
      {file_, ":$DATA", {22, set_open}, {22, get_open}, {22, removal}},
      {file_, "a:$DATA", {22, set_open}, {22, get_open}, {22, removal}},
      {file_, "a\\b", {22, set_open + file_ + ":a\\b"}, {22, get_open}, {22, removal}},
      {file_, "../a", {22, set_open}, {22, get_open + file_ + ":../a"}, {22, removal}},
      {dir_,
       "a:b",
       {22, set_open + dir_},
       {22, get_open + dir_},
       {22, removal + "a:b from " + dir_}},
  };
  for (const auto& row : table) {
    const auto check = [&](const Refusal& expected, ox_s64 result) {
      const int error = errno;
      EXPECT_EQ(-1, result) << row.path << ' ' << row.name;
      EXPECT_TRUE(expected.error == error || expected.error == any) << error;
      EXPECT_THAT(log_.brief_lines().back(),
                  StartsWith("ERROR " + std::to_string(error) + ": " + expected.line));
    };
    check(row.set, set(row.path, "v", row.name));
    check(row.get, get(row.path, row.name) == "-1" ? -1 : 0);
    if (!row.remove.line.empty()) {
      check(row.remove, remove(row.path, row.name));
    }
  }
  EXPECT_TRUE(CloseHandle(unshared));
}

/* Nothing is written through the null pointer. */
TEST_F(Xattr, TellsWithoutABufferWhetherThereIsAnAttribute) {
  EXPECT_REFUSED(OX_ENOENT, ox_getxattr(file_.c_str(), "n", nullptr, 0));
  EXPECT_THAT(log_.brief_lines().back(), StartsWith("ERROR 2: ox_getxattr: Cannot open stream"));
  EXPECT_EQ(0, set(file_, "", "n"));
  EXPECT_EQ(0, ox_getxattr(file_.c_str(), "n", nullptr, 0));
  EXPECT_EQ(0, set(file_, "v", "n"));
  EXPECT_REFUSED(ERROR_NOACCESS, ox_getxattr(file_.c_str(), "n", nullptr, 0));
}

TEST_F(Xattr, KeepsValuesOfFilesAndFolders) {
  longest_transfer = 3; /* values go in pieces */
  const std::string binary("\0\r\n\x1a\xff", 5);
  for (const std::string& path : {file_, dir_}) {
    EXPECT_EQ("-1", get(path));
    EXPECT_EQ(OX_ENOENT, errno);
    EXPECT_EQ(0, remove(path)) << "there is none";
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

    EXPECT_EQ(0, remove(path));
    EXPECT_EQ("-1", get(path));
    EXPECT_EQ(0, is_native_xattr_copy_supported(path.c_str()));
  }
  ox_stat_t st = {};
  EXPECT_EQ(0, ox_stat(file_.c_str(), &st));
  EXPECT_EQ(0u, st.st_size) << "the content is another stream";
  EXPECT_EQ(-1, ox_fsetxattr(-1, "n", "v", 1, 0));
  EXPECT_EQ(-1, ox_fgetxattr(-1, "n", &st, 1));
}

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

TEST_F(Xattr, LinesDoWithoutThePrefixCallback) {
  ox_logfunc = [](const char*, const char*, ox_s32, ox_s32, const ox_alert_t*) { return "x"; };
  for (ox_debug = 1; ox_debug <= 2; ++ox_debug) {
    EXPECT_REFUSED(OX_EINVAL, ox_fremovexattr(0, "user.tag"));
  }
  ox_debug = 1;
  ox_logfunc = nullptr;
  EXPECT_THAT(log_.lines(), ElementsAre(AllOf(StartsWith("["), HasSubstr("] DEBU-02 ox_platform_:"),
                                              EndsWith(" ox_fremovexattr UNIMPLEMENTED"))));
}
