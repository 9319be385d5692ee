/*
 * The region maps of an open file and their requests, against a service that is a function here.
 */
#include "vfstnw_bmap.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <limits>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "ox_util.h"
#include "tnw_connect.h"

namespace {

using Bytes = std::vector<ox_u8>;

constexpr ox_u64 MIB = 1 << 20;
constexpr ox_u64 MOST = std::numeric_limits<ox_u64>::max();
constexpr ox_off FARTHEST = std::numeric_limits<ox_off>::max();
constexpr int GONE = 133;

/* The service: how many requests were sent to it, and what it answers next. */
struct Service {
  int sent = 0;
  int err = 0; /* of the exchange */
  tnv_resp answer = {};
} service;

}  // namespace

int tnw_sync_send_msg(vfs_handle*, tnv_msg*, tnv_resp* resp) {
  service.sent++;
  *resp = service.answer;
  return service.err;
}

namespace {

/* An open file with two maps of two bytes, and one byte behind them that nothing may touch. */
class OpenFile {
 public:
  explicit OpenFile(int rshift = 20, ox_u8 fill = 0) {
    ox_init_rwlock(&fde.fdt_rmap_lock);
    ox_init_rwlock(&fde.fdt_dmap_lock);
    fde.fdt_fd = 5;
    memset(&fde.fdt_fso, 0x22, sizeof(fde.fdt_fso));
    hook_maps(rshift, fill);
  }
  OpenFile(const OpenFile&) = delete;
  ~OpenFile() {
    vfstnw_remove_bmaps(&fde);
    ox_deinit_rwlock(&fde.fdt_rmap_lock);
    ox_deinit_rwlock(&fde.fdt_dmap_lock);
  }

  void hook_maps(int rshift = 20, ox_u8 fill = 0) {
    fde.fdt_rmap = static_cast<ox_u8*>(ox_zalloc(5));
    memset(fde.fdt_rmap, fill, 5);
    fde.fdt_rmap_size = 2;
    fde.fdt_dmap = fde.fdt_rmap + 2;
    fde.fdt_dmap_size = 3;
    fde.fdt_rshift = rshift;
    fde.fdt_tnflags = TNV_FL_MAPPED | TNV_FL_NEWER;
    fde.fdt_stat.st_size = 77;
  }
  /* Cached map, dirty map and the byte behind. */
  Bytes bytes() const { return {fde.fdt_rmap, fde.fdt_rmap + 5}; }
  bool is_dropped() const {
    return fde.fdt_rmap == nullptr && fde.fdt_dmap == nullptr && fde.fdt_rshift == 0 &&
           fde.fdt_rmap_size == 0 && fde.fdt_dmap_size == 0 &&
           (fde.fdt_tnflags & (TNV_FL_MAPPED | TNV_FL_NEWER)) == 0;
  }

  tnvfd fde = {};
};

/* ------------------------------------------------------------------- ranges and maps */

TEST(RegionMaps, RangesAtTheEndOfTheMap) {
  const struct {
    int rshift;
    ox_off off;
    ox_u64 sz;
    bool inside; /* the maps cover it wholly */
    Bytes left;  /* one empty map after the range was marked */
  } cases[] = {
      {20, 0, 16 * MIB, true, {0xff, 0xff}},
      {20, 16 * MIB - 1, 1, true, {0, 0x80}},
      {20, 16 * MIB - 1, 2, false, {0, 0x80}},
      {20, 16 * MIB, 1, false, {0, 0}},
      {20, ox_off{1} << 51, 1, false, {0, 0}}, /* region 2^31 */
      {20, ox_off{1} << 52, 1, false, {0, 0}}, /* region 2^32: 0 in 32 bits */
      {20, FARTHEST, 1, false, {0, 0}},
      {20, FARTHEST, MOST, false, {0, 0}},
      {20, -1, 2, false, {0, 0}},
      {20, 1, MOST, false, {0xff, 0xff}}, /* off + sz - 1 wraps around, or is the last number */
      {20, 7 * MIB, MOST, false, {0x80, 0xff}},
      {20, 8, MOST - 4, false, {0xff, 0xff}},
      {62, 0, MOST, true, {0x0f, 0}}, /* the whole of 64 bits is four regions */
      {62, 2, MOST, false, {0x0f, 0}},
      {62, -1, 1, false, {0, 0}},
      {20, FARTHEST, 0, true, {0, 0}}, /* an empty range touches no map */
      {20, -1, 0, true, {0, 0}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.rshift << " " << c.off << " " << c.sz);
    OpenFile full(c.rshift, 0xff);
    EXPECT_EQ(vfstnw_is_cached(&full.fde, c.off, c.sz), c.inside);
    EXPECT_EQ(vfstnw_is_dirty(&full.fde, c.off, c.sz), c.inside);
    OpenFile file(c.rshift);
    EXPECT_EQ(vfstnw_is_cached(&file.fde, c.off, c.sz), c.sz == 0);
    EXPECT_EQ(vfstnw_is_dirty(&file.fde, c.off, c.sz), c.sz == 0);
    vfstnw_mark_regions(&file.fde, c.off, c.sz, false);
    EXPECT_EQ(file.bytes(), (Bytes{c.left[0], c.left[1], c.left[0], c.left[1], 0}));
    vfstnw_mark_regions(&file.fde, c.off, c.sz, true);
    EXPECT_EQ(file.bytes(), Bytes(5));
  }
}

TEST(RegionMapsDeathTest, TheCachedMapSaysWhetherThereAreMaps) {
  OpenFile file;
  ox_u8* const maps = file.fde.fdt_rmap;
  file.fde.fdt_rmap = nullptr;
  EXPECT_TRUE(vfstnw_is_dirty(&file.fde, 0, 1)) << "whatever the dirty map is";
  file.fde.fdt_rmap = maps;
  file.fde.fdt_dmap = nullptr;
  EXPECT_DEATH(vfstnw_is_dirty(&file.fde, 0, 1),
               "\\(\\(fde->fdt_dmap != \\(\\(void\\*\\)0\\)\\)\\).*vfstnw_bmap.*32");
}

/* Tests and changes run into two drops at once, many times; the sanitizers judge the memory. */
TEST(RegionMaps, ADropIsSafeAgainstTestsOnOtherThreads) {
  for (int round = 0; round < 30; round++) {
    OpenFile file;
    tnvfd* fde = &file.fde;
    /* The bit of the first region is never set: true means that the maps are gone. */
    std::thread threads[] = {
        std::thread([=] {
          while (!vfstnw_is_cached(fde, 0, 1)) {
          }
          EXPECT_TRUE(vfstnw_is_cached(fde, -1, MOST));
        }),
        std::thread([=] {
          while (!vfstnw_is_dirty(fde, 0, 1)) {
          }
        }),
        std::thread([=] {
          vfstnw_mark_regions(fde, MIB, 15 * MIB, false);
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

/* ------------------------------------------------------------------- the requests */

class Requests : public testing::Test {
 protected:
  Requests() {
    service = {};
    strcpy(vh_.vfs_user, "joe");
  }

  /* The next answers carry these. The payload ends after `len` bytes. */
  template <class Payload>
  void answers(ox_u32 err, const Payload& payload, ox_u32 len = sizeof(Payload)) {
    service.answer = {};
    service.answer.rhdr.rhdr_errno = err;
    service.answer.rhdr.rhdr_len = len;
    memcpy(service.answer.u.bytes, &payload, len);
  }
  int cache(ox_off off, ox_u64 sz, bool truncate = false) {
    fsz_ = 99;
    sent_ = true;
    return vfstnw_cache_regions(&vh_, &file_.fde, off, sz, truncate, &fsz_, &sent_);
  }
  int dirty(ox_off off, ox_u64 sz) { return vfstnw_dirty_regions(&vh_, &file_.fde, off, sz); }
  int truncate(ox_u64 nfsz) { return vfstnw_ftruncate(&vh_, &file_.fde, nfsz); }

  OpenFile file_;
  vfs_handle vh_ = {};
  ox_u64 fsz_ = 0;
  bool sent_ = false;
  const LogCapture log_;
};

TEST_F(Requests, WhatCountsIsTheSizeThatTheServiceCached) {
  answers(0, tnv_cache_region_resp{0, MIB, 1000, 0, {}}); /* less than asked */
  EXPECT_EQ(cache(4 * MIB, 3 * MIB), 0);
  EXPECT_TRUE(sent_);
  EXPECT_EQ(fsz_, 1000u);
  EXPECT_EQ(cache(4 * MIB, MIB), 0); /* not asked for again */
  EXPECT_FALSE(sent_);
  EXPECT_EQ(fsz_, 99u);
  answers(0, tnv_cache_region_resp{0, 0, 1000, 0xfe, {}}); /* the lowest bit alone counts */
  EXPECT_EQ(cache(0, MIB), 0);
  answers(0, tnv_cache_region_resp{0, MOST, 1000, 0, {}}); /* the dirty map stays untouched */
  EXPECT_EQ(cache(14 * MIB, MIB), 0);
  EXPECT_EQ(cache(14 * MIB, MIB, true), 0); /* asks again, and sets no bit */
  EXPECT_EQ(cache(0, MIB, true), 0);
  EXPECT_EQ(service.sent, 5);
  EXPECT_EQ(file_.bytes(), (Bytes{0x10, 0xC0, 0, 0, 0}));
}

#define FILE_ID "22222222-2222-2222-2222-222222222222"

TEST_F(Requests, RefusalsSetNoBitAndSayWhatFailed) {
  const tnv_cache_region_resp refusal = {0, MIB, 5, 0x01, {}}; /* an error clears nothing */
  answers(25, refusal);
  EXPECT_EQ(cache(MIB, 2), 0);
  EXPECT_EQ(fsz_, 99u);
  answers(7, refusal);
  EXPECT_EQ(cache(MIB, 2), 7);
  EXPECT_EQ(fsz_, 5u);
  answers(5, refusal, 16); /* ends before the size */
  EXPECT_EQ(cache(MIB, 2), 5);
  EXPECT_EQ(fsz_, 99u);
  answers(28, tnv_dirty_region_resp{1});
  EXPECT_EQ(dirty(-1, 2), 28);
  answers(13, refusal);
  EXPECT_EQ(truncate(0), 13);
  service.err = GONE;
  EXPECT_EQ(cache(MIB, 2), GONE);
  EXPECT_FALSE(sent_) << "not answered";
  EXPECT_EQ(dirty(MIB, 2), GONE);
  EXPECT_EQ(truncate(0), GONE);
  EXPECT_EQ(file_.bytes(), Bytes(5));
  EXPECT_EQ(log_.brief_lines(),
            (std::vector<std::string>{
                "INFO 25 joe: Uncached read(5, 1048576, 2 : " FILE_ID ")",
                "ERROR 7 joe: cache_region(5, 1048576, 2 : " FILE_ID ") failed",
                "ERROR 5 joe: cache_region(5, 1048576, 2 : " FILE_ID ") failed",
                "ERROR 28 joe: dirty_region(5, 18446744073709551615, 2 : " FILE_ID ") failed",
                "ERROR 13 joe: ftruncate(5, 0: " FILE_ID ") failed"}));
}

TEST_F(Requests, ADirtyRegionIsCachedTooAndAnEmptyFileHasNoMaps) {
  answers(0, tnv_dirty_region_resp{0xfe});
  EXPECT_EQ(dirty(9 * MIB, 2), 0);
  EXPECT_EQ(dirty(9 * MIB, 2), 0);
  EXPECT_EQ(service.sent, 1) << "it is dirty now";
  EXPECT_EQ(truncate(100), 0);
  EXPECT_EQ(file_.bytes(), (Bytes{0, 0x02, 0, 0x02, 0}));
  EXPECT_EQ(truncate(0), 0);
  EXPECT_TRUE(file_.is_dropped());
  EXPECT_EQ(file_.fde.fdt_stat.st_size, 77u) << "the caller changes it";

  file_.hook_maps();
  answers(0, tnv_dirty_region_resp{0x03});
  EXPECT_EQ(dirty(0, 2), 0);
  EXPECT_TRUE(file_.is_dropped());
  EXPECT_EQ(file_.fde.fdt_stat.st_size, 0u);

  file_.hook_maps();
  answers(0, tnv_cache_region_resp{0, MIB, 5, 0xff, {}});
  EXPECT_EQ(cache(MIB, 1), 0);
  EXPECT_EQ(fsz_, 99u);
  EXPECT_TRUE(file_.is_dropped());
  EXPECT_EQ(file_.fde.fdt_stat.st_size, 0u);
}

}  // namespace
