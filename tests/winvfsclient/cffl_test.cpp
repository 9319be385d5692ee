/*
 * Cloud file lists: the walk, the reader, the listings, and the checks of tools/cfflprint beside
 * the walk on damaged lists. The reader reads from a scripted descriptor. An assertion of the walk
 * is thrown here instead of ending the process, so that what came before it can be seen; the linker
 * puts both in the place of the library's functions.
 */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <random>
#include <regex>

#include "golden_text.h"
#include "log_capture.h"
#include "ox_assert.h"
#include "ox_errno.h"
#include "ox_logging.h"
#include "test_folder.h"
#include "tn_cffl.h"
#include "tn_util.h"
#include "tools/cfflprint/list_check.h"
#include "tools/cfflprint/list_writer.h"

namespace {

/* A descriptor with a content. Each read gives what is planned for it, or all that it asks for. */
struct Script {
  std::string content;
  size_t position = 0;
  std::deque<ox_s64> reads; /* the most bytes of each read; negative: it fails with this errno */
  std::string after_seek;   /* becomes the content when the position is set */
  std::vector<size_t> asked;
} script;

}  // namespace

extern "C" {
void __wrap_ox_assert_failed(const char* expr, const char* file, int line) {
  throw std::string(expr) + " " + file + ":" + std::to_string(line);
}

ox_s64 __wrap_ox_read(int, void* buf, size_t count) {
  script.asked.push_back(count);
  ox_s64 most = static_cast<ox_s64>(count);
  if (!script.reads.empty()) {
    most = std::min(most, script.reads.front());
    script.reads.pop_front();
  }
  if (most < 0) {
    errno = static_cast<int>(-most);
    return -1;
  }
  const size_t given = script.content.copy(static_cast<char*>(buf), static_cast<size_t>(most),
                                           std::min(script.position, script.content.size()));
  script.position += given;
  return static_cast<ox_s64>(given);
}

ox_off __wrap_ox_lseek(int, ox_off offset, int whence) {
  EXPECT_EQ(whence, 0);
  script.position = static_cast<size_t>(offset);
  if (!script.after_seek.empty()) {
    script.content = script.after_seek;
  }
  return offset;
}
}

namespace {

using cfflprint::Item;
using testing::ElementsAre;
using testing::EndsWith;
using testing::StartsWith;
using Bytes = std::vector<ox_u8>;

/* Where fields stand in a list, and where entries begin in the sample. */
constexpr size_t VERSION = 0, FLAGS = 12, SIZE = 56, ID_MARK = 32, TABLE = 136, FIRST = 144;
constexpr size_t NAME = 768, RECLEN = 56;
constexpr size_t ENTRY_1 = 1024, ENTRY_2 = ENTRY_1 + 376, ENTRY_3 = ENTRY_2 + 376;
constexpr size_t SAMPLE_SIZE = ENTRY_3 + 384;

/* A folder "docs" with a file, a folder and a file whose name fills its record. */
Bytes sample() {
  Item docs = {.name = "docs", .folder = true, .id = {{1}}, .revision = {{2}}};
  docs.modified = {1700000000, 5, 0};
  Item file = {.name = "a.txt", .size = 4711, .id = {{3}}, .revision = {{4}}};
  file.modified = {1600000000, 0, 0};
  file.checksum = {1, 3, 4194304, {0xAB}};
  const Item folder = {.name = "sub", .folder = true, .id = {{5}}};
  const Item last = {.name = "caf\xC3\xA9.md", .size = 12, .id = {{6}}};
  return cfflprint::write_list(docs, {file, folder, last}, "me", {1800000000, 7, 0});
}

const cfs_cffl* list_in(const Bytes& bytes) {
  return reinterpret_cast<const cfs_cffl*>(bytes.data());
}

template <typename T>
void put(Bytes& bytes, size_t offset, T value) {
  memcpy(bytes.data() + offset, &value, sizeof(value));
}

/* With a callback for the prefix, a line at FATAL does not end the process by itself. */
struct PrefixCallback {
  PrefixCallback() {
    ox_logfunc = [](const char*, const char* level, ox_s32, ox_s32 err, const ox_alert_t*) {
      static thread_local std::string prefix;
      prefix = level + (":" + std::to_string(err) + " ");
      return prefix.c_str();
    };
  }
  ~PrefixCallback() { ox_logfunc = nullptr; }
  const LogCapture log;
};

/* The names of a list's entries, or the assertion that the walk ends in. */
std::string walked(const Bytes& bytes) {
  std::string names;
  const cfs_cffl* list = list_in(bytes);
  try {
    for (auto* cfp = tn_get_first_cfp(list); cfp != nullptr; cfp = tn_get_next_cfp(list, cfp)) {
      names += std::string(cfs_path_name(cfp), tn_cfp_name_len(list, cfp)) + '|';
    }
  } catch (const std::string& assertion) {
    names += assertion;
  }
  return names;
}

/* ------------------------------------------------------------------- the walk */

TEST(Walk, FirstEntryByVersionAndFolder) {
  constexpr ox_u64 LOCAL = 0x5441524E44584944, LOCAL_TOO = 0x534D422D2D454944;
  struct {
    ox_u64 version, offset;
    const char* name;
    ox_u32 flags;
    ox_u64 mark; /* the last 8 bytes of the folder's id */
    size_t first;
  } const cases[] = {{1, 2048, "docs", 0, 0, 1024},
                     {2, 2048, "docs", 0, 0, 1024},
                     {3, 0, "docs", 0, 0, 1024},
                     {3, 2048, "docs", 0, LOCAL, 2048},
                     {3, 2048, "lost+found", 0, 0, 2048},
                     {3, 2048, "lost+found2", 0, LOCAL, 2048},
                     {3, 2048, "lost+found", 1, LOCAL, 2048},
                     {3, 2048, "lost+found", 0, LOCAL + 1, 2048},
                     {3, 2048, "lost+found", 2, LOCAL, 1024},
                     {3, 2048, "lost+found", 0, LOCAL_TOO, 1024}};
  for (const auto& c : cases) {
    Bytes bytes(4096);
    put(bytes, VERSION, c.version);
    put(bytes, SIZE, ox_u64{4096});
    put(bytes, FIRST, c.offset);
    put(bytes, FLAGS, c.flags);
    put(bytes, ID_MARK, c.mark);
    memcpy(bytes.data() + NAME, c.name, strlen(c.name));
    const auto* first = reinterpret_cast<const ox_u8*>(tn_get_first_cfp(list_in(bytes)));
    EXPECT_EQ(static_cast<size_t>(first - bytes.data()), c.first) << c.version << c.name << c.mark;
  }
}

/* Without a callback, the line at FATAL ends the process before the walk's own assertion does. */
TEST(Walk, EndsTheProcessWithTheLogsAssertion) {
  Bytes bytes = sample();
  put(bytes, FIRST, ox_u64{9999});
  EXPECT_EQ(walked(bytes), "0 ox_logging_win:117");
}

TEST(Words, TheirTables) {
  EXPECT_STREQ(tn_print_permissions(4), "Viewer/RDONLY");
  EXPECT_STREQ(tn_print_permissions(8), "Invalid");
  EXPECT_STREQ(tn_pftype2string(24 + 2), "PRE-SEEDED");
  EXPECT_STREQ(tn_pfstate2string(64 + 7), "TN_PRESEEDING_FAILED");
  for (ox_u8 number = 8; number < 64; number++) {
    EXPECT_EQ(tn_pfstate2string(number), nullptr);
    EXPECT_EQ(tn_pftype2string(static_cast<ox_u8>(3 + number % 21)), nullptr);
  }
  tn_sbpflist_ent pinned[2];
  EXPECT_EQ(tn_get_next_pfent(pinned, nullptr), pinned);
  EXPECT_EQ(tn_get_next_pfent(pinned, pinned), pinned + 1);
}

/* ------------------------------------------------------------------- the reader */

class Reader : public testing::Test {
 protected:
  Reader() { holds(sample()); }
  ~Reader() override { tn_free_cffl(&list_); }
  static void holds(const Bytes& bytes) {
    script = {};
    script.content.assign(bytes.begin(), bytes.end());
  }
  /* Reads through descriptor 7 into memory at a multiple of 4096. */
  bool read(bool whole) {
    errno = 0;
    tn_free_cffl(&list_);
    script.position = 0;
    list_ = tn_fread_cffl(7, 4096, whole);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(list_) % 4096, 0u);
    return list_ != nullptr;
  }
  const char* read_bytes_at(size_t at) const { return reinterpret_cast<const char*>(list_) + at; }
  static void put_size(ox_u64 size) { memcpy(script.content.data() + SIZE, &size, sizeof(size)); }

  LogCapture log_;
  cfs_cffl* list_ = nullptr;
};

TEST_F(Reader, ReadsTheHeaderOrTheWholeInPieces) {
  ASSERT_TRUE(read(false));
  EXPECT_EQ(std::string(read_bytes_at(0), 1024), script.content.substr(0, 1024));
  EXPECT_THAT(script.asked, ElementsAre(1024));
  script.asked.clear();
  script.reads = {1024, 1000, 0, 0, 1};
  ASSERT_TRUE(read(true));
  EXPECT_EQ(std::string(read_bytes_at(0), SAMPLE_SIZE), script.content);
  EXPECT_THAT(script.asked, ElementsAre(1024, 2160, 1160, 1160, 1160, 1159));
  tn_free_cffl(nullptr);
  script.position = 100; /* the header comes from the descriptor's position, the list from 0 */
  cfs_cffl* header = tn_fread_cffl(7, 0, false);
  EXPECT_EQ(memcmp(header, script.content.data() + 100, 1024), 0);
  tn_free_cffl(&header);
  EXPECT_EQ(header, nullptr);
}

TEST_F(Reader, FailuresLogOneLine) {
  const struct {
    std::deque<ox_s64> reads;
    ox_u64 size;
    int error;
    const char* line;
  } cases[] = {{{1023}, 2160, 0, "ERROR 0: error reading cffl header from fd 7"},
               {{-9}, 2160, 9, "ERROR 9: error reading cffl header from fd 7"},
               {{1024, 500, -5}, 2160, 5, "ERROR 5: error reading 2160 bytes cffl from fd 7"},
               {{}, 0x80000000, 12, "ERROR 12: cannot allocate -2147483648 bytes for cffl"},
               {{}, 0x100000400, 12, "ERROR 12: cannot allocate 1024 bytes for cffl"}};
  std::vector<std::string> lines;
  for (const auto& c : cases) {
    script.reads = c.reads;
    put_size(c.size);
    EXPECT_FALSE(read(true));
    EXPECT_EQ(errno, c.error) << c.line;
    lines.push_back(c.line);
  }
  EXPECT_EQ(log_.brief_lines(), lines);
}

TEST_F(Reader, SizesThatLie) {
  put_size(10);
  ASSERT_TRUE(read(true));
  EXPECT_EQ(list_->cfh_head.cf_size, 0u) << "a header block all the same: 10 bytes and zeros";
  put_size(1400); /* replaced by a longer list between the two reads */
  script.after_seek = script.content;
  put_size(1399);
  EXPECT_FALSE(read(true));
  EXPECT_EQ(errno, OX_EAGAIN);
}

/* The last name is the last byte of the list, whatever the length of its record says. */
TEST_F(Reader, NamesEndWithTheListWhateverTheirRecordSays) {
  Bytes bytes = sample();
  bytes.resize(ENTRY_3 + CFS_PATH_MIN_RECLEN);
  bytes.back() = 'x';
  put(bytes, SIZE, ox_u64{bytes.size()});
  for (const ox_u64 reclen : {0ull, 1ull, 368ull, 369ull, 370ull, 5000ull, ~0ull}) {
    put(bytes, ENTRY_3 + RECLEN, reclen);
    holds(bytes);
    ASSERT_TRUE(read(true));
    const auto* last = reinterpret_cast<const cfs_path*>(read_bytes_at(ENTRY_3));
    tnw_fileinfo fi;
    tn_cfp2fi(&fi, last);
    EXPECT_STREQ(fi.fi_name, "x") << reclen;
    EXPECT_EQ(tn_cfp_name_len(list_, last), 1u) << reclen;
  }
}

/* ------------------------------------------------------------------- the listings */

/* What `print` writes to the standard output. */
template <typename Print>
std::string printed(Print print) {
  testing::internal::CaptureStdout();
  print();
  std::string text = testing::internal::GetCapturedStdout();
  std::erase(text, '\r');
  return text;
}

/* Against listings.txt. */
TEST(Listing, HeaderEntriesAndHashTable) {
  Bytes bytes = sample();
  const cfs_cffl_hash slot = {-5, 1, 2, 1072, {0x0A, 0xBC, 0, 1, 2, 3, 4, 0xFF, 9}};
  bytes.insert(bytes.begin() + 1024, sizeof(slot), 0);
  put(bytes, 1024, slot);
  put(bytes, SIZE, ox_u64{bytes.size()});
  put(bytes, TABLE, ox_u64{1024});
  put(bytes, FIRST, ox_u64{1072});
  EXPECT_TRUE(cfflprint::check_list(bytes).empty());
  std::string text = printed([&] {
    tn_print_cffl(list_in(bytes), 1);
    put(bytes, TABLE, ox_u64{1072}); /* behind the first entry: no entry is shown as a slot */
    tn_print_cffl(list_in(bytes), 1);
    tn_print_cffl(list_in(bytes), 0);
    tn_print_cffl_finfo(list_in(bytes));
  });
  text = std::regex_replace(text, std::regex(R"((Current time: )[\d.]+|\([^)]*\))"), "$1(TIME)");
  expect_text_of("listings", text);
}

/* ------------------------------------------------------------------- damage */

/* What the walk of a list finds, and what cfflprint --check says of it first. */
std::string found_in(const Bytes& bytes) {
  const auto faults = cfflprint::check_list(bytes);
  const bool whole = bytes.size() >= 1024 && list_in(bytes)->cfh_head.cf_size <= bytes.size();
  std::string text = whole ? walked(bytes) : "not whole";
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c < ' '; }, '?');
  return faults.empty() ? text
                        : text + " - " + std::to_string(faults[0].offset) + ' ' + faults[0].where +
                              ": " + faults[0].what;
}

/* Against damage.txt: each field of the sample takes each value at an edge, and texts that have no
 * end. The walk reads nothing outside the list (which ASan watches). */
TEST(Damage, IsFoundByTheWalkAndByTheChecks) {
  const PrefixCallback no_end;
  const struct {
    size_t offset, size;
  } fields[] = {{VERSION, 8},
                {8, 4},
                {16, 4},
                {20, 4},
                {SIZE, 8},
                {128, 4},
                {TABLE, 8},
                {FIRST, 8},
                {NAME, 256},
                {ENTRY_1 + 240, 64},
                {ENTRY_2 + 368, 8},
                {ENTRY_2 + RECLEN, 8},
                {ENTRY_3 + RECLEN, 8}};
  const ox_u64 values[] = {
      0, 1, 4, 8, 257, 368, 376, 385, 752, 759, 1024, 2159, 2160, 2161, ~ox_u64{0} - 375};
  std::string text = "sound: " + found_in(sample()) + "\ncut: " + found_in(Bytes(1023)) + "\n";
  for (const auto& field : fields) {
    for (const ox_u64 value : values) {
      if (field.size > 8 && value > 1) {
        break; /* a text is all 'n' or all NUL */
      }
      Bytes bytes = sample();
      field.size > 8 ? (void)memset(bytes.data() + field.offset, value == 0 ? 0 : 'n', field.size)
                     : (void)memcpy(bytes.data() + field.offset, &value, field.size);
      text += std::to_string(field.offset) + '=' + std::to_string(value) + ": " + found_in(bytes) +
              "\n";
    }
  }
  expect_text_of("damage", text);
  EXPECT_THAT(no_end.log.lines(),
              testing::Contains(AllOf(
                  StartsWith("{FATAL:22 \"corrupt cffl for folder docs:00000001-0000-0000-0000-"
                             "000000000000, current entry:caf\xC3\xA9.md, next cfp:"),
                  EndsWith(" exceeds cffl-size:2160\"}"))));
}

/*
 * Damaged lists in buffers of exactly their size. The checks survive all of them, and call walkable
 * exactly those that can be walked and printed.
 */
TEST(Check, AgreesWithTheWalkOnDamagedLists) {
  const PrefixCallback no_end;
  std::mt19937 random(20261121);
  const auto below = [&](size_t limit) {
    return std::uniform_int_distribution<size_t>(0, limit - 1)(random);
  };
  const Bytes good = sample();
  const size_t words[] = {
      VERSION, 8, 16, SIZE, TABLE, FIRST, ENTRY_1 + RECLEN, ENTRY_2 + RECLEN, ENTRY_3 + RECLEN};
  const ox_u64 values[] = {0, 1, 48, 368, 369, 376, 384, 752, 1024, 1400, 1776, 2160, ~ox_u64{0}};
  size_t walkable = 0;
  const int rounds = 4000;
  testing::internal::CaptureStdout();
  for (int round = 0; round < rounds; round++) {
    Bytes bytes = good;
    for (size_t i = below(4); i > 0; i--) {
      put(bytes, words[below(std::size(words))], values[below(std::size(values))] + below(3) - 1);
    }
    for (size_t i = below(4); i > 0; i--) {
      bytes[below(bytes.size())] = static_cast<ox_u8>(random());
    }
    if (below(4) == 0) {
      bytes.resize(below(bytes.size() + 400));
    }
    if (bytes.size() >= 1024 && below(4) != 0) {
      put(bytes, SIZE, ox_u64{bytes.size()});
    }
    bytes.shrink_to_fit();
    const bool can = cfflprint::can_be_walked(cfflprint::check_list(bytes));
    const bool whole = bytes.size() >= 1024 && list_in(bytes)->cfh_head.cf_size <= bytes.size();
    bool did = whole;
    try {
      whole ? tn_print_cffl(list_in(bytes), 1) : void();
    } catch (const std::string&) {
      did = false;
    }
    /* The walk knows neither the file's size nor that entries do not start in the header. */
    const bool same_size = whole && list_in(bytes)->cfh_head.cf_size == bytes.size();
    if (!whole || (same_size && tn_first_cfp_offset(list_in(bytes)) >= 1024)) {
      EXPECT_EQ(can, did) << round;
    }
    walkable += can ? 1 : 0;
  }
  (void)testing::internal::GetCapturedStdout();
  EXPECT_GT(walkable, rounds / 10u);
  EXPECT_LT(walkable, rounds / 2u);
}

}  // namespace
