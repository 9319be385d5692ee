/*
 * The region maps of an open file, their bits, and their requests, against a model and a service
 * that is a function here.
 */
#include "vfstnw_bmap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <limits>
#include <random>
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
constexpr int REGIONS = 24; /* three bytes of map */

/* The service: how many requests were sent to it, and what it answers next. */
struct Service {
  int sent = 0;
  tnv_resp answer = {};
} service;

}  // namespace

int tnw_sync_send_msg(vfs_handle*, tnv_msg*, tnv_resp* resp) {
  service.sent++;
  *resp = service.answer;
  return 0;
}

namespace {

/* An open file with two maps, a byte before and one behind them that nothing may touch. */
class OpenFile {
 public:
  OpenFile() {
    ox_init_rwlock(&fde.fdt_rmap_lock);
    ox_init_rwlock(&fde.fdt_dmap_lock);
    fde.fdt_fd = 5;
    constexpr ox_u64 SIZE = REGIONS / 8;
    fde.fdt_rmap = static_cast<ox_u8*>(ox_zalloc(2 * SIZE + 1));
    fde.fdt_rmap_size = SIZE;
    fde.fdt_dmap = fde.fdt_rmap + SIZE;
    fde.fdt_dmap_size = 99; /* not used */
    fde.fdt_rshift = 20;
    fde.fdt_tnflags = TNV_FL_MAPPED | TNV_FL_NEWER;
  }
  OpenFile(const OpenFile&) = delete;
  ~OpenFile() {
    vfstnw_remove_bmaps(&fde);
    ox_deinit_rwlock(&fde.fdt_rmap_lock);
    ox_deinit_rwlock(&fde.fdt_dmap_lock);
  }

  /* Cached map, dirty map and the byte behind. */
  Bytes bytes() const { return {fde.fdt_rmap, fde.fdt_rmap + 2 * REGIONS / 8 + 1}; }
  bool is_dropped() const {
    return fde.fdt_rmap == nullptr && fde.fdt_dmap == nullptr && fde.fdt_rshift == 0 &&
           fde.fdt_rmap_size == 0 && fde.fdt_dmap_size == 0 &&
           (fde.fdt_tnflags & (TNV_FL_MAPPED | TNV_FL_NEWER)) == 0;
  }

  tnvfd fde = {};
};

/* ------------------------------------------------------------------- the model */

/* The regions of a range as bits, counted in numbers that do not wrap. No file has a byte behind
 * MOST. */
struct Range {
  Range(int rshift, ox_off off, ox_u64 sz) {
    const __int128 end = __int128{off} + sz;
    const __int128 first = __int128{off} >> rshift;
    const __int128 last = std::min(end - 1, __int128{MOST}) >> rshift;
    for (int region = 0; region < REGIONS; region++) {
      const bool has = sz != 0 && off >= 0 && region >= first && region <= last;
      bits |= has ? 1u << region : 0;
    }
    can_be = sz == 0 || (off >= 0 && last < REGIONS && end - 1 <= MOST);
  }
  bool is_set_in(ox_u32 map) const { return can_be && (map & bits) == bits; }

  ox_u32 bits = 0;
  bool can_be; /* inside the maps, and of bytes that a file can have */
};

class Model : public testing::Test {
 protected:
  /* The next answers carry this. */
  template <class Payload>
  static void answers(const Payload& payload) {
    service.answer = {};
    service.answer.rhdr.rhdr_len = sizeof payload;
    memcpy(service.answer.u.bytes, &payload, sizeof payload);
  }
  int cache(ox_off off, ox_u64 sz, bool truncate = false) {
    fsz_ = 99;
    sent_ = true;
    return vfstnw_cache_regions(&vh_, &file_.fde, off, sz, truncate, &fsz_, &sent_);
  }
  /* Mostly a number near the begin of a region, sometimes one at the end of all numbers. */
  ox_u64 number(int rshift) {
    const ox_u64 ends[] = {MOST,       MOST - 1,  ox_u64{1} << 63, ox_u64{FARTHEST},
                           1ull << 51, 1ull << 52};
    const ox_u64 region =
        random_() % (REGIONS + 2); /* 64 bits: the generator's have 32 on Windows */
    const ox_u64 near = (region << rshift) + ox_u64{random_() % 3} - 1;
    return random_() % 12 == 0 ? ends[random_() % std::size(ends)] : near;
  }
  void step(int rshift) {
    const auto off = static_cast<ox_off>(number(rshift));
    const ox_u64 sz = number(rshift), answered = number(rshift);
    SCOPED_TRACE(testing::Message() << rshift << ": " << off << " " << sz << " " << answered);
    const Range range(rshift, off, sz);
    ASSERT_EQ(vfstnw_is_cached(&file_.fde, off, sz), range.is_set_in(cached_));
    ASSERT_EQ(vfstnw_is_dirty(&file_.fde, off, sz), range.is_set_in(dirty_));
    const int sent = service.sent;
    switch (random_() % 5) {
      case 0: /* what the service cached counts, from the asked offset on */
        answers(tnv_cache_region_resp{12345, answered, 1000, 0, {}});
        ASSERT_EQ(cache(off, sz), 0);
        ASSERT_EQ(sent_, !range.is_set_in(cached_));
        ASSERT_EQ(fsz_, sent_ ? 1000u : 99u);
        if (sent_) {
          cached_ |= Range(rshift, off, answered).bits;
        }
        break;
      case 1: /* a truncation asks in any case, and sets nothing */
        ASSERT_EQ(cache(off, sz, true), 0);
        ASSERT_EQ(service.sent, sent + 1);
        break;
      case 2: /* a dirty region is cached, too */
        answers(tnv_dirty_region_resp{});
        ASSERT_EQ(vfstnw_dirty_regions(&vh_, &file_.fde, off, sz), 0);
        ASSERT_EQ(service.sent, sent + (range.is_set_in(dirty_) ? 0 : 1));
        if (service.sent != sent) {
          cached_ |= range.bits;
          dirty_ |= range.bits;
        }
        break;
      default:
        const bool clear = random_() % 2 == 0;
        vfstnw_mark_regions(&file_.fde, off, sz, clear);
        cached_ = clear ? cached_ & ~range.bits : cached_ | range.bits;
        dirty_ = clear ? dirty_ & ~range.bits : dirty_ | range.bits;
    }
    Bytes maps(2 * REGIONS / 8 + 1);
    memcpy(maps.data(), &cached_, REGIONS / 8);
    memcpy(maps.data() + REGIONS / 8, &dirty_, REGIONS / 8);
    ASSERT_EQ(file_.bytes(), maps);
  }

  OpenFile file_;
  vfs_handle vh_ = {};
  ox_u64 fsz_ = 0;
  bool sent_ = false;
  std::mt19937 random_{1};
  ox_u32 cached_ = 0, dirty_ = 0; /* a bit for each region */
  const LogCapture keeps_the_log_out_of_the_output_;
};

TEST_F(Model, AnyRangesAtAnyShift) {
  for (const int rshift : {0, 1, 16, 20, 31, 32, 58, 62}) {
    file_.fde.fdt_rshift = rshift;
    for (int i = 0; i < 5000 && !HasFatalFailure(); i++) {
      step(rshift);
    }
  }
}

/* ------------------------------------------------------------------- drops and faults */

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

}  // namespace
