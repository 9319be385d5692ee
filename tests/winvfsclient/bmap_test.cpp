#include "vfstnw_bmap.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <limits>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "ox_util.h"
#include "tnw_connect.h"

namespace {

constexpr ox_u64 MiB = 1 << 20;
constexpr ox_u64 most = std::numeric_limits<ox_u64>::max();
constexpr ox_off farthest = std::numeric_limits<ox_off>::max();

/* The service behind the requests of this program: what was sent, and what it answers. */
struct Service {
  std::vector<tnv_msg> sent;
  std::function<int(tnv_resp& resp)> answer;
};
Service* service;

}  // namespace

int tnw_sync_send_msg(vfs_handle*, tnv_msg* msg, tnv_resp* resp) {
  service->sent.push_back(*msg);
  return service->answer(*resp);
}

namespace {

/* An open file with two maps, and one byte behind them that nothing may touch. */
class OpenFile {
 public:
  OpenFile() {
    ox_init_rwlock(&fde.fdt_rmap_lock);
    ox_init_rwlock(&fde.fdt_dmap_lock);
    fde.fdt_fd = 5;
    fde.fdt_stat.st_size = 77;
    memset(&fde.fdt_msgid, 0x11, sizeof(fde.fdt_msgid));
    memset(&fde.fdt_fso, 0x22, sizeof(fde.fdt_fso));
  }
  OpenFile(int rshift, ox_u64 size) : OpenFile() { hook_maps(rshift, size); }
  OpenFile(const OpenFile&) = delete;
  ~OpenFile() {
    vfstnw_remove_bmaps(&fde);
    ox_deinit_rwlock(&fde.fdt_rmap_lock);
    ox_deinit_rwlock(&fde.fdt_dmap_lock);
  }

  void hook_maps(int rshift, ox_u64 size) {
    fde.fdt_rmap = static_cast<ox_u8*>(ox_zalloc(2 * size + 1));
    fde.fdt_rmap_size = size;
    fde.fdt_dmap = fde.fdt_rmap + size;
    fde.fdt_dmap_size = 3;
    fde.fdt_rshift = rshift;
    fde.fdt_tnflags = TNV_FL_MAPPED | TNV_FL_NEWER;
  }
  /* Cached map, dirty map and the byte behind. */
  std::vector<ox_u8> bytes() const {
    return {fde.fdt_rmap, fde.fdt_rmap + 2 * fde.fdt_rmap_size + 1};
  }
  bool is_dropped() const {
    return fde.fdt_rmap == nullptr && fde.fdt_dmap == nullptr && fde.fdt_rshift == 0 &&
           fde.fdt_rmap_size == 0 && fde.fdt_dmap_size == 0 &&
           (fde.fdt_tnflags & (TNV_FL_MAPPED | TNV_FL_NEWER)) == 0;
  }

  tnvfd fde = {};
};

using Bytes = std::vector<ox_u8>;

/* ------------------------------------------------------------------- the guard */

TEST(RegionMaps, ARangeThatReachesPastTheMapIsNeverWholly) {
  constexpr struct {
    int rshift;
    ox_off off;
    ox_u64 sz;
    bool inside; /* a map of two bytes covers it wholly */
  } cases[] = {
      {20, 0, 16 * MiB, true},
      {20, 16 * MiB - 1, 1, true},
      {20, 16 * MiB - 1, 2, false},
      {20, 16 * MiB, 1, false},
      {20, ox_off{1} << 51, 1, false}, /* region 2^31 */
      {20, ox_off{1} << 52, 1, false}, /* region 2^32: 0 in 32 bits */
      {20, farthest, 1, false},
      {20, -1, 2, false},
      {20, 1, most, false}, /* off + sz - 1 is the last number there is, or wraps to small ones */
      {20, 2, most, false},
      {20, 8, most - 4, false},
      {62, 0, most, true}, /* the whole of 64 bits is four regions */
      {62, 2, most, false},
      {62, -1, 1, false},
      {20, farthest, 0, true}, /* an empty range touches no map */
      {20, -1, 0, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.rshift << " " << c.off << " " << c.sz);
    OpenFile full(c.rshift, 2);
    memset(full.fde.fdt_rmap, 0xFF, 5);
    EXPECT_EQ(vfstnw_is_cached(&full.fde, c.off, c.sz), c.inside);
    EXPECT_EQ(vfstnw_is_dirty(&full.fde, c.off, c.sz), c.inside);
    /* Nothing is set in an empty map, whatever lies behind it. */
    OpenFile empty(c.rshift, 2);
    EXPECT_EQ(vfstnw_is_cached(&empty.fde, c.off, c.sz), c.sz == 0);
    EXPECT_EQ(vfstnw_is_dirty(&empty.fde, c.off, c.sz), c.sz == 0);
  }
}

TEST(RegionMaps, OnlyBitsInsideTheMapAreChanged) {
  struct {
    ox_off off;
    ox_u64 sz;
    Bytes left; /* of one map */
  } const cases[] = {
      {0, 0, {0x00, 0x00}},
      {15 * MiB, 2 * MiB, {0x00, 0x80}},
      {7 * MiB, most, {0x80, 0xFF}},
      {16 * MiB, MiB, {0x00, 0x00}},
      {ox_off{1} << 52, MiB, {0x00, 0x00}},
      {-1, 2 * MiB, {0x00, 0x00}},
      {farthest, most, {0x00, 0x00}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.off << " " << c.sz);
    OpenFile file(20, 2);
    vfstnw_mark_regions(&file.fde, c.off, c.sz, false);
    EXPECT_EQ(file.bytes(), (Bytes{c.left[0], c.left[1], c.left[0], c.left[1], 0}));
    vfstnw_mark_regions(&file.fde, c.off, c.sz, true);
    EXPECT_EQ(file.bytes(), (Bytes{0, 0, 0, 0, 0}));
  }
}

TEST(RegionMapsDeathTest, ACachedMapWithoutADirtyMapIsAFault) {
  OpenFile file(20, 2);
  file.fde.fdt_dmap = nullptr;
  EXPECT_DEATH(vfstnw_is_dirty(&file.fde, 0, 1),
               "\\(\\(fde->fdt_dmap != \\(\\(void\\*\\)0\\)\\)\\).*vfstnw_bmap.*32");
}

/* ------------------------------------------------------------------- the requests */

class Requests : public testing::Test {
 protected:
  Requests() {
    service = &service_;
    strcpy(vh_.vfs_user, "joe");
  }

  /* The next answers: an error number and a payload that ends after `len` bytes. */
  template <class Payload>
  void answers(ox_u32 err, const Payload& payload, ox_u32 len = sizeof(Payload)) {
    service_.answer = [=](tnv_resp& resp) {
      resp.rhdr.rhdr_errno = err;
      resp.rhdr.rhdr_len = len;
      memcpy(resp.u.bytes, &payload, len);
      return 0;
    };
  }
  void answers_cached(ox_u64 sz) { answers(0, tnv_cache_region_resp{0, sz, 1000, 0, {}}); }
  void is_gone() {
    service_.answer = [](tnv_resp&) { return 133; };
  }

  int cache(ox_off off, ox_u64 sz, bool truncate = false) {
    fsz_ = 99;
    sent_ = true;
    return vfstnw_cache_regions(&vh_, &file_.fde, off, sz, truncate, &fsz_, &sent_);
  }
  int dirty(ox_off off, ox_u64 sz) { return vfstnw_dirty_regions(&vh_, &file_.fde, off, sz); }
  int truncate(ox_u64 nfsz) { return vfstnw_ftruncate(&vh_, &file_.fde, nfsz); }

  /* One line was logged since the last call: an error, and a text that names the file. */
  void expect_logged(int err, const std::string& text) {
    const std::vector<std::string> lines = log_.lines();
    ASSERT_EQ(lines.size(), ++logged_);
    const std::string& line = lines.back();
    EXPECT_NE(line.find("\"errno\":" + std::to_string(err) + ", \"vfs_server"), std::string::npos);
    EXPECT_NE(line.find("\"vfs_user\":\"joe\""), std::string::npos);
    EXPECT_TRUE(line.ends_with("\"message\":\"" + text + "\"}")) << line;
  }

  OpenFile file_{20, 2};
  vfs_handle vh_ = {};
  Service service_;
  ox_u64 fsz_ = 0;
  bool sent_ = false;
  const LogCapture log_;
  size_t logged_ = 0;
};

#define FILE_ID "22222222-2222-2222-2222-222222222222"

/* What each must be to the byte: `number` at `at`, the open's id and the file behind. */
void expect_request(const tnv_msg& msg, ox_u32 opcode, size_t at, const std::string& numbers) {
  tnv_msg expected = {};
  expected.hdr.hdr_opcode = opcode;
  expected.hdr.hdr_len = 504;
  memcpy(expected.u.bytes, numbers.data(), numbers.size());
  memset(expected.u.bytes + at, 0x11, 16);
  memset(expected.u.bytes + at + 16, 0x22, 88);
  EXPECT_EQ(memcmp(&msg, &expected, sizeof(msg)), 0) << opcode;
}

TEST_F(Requests, CarryWhatTheOpenLeft) {
  using namespace std::string_literals;
  is_gone();
  cache(3 * MiB, 5, true);
  dirty(3 * MiB, 5);
  truncate(5);
  ASSERT_EQ(service_.sent.size(), 3u);
  expect_request(service_.sent[0], 12, 24, "\1\0\0\0\0\0\0\0\0\0\x30\0\0\0\0\0\5"s);
  expect_request(service_.sent[1], 13, 16, "\0\0\x30\0\0\0\0\0\5"s);
  expect_request(service_.sent[2], 14, 8, "\5");
}

TEST_F(Requests, WhatCountsIsTheSizeThatTheServiceCached) {
  answers_cached(MiB); /* less than asked */
  EXPECT_EQ(cache(4 * MiB, 3 * MiB), 0);
  EXPECT_TRUE(sent_);
  EXPECT_EQ(fsz_, 1000u);
  EXPECT_EQ(file_.bytes(), (Bytes{0x10, 0, 0, 0, 0}));
  EXPECT_EQ(cache(4 * MiB, MiB), 0); /* not asked for again */
  EXPECT_FALSE(sent_);
  EXPECT_EQ(fsz_, 99u);
  answers_cached(0);
  EXPECT_EQ(cache(0, MiB), 0);
  answers_cached(most); /* the dirty map stays untouched */
  EXPECT_EQ(cache(14 * MiB, MiB), 0);
  EXPECT_EQ(cache(14 * MiB, MiB, true), 0); /* always asks, and sets no bit */
  EXPECT_EQ(cache(0, MiB, true), 0);
  EXPECT_EQ(service_.sent.size(), 5u);
  EXPECT_EQ(file_.bytes(), (Bytes{0x10, 0xC0, 0, 0, 0}));
}

TEST_F(Requests, RefusalsSetNoBitAndSayWhatFailed) {
  const tnv_cache_region_resp refusal = {0, MiB, 5, 0x01, {}}; /* an error clears nothing */
  answers(25, refusal);
  EXPECT_EQ(cache(MiB, 2), 0);
  EXPECT_EQ(fsz_, 99u);
  expect_logged(25, "Uncached read(5, 1048576, 2 : " FILE_ID ")");
  answers(7, refusal);
  EXPECT_EQ(cache(MiB, 2), 7);
  EXPECT_EQ(fsz_, 5u);
  expect_logged(7, "cache_region(5, 1048576, 2 : " FILE_ID ") failed");
  answers(5, refusal, 0); /* carries no size */
  EXPECT_EQ(cache(MiB, 2), 5);
  EXPECT_EQ(fsz_, 99u);
  expect_logged(5, "cache_region(5, 1048576, 2 : " FILE_ID ") failed");
  answers(28, tnv_dirty_region_resp{1});
  EXPECT_EQ(dirty(-1, 2), 28);
  expect_logged(28, "dirty_region(5, 18446744073709551615, 2 : " FILE_ID ") failed");
  answers(13, refusal);
  EXPECT_EQ(truncate(0), 13);
  expect_logged(13, "ftruncate(5, 0: " FILE_ID ") failed");
  is_gone();
  EXPECT_EQ(cache(MiB, 2), 133);
  EXPECT_FALSE(sent_);
  EXPECT_EQ(dirty(0, 2), 133);
  EXPECT_EQ(truncate(0), 133);
  EXPECT_EQ(file_.bytes(), (Bytes{0, 0, 0, 0, 0}));
}

TEST_F(Requests, AMarkOfAnEmptyFileDropsTheMaps) {
  answers(0, tnv_cache_region_resp{0, MiB, 5, 0xFE, {}}); /* not the lowest bit */
  EXPECT_EQ(cache(0, 1), 0);
  EXPECT_FALSE(file_.is_dropped());
  answers(0, tnv_cache_region_resp{0, MiB, 5, 0xFF, {}});
  EXPECT_EQ(cache(MiB, 1), 0);
  EXPECT_EQ(fsz_, 99u);
  EXPECT_TRUE(file_.is_dropped());
  EXPECT_EQ(file_.fde.fdt_stat.st_size, 0u);

  file_.hook_maps(20, 2);
  file_.fde.fdt_stat.st_size = 77;
  answers(0, tnv_dirty_region_resp{0x03});
  EXPECT_EQ(dirty(0, 2), 0);
  EXPECT_TRUE(file_.is_dropped());
  EXPECT_EQ(file_.fde.fdt_stat.st_size, 0u);
}

TEST_F(Requests, WhatIsDirtyIsCachedTooAndGoesWithATruncationToNothing) {
  answers(0, tnv_dirty_region_resp{});
  EXPECT_EQ(dirty(9 * MiB, 2), 0);
  EXPECT_EQ(dirty(9 * MiB, 2), 0);
  EXPECT_EQ(service_.sent.size(), 1u);
  EXPECT_EQ(truncate(100), 0);
  EXPECT_EQ(file_.bytes(), (Bytes{0, 0x02, 0, 0x02, 0}));
  EXPECT_EQ(truncate(0), 0);
  EXPECT_TRUE(file_.is_dropped());
  EXPECT_EQ(file_.fde.fdt_stat.st_size, 77u); /* the caller's to change */
}

/* ------------------------------------------------------------------- races */

/* Tests and changes run into two drops at once, many times; the sanitizers judge the memory. */
TEST(RegionMaps, ADropIsSafeAgainstTestsOnOtherThreads) {
  for (int round = 0; round < 30; round++) {
    OpenFile file(20, 8);
    tnvfd* fde = &file.fde;
    /* The only bit of a range inside the maps is never set: true means that they are gone. */
    std::thread threads[] = {
        std::thread([=] {
          while (!vfstnw_is_cached(fde, 0, 1)) {
          }
          EXPECT_TRUE(vfstnw_is_cached(fde, -1, most));
        }),
        std::thread([=] {
          while (!vfstnw_is_dirty(fde, 0, 1)) {
          }
        }),
        std::thread([=] {
          vfstnw_mark_regions(fde, MiB, 60 * MiB, false);
          std::atomic_ref(fde->fdt_tnflags).fetch_or(static_cast<ox_u16>(TNV_FL_MODIFIED));
        }),
        std::thread([=] { vfstnw_remove_bmaps(fde); })};
    vfstnw_remove_bmaps(fde);
    for (std::thread& thread : threads) {
      thread.join();
    }
    EXPECT_TRUE(file.is_dropped());
    EXPECT_EQ(fde->fdt_tnflags, TNV_FL_MODIFIED);
  }
}

}  // namespace
