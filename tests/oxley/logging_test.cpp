/*
 * The log facility: line formats, both ways of writing a line, the rotating file and its failures,
 * the end of the process. Lines are read back from the log file.
 */
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <new>
#include <set>
#include <thread>

#include "ox_assert.h"
#include "ox_logging.h"
#include "test_folder.h"

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

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;

namespace {

/* A fresh log file in a folder of its own, to which everything goes until the next one begins. */
class LogFile {
 public:
  explicit LogFile(size_t max_size = 52428800, size_t max_files = 10) {
    ox_init_spdlogger(path().c_str(), path().c_str(), max_size, max_files);
  }
  std::string path() const { return folder_ / "log.txt"; }
  std::string content() const { return read_file(path()); }
  std::vector<std::string> lines() const { return lines_of(content()); }

 private:
  TestFolder folder_;
};

constexpr size_t timestamp_length = sizeof("[2026-11-16 00:48:16.007 2026] ") - 1;

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

}  // namespace

TEST(Prefix, EachLevelHasItsField) {
  const struct {
    ox_msglvl level;
    const char* file;
    ox_s32 err;
    const char* field;
  } table[] = {
      {OX_INFO_LEVEL, "ox_platform_win.c", 2, "INFO    ox_platform_:82 "}, /* cut to 12 */
      {OX_WARN_LEVEL, "ox_tpool.c", 2, "WARNING   ox_tpool.c:82 "},
      {OX_ERROR_LEVEL, "ox_tpool.c", 2, "ERR:002   ox_tpool.c:82 "},
      {OX_ERROR_LEVEL, "ox_tpool.c", 12345, "ERR:12345   ox_tpool.c:82 "},
      {OX_FATAL_LEVEL, "ox_tpool.c", 2, "FATAL   2:  ox_tpool.c:82 "},
      {OX_DEBUG_LEVEL, "ox_tpool.c", 2, "DEBU-05   ox_tpool.c:82 "},
      {OX_USER_LEVEL, "ox_tpool.c", 2, ""},
      {OX_PROF_LEVEL, "ox_tpool.c", 2, "PROF      ox_tpool.c:82 "},
      {OX_TODO_LEVEL, "ox_tpool.c", 2, "TODO    2:  ox_tpool.c:82 "},
      {9, "ox_tpool.c", 2, "  ox_tpool.c:82 "},
      {0xffffffffu, "ox_tpool.c", 2, "  ox_tpool.c:82 "},
  };
  ox_debug = 5;
  for (const auto& [level, file, err, field] : table) {
    EXPECT_EQ(field, prefix(level, 82, file, err).substr(timestamp_length)) << level;
  }
  ox_debug = 1;
  EXPECT_EQ("", prefix(OX_PRINTF_LEVEL, 82, "f", 2)) << "no timestamp either";
}

std::string local_seconds() {
  const time_t now = time(nullptr);
  char text[32];
  return std::string(text, strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", localtime(&now)));
}

TEST(Prefix, TimestampIsLocalTimeWithTheYearAgain) {
  const std::string before = local_seconds();
  const std::string text = prefix(OX_USER_LEVEL, 0, "f", 0);
  ASSERT_EQ(timestamp_length, text.size());
  EXPECT_LE(before, text.substr(1, before.size()));
  EXPECT_GE(local_seconds(), text.substr(1, before.size()));
  int msecs = -1, year = -1, end = 0;
  EXPECT_EQ(2, sscanf(text.c_str() + 1 + before.size(), ".%3d %4d] %n", &msecs, &year, &end));
  EXPECT_EQ(text.size(), 1 + before.size() + static_cast<size_t>(end));
  EXPECT_EQ(text.substr(1, 4), std::to_string(year));
}

TEST(Prefix, NeverPassesItsCapacity) {
  for (const int room : {0, 1, 2, 31, 32, 40}) {
    char buf[64];
    memset(buf, '#', sizeof(buf));
    int capacity = room;
    const int written = ox_log_prefix(buf, OX_INFO_LEVEL, 82, "ox_platform_win.c", 0, &capacity);
    EXPECT_EQ(room == 0 ? 0 : room - 1, written);
    EXPECT_EQ(room - written, capacity);
    if (room > 0) {
      EXPECT_EQ('\0', buf[written]);
    }
    EXPECT_EQ('#', buf[room]);
  }
}

TEST(Line, IsTheTextAsGivenLessOneNewline) {
  LogFile log;
#ifdef _WIN32
  const std::string eol = "\r\n";
#else
  const std::string eol = "\n";
#endif
  errno = 77;
  ox_log("a\n");
  ox_log("b");
  ox_log("c\n\n");
  ox_log("d\r\n");
  ox_log("%s", "");
  ox_log("%s", "{} {0} %d %n\n");
  ox_log("%zu %lld %llx %p|\n", size_t{7}, -8ll, 0xfedcba9876543210ull, nullptr);
  EXPECT_EQ(77, errno) << "callers log before they return their error";
  const std::string content = log.content();
  EXPECT_EQ(0u, content.find("a" + eol + "b" + eol + "c\n" + eol + "d\r" + eol + eol +
                             "{} {0} %d %n" + eol + "7 -8 fedcba9876543210 "))
      << content;
}

TEST(Line, IsCutAt4095Characters) {
  LogFile log;
  const std::string longer(5000, 'x');
  ox_log("%s\n", longer.c_str());
  ox_log_msg(1, "file.c", OX_PRINTF_LEVEL, 0, "%s\n", longer.c_str());
  ox_log_msg(1, "file.c", OX_INFO_LEVEL, 0, "%s\n", longer.c_str());
  const auto lines = log.lines();
  ASSERT_EQ(3u, lines.size());
  EXPECT_EQ(std::string(4095, 'x'), lines[0]);
  EXPECT_EQ(std::string(4095, 'x'), lines[1]);
  EXPECT_EQ(4095u, lines[2].size());
  EXPECT_THAT(lines[2].substr(timestamp_length, 30), HasSubstr("INFO          file.c:1 xxx"));
}

TEST(CallSite, UsesTheBuiltInPrefixOrTheCallback) {
  LogFile log;
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

/* In children, since initialisation is one-shot. */
TEST(StateDeathTest, StartsOnTheConsole) {
  EXPECT_EXIT(
      {
        console_to_stderr();
        ox_log("before\n");
        ox_init_logging("VFS_LOGGER", "", nullptr, nullptr);
        ox_log("without a file\n");
        ox_log_flush();
        exit(0);
      },
      testing::ExitedWithCode(0), testing::ContainsRegex("^before\r?\nwithout a file\r?\n$"));
}

TEST(StateDeathTest, InitialisesOnce) {
  const auto once = [] {
    const TestFolder folder;
    ox_init_logging("VFS_LOGGER", (folder / "sub/tnvfs.log").c_str(), nullptr, "w");
    ox_init_logging("OTHER", (folder / "other.log").c_str(), test_prefix, nullptr);
    OX_LOG(OX_INFO_LEVEL, 0, "kept");
    const auto lines = lines_of(read_file(folder / "sub/tnvfs.log"));
    return lines.size() == 1 && lines[0].ends_with(" kept") && ox_logfunc == nullptr &&
           !std::filesystem::exists(folder / "other.log");
  };
  EXPECT_EXIT(exit(once() ? 0 : 1), testing::ExitedWithCode(0), "");
}

TEST(StateDeathTest, GoesOnWithoutAFile) {
  const auto log_without_file = [] {
    console_to_stderr();
    const TestFolder folder;
    write_file(folder / "plain", "in the way");
    ox_init_logging("VFS_LOGGER", (folder / "plain/tnvfs.log").c_str(), nullptr, nullptr);
    ox_log("still here\n");
  };
  EXPECT_EXIT((log_without_file(), exit(0)), testing::ExitedWithCode(0),
              testing::AllOf(HasSubstr("Cannot write the log file"), HasSubstr("still here")));
}

TEST(State, ATakenLoggerNameKeepsTheOldFile) {
  LogFile log;
  TestFolder folder;
  ox_init_spdlogger("twice", (folder / "first").c_str(), 1000, 1);
  ox_log("first\n");
  ox_init_spdlogger("twice", (folder / "second").c_str(), 1000, 1);
  ox_init_spdlogger(nullptr, (folder / "third").c_str(), 1000, 1);
  ox_log("again\n");
  EXPECT_THAT(lines_of(read_file(folder / "first")), ElementsAre("first", "again"));
}

/* Every line that eight threads write, each numbered and filled up to `length` characters. */
std::multiset<std::string> log_from_eight_threads(int per_thread, size_t length) {
  const auto line = [length](int thread, int i) {
    std::string text = "thread " + std::to_string(thread) + " line " + std::to_string(i) + " ";
    return text + std::string(length - text.size(), static_cast<char>('a' + thread));
  };
  std::multiset<std::string> written;
  std::vector<std::thread> writers;
  for (int t = 0; t < 8; ++t) {
    for (int i = 0; i < per_thread; ++i) {
      written.insert(line(t, i));
    }
    writers.emplace_back([t, per_thread, line] {
      for (int i = 0; i < per_thread; ++i) {
        ox_log_msg(t, "rotation.c", OX_USER_LEVEL, 0, "%s\n", line(t, i).c_str());
      }
    });
  }
  for (auto& writer : writers) {
    writer.join();
  }
  return written;
}

/* The same lines out of a file, without their times. */
void add_lines(const std::string& path, std::multiset<std::string>* found) {
  for (const auto& line : lines_of(read_file(path))) {
    found->insert(line.size() < timestamp_length ? line : line.substr(timestamp_length));
  }
}

TEST(Rotation, LosesAndMixesNoLineOfEightThreads) {
  constexpr size_t max_size = 8192;
  LogFile log(max_size, 30);
  const auto written = log_from_eight_threads(150, 100);
  std::multiset<std::string> found;
  size_t files = 0;
  for (const auto& entry :
       std::filesystem::directory_iterator(std::filesystem::path(log.path()).parent_path())) {
    ++files;
    EXPECT_LE(entry.file_size(), max_size);
    add_lines(entry.path().string(), &found);
  }
  EXPECT_GT(files, 5u);
  EXPECT_TRUE(written == found);
}

/* The product's own limits: 52428800 bytes, and ten files beside the current one. */
bool rotates_at_its_limits() {
  const TestFolder folder;
  write_file(folder / "tnvfs.9.log", "nine");
  write_file(folder / "tnvfs.10.log", "ten");
  write_file(folder / "tnvfs.11.log", "eleven");
  ox_init_logging("VFS_LOGGER", (folder / "tnvfs.log").c_str(), nullptr, nullptr);
  const auto written = log_from_eight_threads(1700, 4000);
  const auto full = std::filesystem::file_size(folder / "tnvfs.1.log");
  std::multiset<std::string> found;
  add_lines(folder / "tnvfs.1.log", &found);
  add_lines(folder / "tnvfs.log", &found);
  return full <= 52428800 && full > 52428800 - 4100 && found == written &&
         read_file(folder / "tnvfs.10.log") == "nine" &&
         read_file(folder / "tnvfs.11.log") == "eleven";
}

TEST(RotationDeathTest, HappensAtTheLimitsOfTheLog) {
  EXPECT_EXIT(exit(rotates_at_its_limits() ? 0 : 1), testing::ExitedWithCode(0), "");
}

/* Both ways of writing a line, the longest lines, and no memory taken from the second line on. */
TEST(Line, TakesNoMemory) {
  LogFile log;
  const std::string text(4095, 'x');
  const auto both = [&text] {
    ox_log("%s\n", text.c_str());
    ox_log_msg(1, "file.c", OX_INFO_LEVEL, 0, "%s %d\n", text.c_str(), 7);
  };
  both();
  const size_t before = allocations;
  both();
  EXPECT_EQ(before, allocations.load());
}

TEST(Rotation, ThatCannotRenameGoesOnInTheFile) {
  LogFile log(100, 1);
  std::filesystem::create_directories(log.path().replace(log.path().size() - 4, 4, ".1.txt/full"));
  ox_log("%s\n", std::string(90, '1').c_str());
  ox_log("%s\n", std::string(90, '2').c_str());
  ox_log("3\n");
  EXPECT_THAT(log.lines(), ElementsAre(std::string(90, '2'), "3"));
}

#ifndef _WIN32 /* Windows does not let the folder of an open file go */
TEST(RotationDeathTest, WithoutAFolderGoesOnOnTheConsole) {
  const auto lose_folder = [] {
    console_to_stderr();
    LogFile log(100, 3);
    ox_log("%s\n", std::string(90, '1').c_str());
    const auto folder = std::filesystem::path(log.path()).parent_path();
    std::filesystem::rename(folder, folder.string() + "_away");
    std::ofstream(folder.string()) << "in the way";
    ox_log("%s\n", std::string(90, '2').c_str());
    ox_log("3\n");
    ox_log_flush();
    std::filesystem::remove_all(folder.string() + "_away");
  };
  EXPECT_EXIT((lose_folder(), exit(0)), testing::ExitedWithCode(0),
              testing::AllOf(HasSubstr("Cannot write the log file"),
                             EndsWith(std::string(90, '2') + "\n3\n")));
}
#endif

#ifdef __linux__ /* has a file on a disk that is always full */
TEST(StateDeathTest, SendsWhatAFullDiskDoesNotTakeToTheConsole) {
  const auto fill = [] {
    console_to_stderr();
    ox_init_spdlogger("full", "/dev/full", 1000, 1);
    ox_log("1\n");
    ox_log("2\n");
    ox_log_flush();
  };
  EXPECT_EXIT((fill(), exit(0)), testing::ExitedWithCode(0),
              testing::AllOf(HasSubstr("Cannot write the log file"), EndsWith("1\n2\n")));
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
