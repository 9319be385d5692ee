/*
 * Cloud file lists: the walk, the reader, the listings, and the checks of tools/cfflprint beside
 * the walk on damaged lists (lists_fuzz.cpp has damage of any kind). The reader reads from a
 * scripted descriptor. An assertion of the walk is thrown here instead of ending the process, so
 * that what came before it can be seen; the linker puts both in the place of the library's
 * functions.
 */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <regex>
#include <sstream>

#include "golden_text.h"
#include "log_capture.h"
#include "ox_assert.h"
#include "ox_logging.h"
#include "script.h"
#include "test_folder.h"
#include "tn_cffl.h"
#include "tn_util.h"
#include "tools/cfflprint/list_check.h"
#include "tools/cfflprint/list_writer.h"
#include "wire_text.h"

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
using testing::EndsWith;
using testing::StartsWith;

/* Where fields stand in a list, and where entries begin in the sample. */
constexpr size_t VERSION = 0, FLAGS = 12, SIZE = 56, TABLE = 136, FIRST = 144;
constexpr size_t NAME = 768;
constexpr size_t ENTRY_1 = 1024, ENTRY_2 = ENTRY_1 + 376, ENTRY_3 = ENTRY_2 + 376;

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

/* ------------------------------------------------------------------- scripts */

/* cfs_path, as put_fields takes it. */
const char ENTRY[] =
    "flags:4 ver:1 perms:1 reserved:2 uid:4 nrev:4 id:16s rev:16s size:8 reclen:8 ck_version:4 "
    "ck_nchunks:4 ck_csize:8 ck_sha512:64s btime:8 bnsec:4 pad:4 cmtime:8 cmnsec:4";

/* What an entry becomes, in a record that held something else. */
std::string info_of(const Arguments& a) {
  Bytes entry(sizeof(cfs_path) + a[0].size() + 1);
  put_fields(ENTRY, a.options, entry.data());
  a[0].copy(reinterpret_cast<char*>(entry.data()) + sizeof(cfs_path), a[0].size());
  tnw_fileinfo info;
  memset(&info, 0xFF, sizeof info);
  tn_cfp2fi(&info, reinterpret_cast<const cfs_path*>(entry.data()));
  return fileinfo_text(info).substr(1);
}

/* A list that a script makes and reads. */
class ListPlayer {
 public:
  ListPlayer() {
    commands_["blank"] = [this](auto& a) { return bytes_ = Bytes(a.number(0)), ""; };
    commands_["cut"] = [this](auto& a) { return bytes_.resize(a.number(0)), ""; };
    commands_["number"] = [this](auto& a) { return put(bytes_, a.number(0), a.number(1)), ""; };
    commands_["text"] = [this](auto& a) {
      a[1].copy(reinterpret_cast<char*>(bytes_.data()) + a.number(0), a[1].size());
      return "";
    };
    commands_["first"] = [this](auto&) {
      const auto* first = reinterpret_cast<const ox_u8*>(tn_get_first_cfp(list_in(bytes_)));
      return std::to_string(first - bytes_.data());
    };
    commands_["replaced_after_header"] = [this](auto&) { return later_ = bytes_, ""; };
    commands_["read"] = [this](auto& a) { return read(a); };
    commands_["info"] = info_of;
    commands_["last_name"] = [this](auto&) { return last_name(); };
  }
  ~ListPlayer() { tn_free_cffl(&list_); }
  void play_case(const ScriptCase& script_case) { play(script_case, commands_); }

 private:
  /* read header|whole [from=100] [reads=1024,-9]: the most bytes of each read, or its errno */
  std::string read(const Arguments& a) {
    const LogCapture log;
    script = {{bytes_.begin(), bytes_.end()}, a.option("from", 0), {}, {}, {}};
    script.after_seek.assign(later_.begin(), later_.end());
    std::istringstream reads(a.options.contains("reads") ? a.options.at("reads") : "");
    for (std::string most; std::getline(reads, most, ',');) {
      script.reads.push_back(std::stoi(most));
    }
    tn_free_cffl(&list_);
    EXPECT_EQ(list_, nullptr);
    errno = 0;
    list_ = tn_fread_cffl(7, 4096, a.has("whole"));
    std::string answer = list_ == nullptr ? "errno " + std::to_string(errno) : same_bytes(a);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(list_) % 4096, 0u);
    answer += ", asked for";
    for (const size_t asked : script.asked) {
      answer += ' ' + std::to_string(asked);
    }
    for (const std::string& line : log.brief_lines()) {
      answer += '\n' + line;
    }
    return answer;
  }
  /* How many bytes of what was read are those of the list; behind them are zeros. */
  std::string same_bytes(const Arguments& a) const {
    const auto* const read = reinterpret_cast<const ox_u8*>(list_);
    const size_t size = a.has("whole") ? list_in(bytes_)->cfh_head.cf_size : 1024;
    const auto from = bytes_.begin() + static_cast<ptrdiff_t>(a.option("from", 0));
    const auto same = std::mismatch(read, read + size, from).first - read;
    const bool zeros = std::all_of(read + same, read + std::max<size_t>(size, 1024),
                                   [](ox_u8 byte) { return byte == 0; });
    return std::to_string(same) + (zeros ? " bytes" : " bytes, then others");
  }
  /* As a file information and the walk have it. */
  std::string last_name() const {
    const auto* const last =
        reinterpret_cast<const cfs_path*>(reinterpret_cast<const char*>(list_) + ENTRY_3);
    tnw_fileinfo fi;
    tn_cfp2fi(&fi, last);
    return as_word(fi.fi_name) + ' ' + std::to_string(tn_cfp_name_len(list_, last));
  }

  Bytes bytes_ = sample();
  Bytes later_; /* replaces the list between the two reads */
  cfs_cffl* list_ = nullptr;
  Commands commands_;
};

class Lists : public testing::TestWithParam<ScriptCase> {};

TEST_P(Lists, Play) { ListPlayer().play_case(GetParam()); }

INSTANTIATE_TEST_SUITE_P(Lists, Lists, testing::ValuesIn(script_cases("lists")), case_name);

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
  const size_t offsets[] = {0, 8, 16, 20, 56, 128, 136, 144, 768, 1264, 1768, 1456, 1832};
  const size_t sizes[] = {8, 4, 4, 4, 8, 4, 8, 8, 256, 64, 8, 8, 8};
  const ox_u64 values[] = {
      0, 1, 4, 8, 257, 368, 376, 385, 752, 759, 1024, 2159, 2160, 2161, ~ox_u64{0} - 375};
  std::string text = "sound: " + found_in(sample()) + "\ncut: " + found_in(Bytes(1023)) + "\n";
  for (size_t i = 0; i < std::size(offsets); i++) {
    for (const ox_u64 value : values) {
      if (sizes[i] > 8 && value > 1) {
        break; /* a text is all 'n' or all NUL */
      }
      Bytes bytes = sample();
      ox_u8* const at = bytes.data() + offsets[i];
      sizes[i] > 8 ? (void)memset(at, value == 0 ? 0 : 'n', sizes[i])
                   : (void)memcpy(at, &value, sizes[i]);
      text +=
          std::to_string(offsets[i]) + '=' + std::to_string(value) + ": " + found_in(bytes) + "\n";
    }
  }
  expect_text_of("damage", text);
  EXPECT_THAT(no_end.log.lines(),
              testing::Contains(AllOf(
                  StartsWith("{FATAL:22 \"corrupt cffl for folder docs:00000001-0000-0000-0000-"
                             "000000000000, current entry:caf\xC3\xA9.md, next cfp:"),
                  EndsWith(" exceeds cffl-size:2160\"}"))));
}

}  // namespace
