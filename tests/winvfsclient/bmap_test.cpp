/*
 * The region maps of an open file, their bits, and their requests, against a model and a service
 * that is a function here.
 */
#include "vfstnw_bmap.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstring>
#include <limits>
#include <random>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "ox_logging.h"
#include "ox_util.h"
#include "tnw_connect.h"
#include "vfstnw_bits.h"

namespace {

using Bytes = std::vector<ox_u8>;
using Lines = std::vector<std::string>;

constexpr ox_u64 MIB = 1 << 20;
constexpr ox_u64 MOST = std::numeric_limits<ox_u64>::max();
constexpr ox_off FARTHEST = std::numeric_limits<ox_off>::max();
constexpr int GONE = 133;
constexpr int REGIONS = 24; /* three bytes of map */

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

/* An open file with two maps, a byte before and one behind them that nothing may touch. */
class OpenFile {
 public:
  explicit OpenFile(int rshift = 20) {
    ox_init_rwlock(&fde.fdt_rmap_lock);
    ox_init_rwlock(&fde.fdt_dmap_lock);
    fde.fdt_fd = 5;
    memset(&fde.fdt_fso, 0x22, sizeof(fde.fdt_fso));
    hook_maps(rshift);
  }
  OpenFile(const OpenFile&) = delete;
  ~OpenFile() {
    vfstnw_remove_bmaps(&fde);
    ox_deinit_rwlock(&fde.fdt_rmap_lock);
    ox_deinit_rwlock(&fde.fdt_dmap_lock);
  }

  void hook_maps(int rshift = 20) {
    constexpr ox_u64 size = REGIONS / 8;
    fde.fdt_rmap = static_cast<ox_u8*>(ox_zalloc(2 * size + 1));
    fde.fdt_rmap_size = size;
    fde.fdt_dmap = fde.fdt_rmap + size;
    fde.fdt_dmap_size = 99; /* not used */
    fde.fdt_rshift = rshift;
    fde.fdt_tnflags = TNV_FL_MAPPED | TNV_FL_NEWER;
    fde.fdt_stat.st_size = 77;
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

/* ------------------------------------------------------------------- requests and answers */

class Requests : public testing::Test {
 protected:
  Requests() { service = {}; }

  /* The next answers carry these. The payload ends after `len` bytes. */
  template <class Payload>
  static void answers(ox_u32 err, const Payload& payload, ox_u32 len = sizeof(Payload)) {
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
  const LogCapture keeps_the_log_out_of_the_output_;
};

/* Their lines are in the tests of the whole client. */
TEST_F(Requests, AreAnsweredByARefusalThatSetsNoBit) {
  const struct {
    ox_u32 err;
    ox_u32 len; /* of the answer's payload: 16 bytes end before the file's size */
    int exchange, cached;
    ox_u64 fsz;
  } rows[] = {{TNV_WILL_NOT_CACHE, 32, 0, 0, 99},
              {TNV_NOTHING_TO_FETCH, 32, 0, 7, 5},
              {28, 16, 0, 28, 99},
              {0, 32, GONE, GONE, 99}};
  for (const auto& r : rows) {
    answers(r.err, tnv_cache_region_resp{0, MIB, 5, 0x01, {}}, r.len); /* an error clears nothing */
    service.err = r.exchange;
    EXPECT_EQ(cache(MIB, 2), r.cached);
    EXPECT_EQ(sent_, r.exchange == 0);
    EXPECT_EQ(fsz_, r.fsz);
    const int err = r.exchange != 0 ? r.exchange : static_cast<int>(r.err);
    EXPECT_EQ(dirty(-1, 2), err);
    EXPECT_EQ(truncate(0), err);
    EXPECT_EQ(file_.bytes(), Bytes(7));
  }
}

/* The lowest bit alone of the mark counts. */
TEST_F(Requests, DropTheMapsOfAFileThatBecameEmpty) {
  for (const ox_u8 mark : {ox_u8{0xfe}, ox_u8{0xff}}) {
    for (const bool writes : {true, false}) {
      answers(0, tnv_cache_region_resp{writes ? mark : 0u, MIB, 5, mark, {}});
      EXPECT_EQ(writes ? dirty(0, 2) : cache(MIB, 1), 0);
      EXPECT_EQ(file_.is_dropped(), mark == 0xff);
      EXPECT_EQ(file_.fde.fdt_stat.st_size, mark == 0xff ? 0u : 77u);
      vfstnw_remove_bmaps(&file_.fde);
      file_.hook_maps();
    }
  }
  EXPECT_EQ(truncate(100), 0);
  EXPECT_FALSE(file_.is_dropped());
  EXPECT_EQ(truncate(0), 0);
  EXPECT_TRUE(file_.is_dropped());
  EXPECT_EQ(file_.fde.fdt_stat.st_size, 77u) << "the caller changes it";
}

/* ------------------------------------------------------------------- the model */

/* One bit for each region. */
using Regions = std::array<bool, REGIONS>;

/* The regions of a range, counted in numbers that do not wrap. No file has a byte behind MOST. */
struct Range {
  Range(int rshift, ox_off off, ox_u64 sz)
      : empty(sz == 0),
        first(__int128{off} >> rshift),
        last(std::min(__int128{off} + sz - 1, __int128{MOST}) >> rshift),
        whole(off >= 0 && last < REGIONS && __int128{off} + sz - 1 <= MOST) {}
  bool has(int region) const { return !empty && first >= 0 && region >= first && region <= last; }
  bool is_set_in(const Regions& map) const {
    for (int r = 0; r < REGIONS; r++) {
      if (has(r) && !map[static_cast<size_t>(r)]) {
        return false;
      }
    }
    return empty || whole;
  }
  void set_in(Regions& map, bool value = true) const {
    for (int r = 0; r < REGIONS; r++) {
      map[static_cast<size_t>(r)] = has(r) ? value : map[static_cast<size_t>(r)];
    }
  }

  bool empty;
  __int128 first, last;
  bool whole; /* inside the maps, and of bytes that a file can have */
};

Bytes packed(const Regions& cached, const Regions& dirty) {
  Bytes bytes(2 * REGIONS / 8 + 1);
  for (size_t r = 0; r < REGIONS; r++) {
    bytes[r / 8] = static_cast<ox_u8>(bytes[r / 8] | cached[r] << r % 8);
    bytes[3 + r / 8] = static_cast<ox_u8>(bytes[3 + r / 8] | dirty[r] << r % 8);
  }
  return bytes;
}

class Model : public Requests {
 protected:
  /* Mostly a number near the begin of a region, sometimes one at the end of all numbers. */
  ox_u64 number(int rshift) {
    const ox_u64 ends[] = {MOST,       MOST - 1,  ox_u64{1} << 63, ox_u64{FARTHEST},
                           1ull << 51, 1ull << 52};
    const ox_u64 near = (random_() % (REGIONS + 2) << rshift) + random_() % 3 - 1;
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
        answers(0, tnv_cache_region_resp{12345, answered, 1000, 0, {}});
        ASSERT_EQ(cache(off, sz), 0);
        ASSERT_EQ(sent_, !range.is_set_in(cached_));
        ASSERT_EQ(fsz_, sent_ ? 1000u : 99u);
        if (sent_) {
          Range(rshift, off, answered).set_in(cached_);
        }
        break;
      case 1: /* a truncation asks in any case, and sets nothing */
        ASSERT_EQ(cache(off, sz, true), 0);
        ASSERT_EQ(service.sent, sent + 1);
        break;
      case 2: /* a dirty region is cached, too */
        answers(0, tnv_dirty_region_resp{});
        ASSERT_EQ(dirty(off, sz), 0);
        ASSERT_EQ(service.sent, sent + (range.is_set_in(dirty_) ? 0 : 1));
        if (service.sent != sent) {
          range.set_in(cached_);
          range.set_in(dirty_);
        }
        break;
      default:
        const bool clear = random_() % 2 == 0;
        vfstnw_mark_regions(&file_.fde, off, sz, clear);
        range.set_in(cached_, !clear);
        range.set_in(dirty_, !clear);
    }
    ASSERT_EQ(file_.bytes(), packed(cached_, dirty_));
  }

  std::mt19937 random_{1};
  Regions cached_ = {}, dirty_ = {};
};

TEST_F(Model, AnyRangesAtAnyShift) {
  for (const int rshift : {0, 1, 16, 20, 31, 32, 58, 62}) {
    file_.fde.fdt_rshift = rshift;
    for (int i = 0; i < 5000 && !HasFatalFailure(); i++) {
      step(rshift);
    }
  }
}

/* ------------------------------------------------------------------- bits, drops and faults */

TEST(Bits, AreLoggedAtDebugLevelTwoAndNotGuarded) {
  const LogCapture log;
  ox_u8 bytes[] = {0, 0x80, 0x00};
  ox_u8* const map = bytes + 1;
  vfstnw_is_region_set(map, 20, 7 << 20, 1);
  ox_debug = 2;
  EXPECT_FALSE(vfstnw_is_region_set(map, 20, 7 << 20, 2 << 20));
  vfstnw_set_region_bits(map, 20, 7 << 20, 2 << 20, false);
  EXPECT_TRUE(vfstnw_is_region_set(map, 20, 7 << 20, 2 << 20));
  ox_debug = 1;
  char at[32];
  snprintf(at, sizeof at, "%p", static_cast<void*>(map));
  const std::string range = std::string(" for off:7340032, len:2097152 in ") + at;
  const std::string values =
      "DEBUG: sbit 0x7, ebit 0x8, sbyte 0x0, ebyte 0x1, ssbit 0x7, eebit 0x0, sval 0x80, eval 0x1, "
      "bitmap[sbyte] = 0x80, bitmap[ebyte] = 0x";
  EXPECT_EQ(log.brief_lines(),
            (Lines{"DEBUG: Checking bits" + range, values + "0", "DEBUG: bits not set" + range,
                   "DEBUG: Setting bits" + range, values + "0",
                   "DEBUG: bitmap[sbyte] = 0x80, bitmap[ebyte] = 0x1",
                   "DEBUG: Checking bits" + range, values + "1", "DEBUG: bits are set" + range}));
  /* At offset 0 an empty range ends in region -1, before the map. */
  vfstnw_set_region_bits(map, 20, 0, 0, false);
  EXPECT_EQ(bytes[0], 0xFF);
  EXPECT_EQ(bytes[1], 0xFF);
  EXPECT_EQ(bytes[2], 1);
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

}  // namespace
