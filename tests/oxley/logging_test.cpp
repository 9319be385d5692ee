/*
 * The log facility: line formats, both ways of writing a line, the rotating file and its failures,
 * the end of the process. Lines are read back from the log file.
 */
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <new>

#include "oxley_test.h"
#include "script.h"

/* What this program takes from the heap, all but the runtime's own. */
static std::atomic<size_t> allocations;

void* operator new(size_t size) {
  ++allocations;
  if (void* p = malloc(size)) {
    return p;
  }
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { free(p); }
void operator delete(void* p, size_t) noexcept { free(p); }

/* The end of the names that no file is renamed from, and the attempts to do so. */
static std::string unrenamable;
static int refused_renames = 0;

extern "C" {
int __real_rename(const char* from, const char* to);
int __wrap_rename(const char* from, const char* to) {
  if (unrenamable.empty() || !std::string(from).ends_with(unrenamable)) {
    return __real_rename(from, to);
  }
  ++refused_renames;
  return -1;
}
}

namespace {

#ifdef _WIN32
const std::string EOL = "\r\n";
#else
const std::string EOL = "\n";
#endif

/* A fresh log file in a folder of its own, to which everything goes until the next one begins. */
class LogFile {
 public:
  explicit LogFile(size_t max_size = 52428800, size_t max_files = 10) {
    ox_init_spdlogger(path().c_str(), path().c_str(), max_size, max_files);
  }
  std::string path(const char* name = "log.txt") const { return folder_ / name; }
  std::vector<std::string> lines(const char* name = "log.txt") const {
    return lines_of(read_file(path(name)));
  }

 private:
  TestFolder folder_;
};

constexpr size_t TIMESTAMP_LENGTH = sizeof("[2026-11-16 00:48:16.007 2026] ") - 1;

std::string prefix(ox_msglvl level, ox_s32 line, const char* file, ox_s32 err) {
  char buf[256];
  int capacity = sizeof(buf);
  const int written = ox_log_prefix(buf, level, line, file, err, &capacity);
  EXPECT_EQ(static_cast<int>(strlen(buf)), written);
  EXPECT_EQ(static_cast<int>(sizeof(buf)) - written, capacity);
  return buf;
}

/* Makes the console logger of a child process write where a death test looks. */
void console_to_stderr() { dup2(2, 1); }

std::string seen; /* what the callback was last told */

const char* test_prefix(const char* file, const char* level, ox_s32 line, ox_s32 err,
                        const ox_alert_t* alert) {
  EXPECT_EQ(nullptr, alert);
  seen = std::string(level) + " " + file + ":" + std::to_string(line) + " " + std::to_string(err);
  return "P: ";
}

/* From logging.txt: one log file at a time, of which older ones end in .1.txt and so on. */
class LoggingScript : public testing::TestWithParam<ScriptCase> {
 protected:
  LoggingScript();
  ~LoggingScript() override {
    unrenamable = "";
    refused_renames = 0;
    ox_debug = 1;
  }

  std::unique_ptr<LogFile> file_;
  Commands commands_;
};

LoggingScript::LoggingScript() {
  /* prefix LEVEL FILE ERRNO: without the timestamp, which all have that have a prefix. */
  commands_.add("prefix", [](Args a) {
    const std::string text =
        prefix(static_cast<ox_msglvl>(std::stoll(a[0])), 82, a.words[1].c_str(), std::stoi(a[2]));
    return text.empty() ? "none" : as_word(text.substr(TIMESTAMP_LENGTH));
  });
  commands_.add("debug", [](Args a) { ox_debug = std::stoi(a[0]); });
  commands_.add("file", [this](Args a) {
    file_ = std::make_unique<LogFile>(a.option("size", 52428800), a.option("older", 10));
  });
  /* init NAME FILE: another logger. */
  commands_.add("init", [this](Args a) {
    ox_init_spdlogger(a[0].empty() ? nullptr : a.words[0].c_str(),
                      file_->path(a.words[1].c_str()).c_str(), 1000, 1);
  });
  commands_.add("log", [](Args a) { ox_log("%s\n", a.words[0].c_str()); });
  commands_.add("log_full_lines", [](Args a) {
    for (uint64_t i = 0; i < a.number(0); i++) {
      ox_log("%s\n", std::string(a.number(1) - EOL.size(), 'x').c_str());
    }
  });
  commands_.add("write", [this](Args a) { write_file(file_->path(a.words[0].c_str()), a[1]); });
  commands_.add("lines", [this](Args a) {
    std::string text;
    for (const std::string& line : file_->lines(a.words[0].c_str())) {
      text += (text.empty() ? "" : " ") + as_word(line);
    }
    return text;
  });
  commands_.add("unrenamable", [](Args a) { unrenamable = a[0]; });
  commands_.add("refused_renames", [](Args) { return refused_renames; });
}

TEST_P(LoggingScript, Holds) { play(GetParam(), commands_); }

INSTANTIATE_TEST_SUITE_P(All, LoggingScript, testing::ValuesIn(script_cases("logging")), case_name);

/* By the clock of the log: time() may be some milliseconds behind it. */
std::string local_seconds() {
  using std::chrono::system_clock;
  const time_t now = system_clock::to_time_t(system_clock::now());
  char text[32];
  return std::string(text, strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", localtime(&now)));
}

}  // namespace

TEST(Prefix, TimestampIsLocalTimeWithTheYearAgain) {
  const std::string before = local_seconds();
  const std::string text = prefix(OX_USER_LEVEL, 0, "f", 0);
  ASSERT_EQ(TIMESTAMP_LENGTH, text.size());
  EXPECT_LE(before, text.substr(1, before.size()));
  EXPECT_GE(local_seconds(), text.substr(1, before.size()));
  int msecs = -1, year = -1, end = 0;
  EXPECT_EQ(2, sscanf(text.c_str() + 1 + before.size(), ".%3d %4d] %n", &msecs, &year, &end));
  EXPECT_EQ(text.size(), 1 + before.size() + static_cast<size_t>(end));
  EXPECT_EQ(text.substr(1, 4), std::to_string(year));
}

TEST(Line, IsTheTextAsGivenLessOneNewline) {
  const LogFile log;
  errno = 77;
  ox_log("a\n");
  ox_log("b");
  ox_log("c\n\n");
  ox_log("d\r\n");
  ox_log("%s", "");
  ox_log("%s", "{} {0} %d %n\n");
  ox_log("%zu %lld %llx|\n", size_t{7}, -8ll, 0xfedcba9876543210ull);
  EXPECT_EQ(77, errno) << "callers log before they return their error";
  EXPECT_EQ("a" + EOL + "b" + EOL + "c\n" + EOL + "d\r" + EOL + EOL + "{} {0} %d %n" + EOL +
                "7 -8 fedcba9876543210|" + EOL,
            read_file(log.path()));
}

TEST(Line, LeavesWhatAnotherProcessAppended) {
  const LogFile log;
  ox_log("a\n");
  std::ofstream(log.path(), std::ios::app | std::ios::binary) << "other" + EOL;
  ox_log("b\n");
  EXPECT_EQ("a" + EOL + "other" + EOL + "b" + EOL, read_file(log.path()));
}

/* Both ways of writing a line. The second time none takes memory. */
TEST(Line, IsCutAt4095CharactersAndTakesNoMemory) {
  const LogFile log;
  const std::string longer(5000, 'x');
  const auto write = [&longer] {
    ox_log("%s\n", longer.c_str());
    ox_log_msg(1, "file.c", OX_PRINTF_LEVEL, 0, "%s\n", longer.c_str());
    ox_log_msg(1, "file.c", OX_INFO_LEVEL, 0, "%s %d\n", longer.c_str(), 7);
  };
  write();
  const size_t before = allocations;
  write();
  EXPECT_EQ(before, allocations.load());
  const auto lines = log.lines();
  ASSERT_EQ(6u, lines.size());
  EXPECT_EQ(std::string(4095, 'x'), lines[0]);
  EXPECT_EQ(lines[0], lines[1]);
  EXPECT_EQ(4095u, lines[2].size());
  EXPECT_EQ("INFO          file.c:1 xxx", lines[2].substr(TIMESTAMP_LENGTH, 26));
}

TEST(CallSite, UsesTheBuiltInPrefixOrTheCallback) {
  const LogFile log;
  OX_LOG_AT("tnw_connect", 145, OX_ERROR_LEVEL, 2, "Failed to send over %s", "socket");
  ox_set_profile_level(0);
  OX_LOG_DEBUG(2, "not at verbosity %d", ox_debug);
  ox_logfunc = test_prefix;
  OX_LOG_AT("tnw_connect", 145, OX_ERROR_LEVEL, 2, "Failed to send over %s", "socket");
  EXPECT_EQ("ERROR tnw_connect:145 2", seen);
  ox_set_profile_level(0);
  EXPECT_EQ("INFO ox_profile:10 0", seen);
  ox_logfunc = nullptr;
  EXPECT_THAT(
      log.lines(),
      ElementsAre(EndsWith("] ERR:002  tnw_connect:145 Failed to send over socket"),
                  EndsWith("] INFO      ox_profile:10 oxley profile level set to 0"),
                  "{P: \"Failed to send over socket\"}", "{P: \"oxley profile level set to 0\"}"));
}

/* In child processes, since initialisation works once. */
TEST(StateDeathTest, IsInitialisedOnceAndStartsOnTheConsole) {
  const auto once = [] {
    console_to_stderr();
    const TestFolder folder;
    ox_log("before\n");
    ox_init_logging("VFS_LOGGER", (folder / "sub/tnvfs.log").c_str(), nullptr, "w");
    ox_init_logging("OTHER", (folder / "other.log").c_str(), test_prefix, nullptr);
    OX_LOG(OX_INFO_LEVEL, 0, "kept");
    const auto lines = lines_of(read_file(folder / "sub/tnvfs.log"));
    return lines.size() == 1 && lines[0].ends_with(" kept") && ox_logfunc == nullptr &&
           !file_exists(folder / "other.log");
  };
  EXPECT_EXIT(exit(once() ? 0 : 1), testing::ExitedWithCode(0), "^before\r?\n$");
}

TEST(StateDeathTest, GoesOnWithoutAFile) {
  const auto log_without_file = [](bool named) {
    console_to_stderr();
    const TestFolder folder;
    write_file(folder / "plain", "in the way");
    const std::string path = named ? folder / "plain/tnvfs.log" : "";
    ox_init_logging("VFS_LOGGER", path.c_str(), nullptr, nullptr);
    ox_log("still here\n");
    ox_log_flush();
    exit(0);
  };
  EXPECT_EXIT(log_without_file(false), testing::ExitedWithCode(0), "^still here\r?\n$");
  EXPECT_EXIT(log_without_file(true), testing::ExitedWithCode(0),
              "Cannot write the log file: .*\n.*still here");
}

TEST(Rotation, LosesAndMixesNoLineOfEightThreads) {
  constexpr size_t MAX_SIZE = 8192;
  const LogFile log(MAX_SIZE, 30);
  std::multiset<std::string> written, found;
  std::vector<std::thread> writers;
  for (int t = 0; t < 8; ++t) {
    std::vector<std::string> lines(150);
    for (std::string& line : lines) {
      line = std::to_string(&line - lines.data()) + std::string(100, static_cast<char>('a' + t));
      written.insert(line);
    }
    writers.emplace_back([lines] {
      for (const std::string& line : lines) {
        ox_log_msg(1, "rotation.c", OX_PRINTF_LEVEL, 0, "%s\n", line.c_str());
      }
    });
  }
  for (auto& writer : writers) {
    writer.join();
  }
  size_t files = 0;
  const auto folder = std::filesystem::path(log.path()).parent_path();
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    ++files;
    EXPECT_LE(entry.file_size(), MAX_SIZE);
    const auto lines = lines_of(read_file(entry.path()));
    found.insert(lines.begin(), lines.end());
  }
  EXPECT_GT(files, 5u);
  EXPECT_TRUE(written == found);
}

/* The product's own limits: 52428800 bytes, and ten files beside the current one. */
TEST(RotationDeathTest, HappensAtTheLimitsOfTheLog) {
  const auto rotates = [] {
    const TestFolder folder;
    for (const char* number : {"9", "10", "11"}) {
      write_file(folder / ("tnvfs." + std::string(number) + ".log"), number);
    }
    write_file(folder / "tnvfs.log", "");
    std::filesystem::resize_file(folder / "tnvfs.log", 52428800 - 200);
    ox_init_logging("VFS_LOGGER", (folder / "tnvfs.log").c_str(), nullptr, nullptr);
    for (const char c : {'1', '2', '3'}) { /* the second one fills the file to its last byte */
      ox_log("%s\n", std::string(100 - EOL.size(), c).c_str());
    }
    return std::filesystem::file_size(folder / "tnvfs.1.log") == 52428800 &&
           std::filesystem::file_size(folder / "tnvfs.log") == 100 &&
           read_file(folder / "tnvfs.10.log") == "9" && read_file(folder / "tnvfs.11.log") == "11";
  };
  EXPECT_EXIT(exit(rotates() ? 0 : 1), testing::ExitedWithCode(0), "");
}

#ifdef __linux__
/* A disk that is always full; and a folder that is gone, which Windows does not let happen. */
TEST(StateDeathTest, SendsWhatNoFileTakesToTheConsole) {
  const auto fill = [] {
    console_to_stderr();
    ox_init_spdlogger("full", "/dev/full", 1000, 1);
    ox_log("1\n");
    ox_log("2\n");
    exit(0);
  };
  EXPECT_EXIT(fill(), testing::ExitedWithCode(0), "Cannot write the log file: .*\n1\n2\n$");
  const auto lose_folder = [] {
    console_to_stderr();
    const LogFile log(100, 3);
    ox_log("%s\n", std::string(90, '1').c_str());
    const auto folder = std::filesystem::path(log.path()).parent_path();
    std::filesystem::remove_all(folder);
    write_file(folder, "in the way");
    ox_log("%s\n", std::string(90, '2').c_str());
    ox_log("3\n");
    std::filesystem::remove(folder);
    exit(0);
  };
  EXPECT_EXIT(lose_folder(), testing::ExitedWithCode(0),
              "Cannot write the log file: .*\n2{90}\n3\n$");
}
#endif

TEST(EndDeathTest, FatalAndAssertionsFlushAndEndTheProcess) {
  const auto die = [] {
    console_to_stderr();
    ox_log_msg(7, "tn_util.c", OX_FATAL_LEVEL, 22, "corrupt\n");
    ox_log("not reached\n");
  };
  EXPECT_DEATH(die(),
               testing::AllOf(HasSubstr("] FATAL   22:   tn_util.c:7 corrupt"),
                              HasSubstr("Assertion failed: 0, file ox_logging_win, line 117"),
                              testing::Not(HasSubstr("not reached"))));
  EXPECT_DEATH(OX_ASSERT(1 + 1 == 3), "Assertion failed: 1 . 1 == 3, file logging_test.cpp, line ");
}
