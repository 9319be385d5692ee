/*
 * Cloud file lists: the walk, the reader against a scripted descriptor, the listings, and the
 * checks of tools/cfflprint beside the walk on damaged lists. A failed assertion of the walk is
 * thrown here instead of ending the process (the linker wraps it), so that what came before it can
 * be seen.
 */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <random>

#include "log_capture.h"
#include "ox_assert.h"
#include "ox_errno.h"
#include "ox_logging.h"
#include "tn_cffl.h"
#include "tn_util.h"
#include "tools/cfflprint/list_check.h"
#include "tools/cfflprint/list_writer.h"

namespace {

/* A descriptor with a content, whose reads give what is planned for them, or all that they ask. */
struct Script {
  std::string content;
  size_t position = 0;
  std::deque<ox_s64> reads; /* bytes given at most; negative: fails with this errno */
  std::string after_seek;   /* replaces the content when the position changes */
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
using testing::HasSubstr;
using Bytes = std::vector<ox_u8>;

const char* no_prefix(const char*, const char* level, ox_s32, ox_s32 err, const ox_alert_t*) {
  static thread_local std::string prefix;
  prefix = level + (":" + std::to_string(err) + " ");
  return prefix.c_str();
}

/* A folder "docs" with a file, a folder and a file whose name fills its record. */
Bytes sample() {
  Item docs = {.name = "docs", .folder = true, .id = {{1}}, .revision = {{2}}};
  docs.modified = {1700000000, 5, 0};
  Item file = {.name = "a.txt", .size = 4711, .id = {{3}}, .revision = {{4}}};
  file.modified = {1600000000, 0, 0};
  file.checksum = {1, 3, 4194304, {0xAB}};
  const Item folder = {.name = "sub", .folder = true, .id = {{5}}};
  const Item last = {.name = "caf\xC3\xA9.md", .size = 12, .id = {{6}}};
  return cfflprint::WriteList(docs, {file, folder, last}, "me", {1800000000, 7, 0});
}

const cfs_cffl* list_in(const Bytes& bytes) {
  return reinterpret_cast<const cfs_cffl*>(bytes.data());
}

template <typename T>
void put(Bytes& bytes, size_t offset, T value) {
  memcpy(bytes.data() + offset, &value, sizeof(value));
}
constexpr size_t version_at = 0, flags_at = 12, size_at = 56, first_at = 144, name_at = 768;
constexpr size_t id_mark_at = 24 + 8, table_at = 136, reclen_at = 56;

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

TEST(Walk, FirstEntryByVersionAndFolder) {
  struct {
    ox_u64 version, offset;
    const char* name;
    ox_u32 flags;
    ox_u64 mark; /* the folder id's last 8 bytes */
    size_t first;
  } const cases[] = {{1, 2048, "docs", 0, 0, 1024},
                     {2, 2048, "docs", 0, 0, 1024},
                     {3, 0, "docs", 0, 0, 1024},
                     {3, 2048, "docs", 0, 0x5441524E44584944, 2048},
                     {3, 2048, "lost+found", 0, 0, 2048},
                     {3, 2048, "lost+found2", 0, 0x5441524E44584944, 2048},
                     {3, 2048, "lost+found", 1, 0x5441524E44584944, 2048},
                     {3, 2048, "lost+found", 0, 0x5441524E44584945, 2048},
                     {3, 2048, "lost+found", 2, 0x5441524E44584944, 1024},
                     {3, 2048, "lost+found", 0, 0x534D422D2D454944, 1024}};
  for (const auto& c : cases) {
    Bytes bytes(4096);
    put(bytes, version_at, c.version);
    put(bytes, size_at, ox_u64{4096});
    put(bytes, first_at, c.offset);
    put(bytes, flags_at, c.flags);
    put(bytes, id_mark_at, c.mark);
    memcpy(bytes.data() + name_at, c.name, strlen(c.name));
    const auto* first = reinterpret_cast<const ox_u8*>(tn_get_first_cfp(list_in(bytes)));
    EXPECT_EQ(static_cast<size_t>(first - bytes.data()), c.first) << c.version << c.name << c.mark;
  }
}

/* Each is the process's end, with nothing read outside the list (which ASan watches). */
TEST(Walk, ContradictionsAreFatal) {
  const LogCapture log;
  ox_logfunc = no_prefix;
  const Bytes good = sample();
  EXPECT_EQ(walked(good), "a.txt|sub|caf\xC3\xA9.md|");
  const size_t second = 1024 + 376, third = second + 376;
  ASSERT_EQ(good.size(), third + 384);

  struct {
    size_t offset;
    ox_u64 value;
    const char* end;
  } const cases[] = {{version_at, 0, "((0)) tn_util:57"},
                     {version_at, 4, "((0)) tn_util:57"},
                     {size_at, 1024, ""},
                     {size_at, 0, "(0) tn_util:91"},
                     {size_at, 1024 + 368, "(0) tn_util:91"},
                     {size_at, 1024 + 369, "a|(0) tn_util:91"},
                     {size_at, good.size() - 1, "a.txt|sub|caf\xC3\xA9.md|(0) tn_util:91"},
                     {first_at, good.size(), ""},
                     {first_at, good.size() + 1, "(0) tn_util:91"},
                     {first_at, ~ox_u64{0}, "(0) tn_util:91"},
                     {second + reclen_at, 0, "a.txt|sub|(0) tn_util:91"},
                     {second + reclen_at, 368, "a.txt|sub|(0) tn_util:91"},
                     {second + reclen_at, ~ox_u64{0} - 375, "a.txt|sub|(0) tn_util:91"},
                     {second + reclen_at, 376 + 16, "a.txt|sub|(0) tn_util:91"},
                     {third + reclen_at, 385, "a.txt|sub|caf\xC3\xA9.md|(0) tn_util:91"}};
  for (const auto& c : cases) {
    Bytes bytes = good;
    put(bytes, c.offset, c.value);
    EXPECT_EQ(walked(bytes), c.end) << c.offset << ' ' << c.value;
  }
  ox_logfunc = nullptr;
  const std::string last = log.lines().back();
  EXPECT_TRUE(
      last.starts_with("{FATAL:22 \"corrupt cffl for folder docs:00000001-0000-0000-0000-"
                       "000000000000, current entry:caf\xC3\xA9.md, next cfp:"))
      << last;
  EXPECT_TRUE(last.ends_with(" exceeds cffl-size:2160\"}")) << last;
}

TEST(WalkDeathTest, EndsTheProcess) {
  Bytes bytes = sample();
  put(bytes, first_at, ox_u64{9999});
  EXPECT_DEATH(tn_get_first_cfp(list_in(bytes)),
               "Assertion failed: 0, file ox_logging_win, line 117");
}

/* A last name that fills record and list without a NUL: neither listing nor record reads on. */
TEST(Walk, NameWithoutNul) {
  Bytes bytes = sample();
  bytes.resize(1024 + 376 + 376 + 368 + 9);
  bytes.shrink_to_fit();
  put(bytes, size_at, ox_u64{bytes.size()});
  put(bytes, 1024 + 376 + 376 + reclen_at, ox_u64{368 + 9});
  EXPECT_EQ(walked(bytes), "a.txt|sub|caf\xC3\xA9.md|");
  tnw_fileinfo fi;
  tn_cfp2fi(&fi, reinterpret_cast<const cfs_path*>(bytes.data() + 1024 + 376 + 376));
  EXPECT_STREQ(fi.fi_name, "caf\xC3\xA9.md");
}

TEST(Words, TheirTables) {
  EXPECT_STREQ(tn_print_permissions(4), "Viewer/RDONLY");
  EXPECT_STREQ(tn_print_permissions(8), "Invalid");
  EXPECT_STREQ(tn_pftype2string(24 + 2), "PRE-SEEDED");
  EXPECT_STREQ(tn_pfstate2string(64 + 7), "TN_PRESEEDING_FAILED");
  for (int type = 3; type < 24; type++) {
    EXPECT_EQ(tn_pftype2string(static_cast<ox_u8>(type)), nullptr);
  }
  for (int state = 8; state < 64; state++) {
    EXPECT_EQ(tn_pfstate2string(static_cast<ox_u8>(state)), nullptr);
  }
  tn_sbpflist_ent pinned[2];
  EXPECT_EQ(tn_get_next_pfent(pinned, nullptr), pinned);
  EXPECT_EQ(tn_get_next_pfent(pinned, pinned), pinned + 1);
}

/* ------------------------------------------------------------------------------ the reader */

class Reader : public testing::Test {
 protected:
  Reader() {
    const Bytes bytes = sample();
    script = {};
    script.content.assign(bytes.begin(), bytes.end());
  }
  ~Reader() override { tn_free_cffl(&list_); }
  /* Reads through descriptor 7 into memory on a boundary of 4096. */
  bool read(bool whole) {
    errno = 0;
    list_ = tn_fread_cffl(7, 4096, whole);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(list_) % 4096, 0u);
    return list_ != nullptr;
  }
  void put_size(ox_u64 size) { memcpy(script.content.data() + size_at, &size, sizeof(size)); }
  std::string read_bytes(size_t size) const { return {reinterpret_cast<const char*>(list_), size}; }
  LogCapture log_;
  cfs_cffl* list_ = nullptr;
};

TEST_F(Reader, HeaderAloneFromThePosition) {
  script.content.insert(0, 100, 'x');
  script.position = 100;
  ASSERT_TRUE(read(false));
  EXPECT_EQ(read_bytes(1024), script.content.substr(100, 1024));
  EXPECT_THAT(script.asked, ElementsAre(1024));
}

TEST_F(Reader, WholeListInPieces) {
  script.reads = {1024, 1000, 0, 0, 1};
  ASSERT_TRUE(read(true));
  EXPECT_EQ(read_bytes(2160), script.content);
  EXPECT_THAT(script.asked, ElementsAre(1024, 2160, 1160, 1160, 1160, 1159));
  tn_free_cffl(&list_);
  EXPECT_EQ(list_, nullptr);
  tn_free_cffl(nullptr);
}

TEST_F(Reader, FailuresLogOneLine) {
  struct {
    std::deque<ox_s64> reads;
    ox_u64 size;
    const char* code;
    const char* line;
    int error;
  } const cases[] = {
      {{1023}, 2160, "ERR:000 tn_cffl_read:", "error reading cffl header from fd 7", 0},
      {{-9}, 2160, "ERR:009 ", "error reading cffl header from fd 7", 9},
      {{1024, 500, -5}, 2160, "ERR:005 ", "error reading 2160 bytes cffl from fd 7", 5},
      {{}, 0x80000000, "ERR:012 ", "cannot allocate -2147483648 bytes for cffl", 12},
      {{}, 0x100000400, "ERR:012 ", "cannot allocate 1024 bytes for cffl", 12}};
  size_t lines = 0;
  for (const auto& c : cases) {
    script.position = 0;
    script.reads = c.reads;
    put_size(c.size);
    EXPECT_FALSE(read(true));
    EXPECT_EQ(errno, c.error) << c.line;
    ASSERT_EQ(log_.lines().size(), ++lines);
    EXPECT_THAT(log_.lines().back(), AllOf(HasSubstr(c.code), EndsWith(c.line)));
  }
}

TEST_F(Reader, SizesThatLie) {
  put_size(10);
  ASSERT_TRUE(read(true));
  EXPECT_EQ(list_->cfh_head.cf_size, 0u); /* a header block all the same: of 10 bytes and zeros */
  tn_free_cffl(&list_);

  put_size(1400); /* replaced by a longer list between the two reads */
  script.position = 0;
  script.after_seek = script.content;
  put_size(1399);
  EXPECT_FALSE(read(true));
  EXPECT_EQ(errno, OX_EAGAIN);
}

/* ---------------------------------------------------------------------------- the listings */

/* What `print` writes to the standard output, without what stands in parentheses. */
template <typename Print>
std::string printed(Print print) {
  testing::internal::CaptureStdout();
  print();
  std::string text = testing::internal::GetCapturedStdout();
  std::erase(text, '\r');
  for (size_t at = 0; (at = text.find('(', at)) != std::string::npos; at++) {
    text.erase(at + 1, text.find(')', at) - at - 1);
  }
  return text;
}

TEST(Listing, HeaderEntriesAndHashTable) {
  Bytes bytes = sample();
  const cfs_cffl_hash slot = {-5, 1, 2, 1072, {0x0A, 0xBC, 0, 1, 2, 3, 4, 0xFF, 9}};
  bytes.insert(bytes.begin() + 1024, sizeof(slot), 0);
  put(bytes, 1024, slot);
  put(bytes, size_at, ox_u64{bytes.size()});
  put(bytes, table_at, ox_u64{1024});
  put(bytes, first_at, ox_u64{1072});
  EXPECT_TRUE(cfflprint::CheckList(bytes).empty());

  const std::string zeros(124, '0');
  const std::string ids = "03000000-0000-0000-0000-000000000000";
  std::string text = printed([&] { tn_print_cffl(list_in(bytes), 1); });
  const size_t now = text.find("Current time: ");
  ASSERT_NE(now, std::string::npos);
  text.replace(now, text.find('\n', now) - now, "NOW");
  EXPECT_EQ(text.substr(0, text.find("DIR")),
            "Version:3 Header-Block-Size:1024 Size:2208 Dirs:1 Files:2 Cfp-Offset: 1072 "
            "Fht-Offset 1024\n"
            "Name:docs Fid: 00000001-0000-0000-0000-000000000000 \t"
            "Rev: 00000002-0000-0000-0000-000000000000 \n"
            "Etag: " +
                std::string(64, ' ') +
                " \n"
                "NOW\n"
                "Last Refresh time: 1800000000.7 ()\n"
                "CFS Create Time: 0.0 ()\n"
                "CFS mtime: 1700000000.5 ()\n"
                "State: cloud\n"
                "Permission: Owner/Modify\n"
                "                            Entry ID                              FID/GID "
                "Type     Size #VER    Perms    Last Mod Time      Uploaded By Name\n"
                "00000003-0000-0000-0000-000000000000 00000004-0000-0000-0000-000000000000 "
                "FILE     4711 0001 00000001               me 1600000000  a.txt\n"
                "Checksum:1-3-4194304-ab00" +
                zeros +
                "\n"
                "00000005-0000-0000-0000-000000000000 00000000-0000-0000-0000-000000000000 ");
  EXPECT_THAT(text, EndsWith("count  hashval   next prev cfp_offset\t sha256\n"
                             "0\t-5\t1\t2\t1072\tabc01234ff\n"));
  put(bytes, table_at, ox_u64{1072});
  EXPECT_THAT(printed([&] { tn_print_cffl(list_in(bytes), 1); }), EndsWith("\t sha256\n"))
      << "no entry is shown as a slot";
  EXPECT_THAT(printed([&] { tn_print_cffl(list_in(bytes), 0); }),
              EndsWith("Checksum:0-0-0-" + zeros + "0000\n"));
  EXPECT_THAT(printed([&] { tn_print_cffl_finfo(list_in(bytes)); }),
              HasSubstr("DIR          0 0001               me 0 sub\n"
                        "Cfp Version: 0x1 Cfp perms = 0x1\n"
                        "Checksum:0-0-0-" +
                        zeros + "0000\nFILE        12 "));
}

/* ------------------------------------------------------------------------------ the checks */

/* The sample with something written over it, by what cfflprint --check says of it. */
TEST(Check, NamesTheFieldAndTheEntry) {
  EXPECT_TRUE(cfflprint::CheckList(sample()).empty());
  struct {
    size_t offset;
    std::string bytes;
    const char* says;
  } const cases[] = {
      {0, "\4", "0 cf_version: 4 is none of 1, 2 and 3"},
      {8, "\1", "8 cf_hbsize: 1025 instead of 1024"},
      {16, "\2", "16 cf_dcount: 2, and the list has 1"},
      {20, "\3", "20 cf_fcount: 3, and the list has 2"},
      {size_at, "\x71", "56 cf_size: 2161 bytes, and the file has 2160"},
      {128, "\x8", "128 cf_perms: 8 is no permission"},
      {table_at, "\1", "136 cf_ihtoff: the hash table is at 1, inside the header block"},
      {table_at, "\1\4", "136 cf_ihtoff: the hash table is at 1025, among the entries"},
      {first_at, "\1\1", "144 cf_cfpoff: the first entry is at 257, inside the header block"},
      {first_at, "\x71\x8", "144 cf_cfpoff: the first entry is at 2161, past the list's end"},
      {name_at, std::string(256, 'n'), "768 cfh_name: its 256 bytes have no NUL"},
      {1024 + 240, std::string(64, 'n'), "1264 mp_lastuser of entry 1: its 64 bytes have no NUL"},
      {1400 + 368, std::string(8, 'n'), "1768 mp_name of entry 2: its 8 bytes have no NUL"},
      {1400 + 368, std::string(1, '\0'), "1768 mp_name of entry 2: it is empty"},
      {1400 + 56, std::string("\x70\x1", 2),
       "1456 mp_reclen of entry 2: 368 bytes, and an entry takes at least 369"},
      {1400 + 56, "\xf9\x2", "1456 mp_reclen of entry 2: 761 bytes, and 760 are left"},
      {1400 + 56, "\xf7\x2", "2159 entry 3: 1 bytes are left, and an entry takes at least 369"}};
  for (const auto& c : cases) {
    Bytes bytes = sample();
    std::copy(c.bytes.begin(), c.bytes.end(), bytes.begin() + static_cast<ptrdiff_t>(c.offset));
    const auto faults = cfflprint::CheckList(bytes);
    ASSERT_FALSE(faults.empty()) << c.says;
    const auto& fault = faults[0];
    EXPECT_EQ(std::to_string(fault.offset) + ' ' + fault.where + ": " + fault.what, c.says);
  }
  const auto cut = cfflprint::CheckList(Bytes(1023));
  ASSERT_EQ(cut.size(), 1u);
  EXPECT_EQ(cut[0].what, "it takes 1024 bytes, and the file has 1023");
}

/* Damaged lists in buffers of their own size: the checks survive them all, and what they call
 * walkable is exactly what can be walked and printed. */
TEST(Check, AgreesWithTheWalkOnDamagedLists) {
  const LogCapture log;
  ox_logfunc = no_prefix;
  std::mt19937 random(20261121);
  const auto below = [&](size_t limit) {
    return std::uniform_int_distribution<size_t>(0, limit - 1)(random);
  };
  const Bytes good = sample();
  const size_t words[] = {0, 8, 16, size_at, table_at, first_at, 1024 + 56, 1400 + 56, 1776 + 56};
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
      put(bytes, size_at, ox_u64{bytes.size()});
    }
    bytes.shrink_to_fit();
    const bool can = cfflprint::CanBeWalked(cfflprint::CheckList(bytes));
    if (bytes.size() < 1024 || list_in(bytes)->cfh_head.cf_size > bytes.size()) {
      EXPECT_FALSE(can) << round;
      continue;
    }
    bool did = true;
    try {
      tn_print_cffl(list_in(bytes), 1);
    } catch (const std::string&) {
      did = false;
    }
    /* The walk knows neither the file's size nor that entries do not start in the header. */
    if (list_in(bytes)->cfh_head.cf_size == bytes.size() &&
        tn_first_cfp_offset(list_in(bytes)) >= 1024) {
      EXPECT_EQ(can, did) << round;
    }
    walkable += static_cast<size_t>(can);
  }
  (void)testing::internal::GetCapturedStdout();
  ox_logfunc = nullptr;
  EXPECT_GT(walkable, rounds / 10u);
  EXPECT_LT(walkable, rounds / 2u);
}

}  // namespace
