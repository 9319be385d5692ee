/*
 * The platform layer's calls on files and their extended attributes, from platform.txt. The tests
 * rely on this alone of the volume: "path:name" can be opened as a file. NTFS makes it a stream of
 * the file or folder, Wine an ordinary file beside it; so nothing here looks at listings, and no
 * file is deleted or made read-only to reach its attributes.
 * A call is
 * answered with its result, or with -1 and errno, which is 77 where the call left it alone. FD is a
 * name that the script gives a descriptor, or -1. FOLDER, FD and HANDLE stand in log lines for what
 * differs from run to run.
 */
#include <windows.h>

#include <map>

#include "line_mask.h"
#include "ox_platform.h"
#include "ox_xattr.h"
#include "oxley_test.h"
#include "process_state.h"
#include "script.h"

namespace {

/* Of a value that is written or read while somebody watches. */
struct Transfers {
  std::string stream; /* that nobody else can lock meanwhile, not even shared; empty: any */
  size_t longest = SIZE_MAX;
  int made = 0;
  int failing = 0; /* the one with this number */
};
Transfers transfers;
std::function<void()> after_lock;

bool may_transfer() {
  if (transfers.stream.empty()) {
    return true;
  }
  const int fd = ox_open_directory(transfers.stream.c_str(), OX_O_RDONLY);
  EXPECT_TRUE(fd >= 0 && ox_flock(fd, LOCKFILE_FAIL_IMMEDIATELY) != 0) << transfers.stream;
  EXPECT_EQ(0, ox_close(fd));
  errno = ERROR_DISK_FULL;
  return ++transfers.made != transfers.failing;
}

}  // namespace

extern "C" {
ox_s64 __real_ox_pread(int fd, void* buf, size_t count, ox_off offset);
ox_s64 __wrap_ox_pread(int fd, void* buf, size_t count, ox_off offset) {
  count = std::min(count, transfers.longest);
  return may_transfer() ? __real_ox_pread(fd, buf, count, offset) : -1;
}

ox_s64 __real_ox_pwrite(int fd, const void* buf, size_t count, ox_off offset);
ox_s64 __wrap_ox_pwrite(int fd, const void* buf, size_t count, ox_off offset) {
  count = std::min(count, transfers.longest);
  return may_transfer() ? __real_ox_pwrite(fd, buf, count, offset) : -1;
}

bool __real_ox_lock_file(int fd, ox_u32 flags, ox_u32 low, ox_u32 high, void* overlapped);
bool __wrap_ox_lock_file(int fd, ox_u32 flags, ox_u32 low, ox_u32 high, void* overlapped) {
  const bool locked = __real_ox_lock_file(fd, flags, low, high, overlapped);
  if (after_lock != nullptr) {
    std::exchange(after_lock, nullptr)();
  }
  return locked;
}
}

namespace {

class PlatformScript : public testing::TestWithParam<ScriptCase> {
 protected:
  PlatformScript() {
    add_files();
    add_attributes();
  }
  ~PlatformScript() override {
    CloseHandle(unshared_);
    transfers = {};
    ox_logfunc = nullptr;
    ox_debug = 1;
  }

  /* Of a call that answers a number, or bytes and their number. */
  template <typename Call>
  void add(const char* name, const Call& call) {
    commands_[name] = [this, call](Args a) {
      bytes_.reset();
      errno = 77;
      const auto result = static_cast<ox_s64>(call(a));
      const int error = errno;
      return result == -1 ? "-1 " + error_name(error)
             : bytes_     ? as_word(bytes_->substr(0, static_cast<size_t>(result)))
                          : std::to_string(result);
    };
  }
  char* buffer(size_t size) { return bytes_.emplace(size, '#').data(); }

  /* Of the first word. "." is the folder itself, and "" no path at all. */
  std::string path(Args a) const {
    return a[0].empty() ? "" : a[0] == "." ? folder_.path().string() : folder_ / a[0];
  }
  bool is_fd(Args a) const { return fds_.contains(a[0]) || a[0] == "-1"; }
  int fd(Args a) const { return a[0] == "-1" ? -1 : fds_.at(a[0]); }
  static const char* or_null(const std::string& text) {
    return text == "NULL" ? nullptr : text.c_str();
  }

  void add_files();
  void add_attributes();
  int open(Args a);
  bool lock(Args a, bool unlock) const;
  ox_s64 get(Args a);
  std::string status(Args a) const;
  std::string name(Args a);
  std::string log();

  Commands commands_;
  const TestFolder folder_;
  const LogCapture log_;
  size_t shown_ = 0;                 /* lines of the log */
  std::optional<std::string> bytes_; /* that the call gave */
  std::map<std::string, int> fds_;
  HANDLE unshared_ = INVALID_HANDLE_VALUE;
};

ox_u32 flags_of(Args a) {
  static const std::map<std::string, ox_u32> FLAGS = {
      {"write", OX_O_WRONLY}, {"rw", OX_O_RDWR},   {"create", OX_O_CREAT}, {"truncate", OX_O_TRUNC},
      {"excl", OX_O_EXCL},    {"sync", OX_O_SYNC}, {"direct", OX_O_DIRECT}};
  ox_u32 flags = OX_O_RDONLY;
  for (const auto& [word, flag] : FLAGS) {
    flags |= a.has(word) ? flag : ox_u32{0};
  }
  return flags;
}

/* open FD NAME, with any of the words above or "folder": 0. */
int PlatformScript::open(Args a) {
  const ox_u32 flags = flags_of(a);
  const std::string name = path({{a[1]}, {}});
  const auto mode = static_cast<ox_u32>(a.option("mode", 0644));
  const int opened = a.has("create")   ? ox_creat(name.c_str(), flags, mode)
                     : a.has("folder") ? ox_open_directory(name.c_str(), flags)
                                       : ox_open(name.c_str(), flags);
  fds_[a[0]] = opened;
  return opened < 0 ? -1 : 0;
}

/* name FD LAST|NULL [more=BYTES]: the path in a buffer of the size of the descriptor's own, and
 * more; that one is shown as WHOLE. */
std::string PlatformScript::name(Args a) {
  char whole[1024] = "", text[1024];
  ox_fd2path(fd(a), whole, sizeof whole, nullptr);
  const size_t more = a.option("more", sizeof text - strlen(whole));
  memset(text, '#', sizeof text);
  errno = 77;
  if (ox_fd2path(fd(a), text, strlen(whole) + more, or_null(a.words[1])) != 1) {
    return error_name(errno);
  }
  const std::string shown = text;
  EXPECT_TRUE(shown.starts_with(whole) && shown.starts_with("\\\\?\\")) << shown;
  return "WHOLE" + shown.substr(strlen(whole));
}

/* Exclusive, and had at once or not at all. */
bool PlatformScript::lock(Args a, bool unlock) const {
  OVERLAPPED place = {};
  place.Offset = static_cast<DWORD>(a.option("at", 0));
  const auto size = static_cast<ox_u32>(a.option("size", 1));
  return unlock ? ox_unlock_file(fd(a), size, 0, &place)
                : ox_lock_file(fd(a), FAIL_AT_ONCE_EXCLUSIVE, size, 0, &place);
}

std::string PlatformScript::status(Args a) const {
  ox_stat_t st = {};
  if (ox_stat(path(a).c_str(), &st) != 0) {
    return "-1 " + error_name(errno);
  }
  const bool read_only = (GetFileAttributesA(path(a).c_str()) & FILE_ATTRIBUTE_READONLY) != 0;
  return st.st_isdir ? "folder" : std::to_string(st.st_size) + (read_only ? " read-only" : "");
}

ox_s64 PlatformScript::get(Args a) {
  char* const value = a.has("null") ? nullptr : buffer(100000);
  const char* name = or_null(a.words[1]);
  return is_fd(a) ? ox_fgetxattr(fd(a), name, value, 0)
                  : ox_getxattr(path(a).c_str(), name, value, 0);
}

std::string PlatformScript::log() {
  static const Masks MASKS = {{std::regex(R"(\bfd \d+)"), "fd FD"},
                              {std::regex(R"(\bfh (?!f{16})[0-9a-f]+)"), "fh HANDLE"},
                              {std::regex("n{99,}"), "nnn"},
                              {std::regex(" +$"), ""},
                              {std::regex(R"(sz (?!1024)\d+)"), "sz SIZE"},
                              {std::regex(R"(\[6\d+\])"), "[LENGTH]"},
                              {std::regex(R"(ERROR \d+(: ox_unlock_file))"), "ERROR$1"}};
  const std::vector<std::string> lines = log_.brief_lines();
  std::string text;
  for (; shown_ < lines.size(); shown_++) {
    std::string line = masked(lines[shown_], MASKS);
    if (const size_t at = line.find(folder_.path().string()); at != std::string::npos) {
      line.replace(at, folder_.path().string().size(), "FOLDER");
    }
    text += (text.empty() ? "" : "\n") + line;
  }
  return text;
}

void PlatformScript::add_files() {
  add("open", [this](Args a) { return open(a); });
  add("close", [this](Args a) { return ox_close(fd(a)); });
  add("read", [this](Args a) {
    const size_t size = a.option("size", 32);
    return ox_pread(fd(a), buffer(size), size, a.option("at", 0));
  });
  add("write", [this](Args a) {
    return ox_pwrite(fd(a), a.words[1].data(), a.words[1].size(), a.option("at", 0));
  });
  add("seek",
      [this](Args a) { return ox_lseek(fd(a), std::stoll(a[1], nullptr, 0), std::stoi(a[2])); });
  add("truncate", [this](Args a) { return ox_ftruncate(fd(a), std::stoll(a[1])); });
  add("unlink", [this](Args a) { return ox_unlink(path(a).c_str()); });
  add("flock", [this](Args a) { return ox_flock(fd(a), FAIL_AT_ONCE_EXCLUSIVE); });
  add("lock", [this](Args a) { return lock(a, false) ? 0 : -1; });
  commands_.add("disposition", [](Args a) { return ox_create_disposition(flags_of(a)); });
  commands_.add("name", [this](Args a) { return name(a); });
  commands_.add("unlock", [this](Args a) { return lock(a, true); });
  commands_.add("status", [this](Args a) { return status(a); });
  commands_["log"] = [this](const Arguments&) { return log(); };
  commands_.add("debug", [](Args a) { ox_debug = std::stoi(a[0]); });
  commands_["prefix_callback"] = [](const Arguments&) {
    ox_logfunc = [](const char*, const char*, ox_s32, ox_s32, const ox_alert_t*) { return "x"; };
    return "";
  };
}

void PlatformScript::add_attributes() {
  add("folder", [this](Args a) { return create_directory(folder_.path() / a[0]) ? 0 : 1; });
  add("stream", [this](Args a) {
    const int err =
        ox_get_stream_name(a.words[0].c_str(), or_null(a.words[1]), buffer(OX_MAXPATH_LEN));
    return err == 0 ? static_cast<ox_s64>(strlen(bytes_->c_str())) : -1;
  });
  add("set", [this](Args a) {
    const std::string& value = a.words[2];
    const char* name = or_null(a.words[1]);
    return is_fd(a) ? ox_fsetxattr(fd(a), name, value.data(), value.size(), 0)
                    : ox_setxattr(path(a).c_str(), name, or_null(value), value.size(), 0);
  });
  add("get", [this](Args a) { return get(a); });
  add("remove", [this](Args a) {
    const char* name = or_null(a.words[1]);
    return is_fd(a) ? ox_fremovexattr(fd(a), name) : ox_removexattr(path(a).c_str(), name);
  });
  /* watch NAME pieces=BYTES [fails=NUMBER], and how many transfers there were since */
  commands_.add("watch", [this](Args a) {
    const std::string stream = a[0].empty() ? "" : path(a);
    transfers = {stream, a.option("pieces", SIZE_MAX), 0, static_cast<int>(a.option("fails", 0))};
  });
  commands_.add("transfers", [](Args) { return transfers.made; });
  commands_.add("fresh_descriptor", [](Args) { return fresh_descriptor(); });
  /* A stream goes with its file; what lies beside it, as under Wine, goes on its own. */
  commands_.add("move_when_locked", [this](Args a) {
    after_lock = [from = path(a), to = folder_ / a[1], stream = ":" + a[2]] {
      EXPECT_TRUE(MoveFileA(from.c_str(), to.c_str()));
      (void)MoveFileA((from + stream).c_str(), (to + stream).c_str());
    };
  });
  /* Nobody else may open the attribute until the case has ended. */
  add("unshare", [this](Args a) {
    const std::string stream = path(a) + ":" + a[1];
    unshared_ = CreateFileA(stream.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    return unshared_ == INVALID_HANDLE_VALUE ? -1 : 0;
  });
}

TEST_P(PlatformScript, Holds) { play(GetParam(), commands_); }

INSTANTIATE_TEST_SUITE_P(All, PlatformScript, testing::ValuesIn(script_cases("platform")),
                         case_name);

}  // namespace
