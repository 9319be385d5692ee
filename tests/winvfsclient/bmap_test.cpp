#include "vfstnw_bmap.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <limits>
#include <mutex>
#include <thread>
#include <vector>

#include "../oxley/captured_log.h"
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

struct GuardCase {
  int rshift;
  ox_off off;
  ox_u64 sz;
  bool inside; /* a map of two bytes covers it wholly */
};

TEST(RegionMaps, ARangeThatReachesPastTheMapIsNeverWholly) {
  const GuardCase cases[] = {
      {20, 0, 1, true},
      {20, 0, 16 * MiB, true},
      {20, 16 * MiB - 1, 1, true},
      {20, 16 * MiB - 1, 2, false},
      {20, 0, 16 * MiB + 1, false},
      {20, 16 * MiB, 1, false},
      {20, ox_off{1} << 51, 1, false}, /* region 2^31 */
      {20, ox_off{1} << 52, 1, false}, /* region 2^32: 0 in 32 bits */
      {20, farthest, 1, false},
      {20, -1, 1, false},
      {20, -1, 2, false},
      {20, std::numeric_limits<ox_off>::min(), most, false},
      {20, 0, most, false},
      {20, 1, most, false}, /* off + sz - 1 is the last number there is, or wraps to small ones */
      {20, 2, most, false},
      {20, 8, most - 4, false},
      {0, 15, 1, true},
      {0, 15, 2, false},
      {62, 0, most, true}, /* the whole of 64 bits is four regions */
      {62, farthest, 1, true},
      {62, 2, most, false},
      {62, -1, 1, false},
      {20, 3, 0, true}, /* an empty range touches no map */
      {20, farthest, 0, true},
      {20, -1, 0, true},
  };
  for (const GuardCase& c : cases) {
    OpenFile full(c.rshift, 2);
    memset(full.fde.fdt_rmap, 0xFF, 5);
    EXPECT_EQ(vfstnw_is_cached(&full.fde, c.off, c.sz), c.inside)
        << c.rshift << " " << c.off << " " << c.sz;
    EXPECT_EQ(vfstnw_is_dirty(&full.fde, c.off, c.sz), c.inside)
        << c.rshift << " " << c.off << " " << c.sz;
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
      {0, MiB + 1, {0x03, 0x00}},
      {0, 0, {0x00, 0x00}},
      {15 * MiB, 2 * MiB, {0x00, 0x80}},
      {7 * MiB, most, {0x80, 0xFF}},
      {0, most, {0xFF, 0xFF}},
      {16 * MiB, MiB, {0x00, 0x00}},
      {ox_off{1} << 52, MiB, {0x00, 0x00}},
      {-1, 2 * MiB, {0x00, 0x00}},
      {farthest, most, {0x00, 0x00}},
  };
  for (const auto& c : cases) {
    OpenFile file(20, 2);
    vfstnw_mark_regions(&file.fde, c.off, c.sz, false);
    EXPECT_EQ(file.bytes(), (Bytes{c.left[0], c.left[1], c.left[0], c.left[1], 0}))
        << c.off << " " << c.sz;
    memset(file.fde.fdt_rmap, 0xFF, 5);
    vfstnw_mark_regions(&file.fde, c.off, c.sz, true);
    const ox_u8 low = static_cast<ox_u8>(~c.left[0]), high = static_cast<ox_u8>(~c.left[1]);
    EXPECT_EQ(file.bytes(), (Bytes{low, high, low, high, 0xFF})) << c.off << " " << c.sz;
  }
}

TEST(RegionMaps, AFileWithoutMapsIsCachedAndDirtyEverywhere) {
  OpenFile file;
  Service none{{}, nullptr};
  service = &none;
  vfs_handle vh = {};
  for (ox_off off : {ox_off{0}, farthest, ox_off{-1}}) {
    EXPECT_TRUE(vfstnw_is_cached(&file.fde, off, most));
    EXPECT_TRUE(vfstnw_is_dirty(&file.fde, off, most));
    ox_u64 fsz = 1;
    EXPECT_EQ(vfstnw_cache_regions(&vh, &file.fde, off, 1, false, &fsz, nullptr), 0);
    EXPECT_EQ(vfstnw_dirty_regions(&vh, &file.fde, off, 1), 0);
    EXPECT_EQ(fsz, 1u);
  }
  EXPECT_TRUE(none.sent.empty());
  vfstnw_mark_regions(&file.fde, 0, 1, false);
  vfstnw_remove_bmaps(&file.fde);
  EXPECT_TRUE(file.is_dropped());
}

TEST(RegionMapsDeathTest, ACachedMapWithoutADirtyMapIsAFault) {
  OpenFile file(20, 2);
  file.fde.fdt_dmap = nullptr;
  EXPECT_DEATH(vfstnw_is_dirty(&file.fde, 0, 1),
               "\\(\\(fde->fdt_dmap != \\(\\(void\\*\\)0\\)\\)\\).*vfstnw_bmap.*32");
}

TEST(RegionMaps, IdsAreCopiedWhenBothAreGiven) {
  cfs_id_t from = {{1, 2, 3}}, to = {};
  tn_cfs_id_copy(&to, nullptr);
  tn_cfs_id_copy(nullptr, &from);
  EXPECT_EQ(to.id[1], 0);
  tn_cfs_id_copy(&to, &from);
  EXPECT_EQ(memcmp(&to, &from, sizeof(to)), 0);
}

/* ------------------------------------------------------------------- the requests */

class Requests : public testing::Test {
 protected:
  Requests() { service = &service_; }

  /* The next answers: an error number and a payload that ends after `len` bytes. */
  void answers(ox_u32 err, const tnv_cache_region_resp& payload,
               ox_u32 len = sizeof(tnv_cache_region_resp)) {
    service_.answer = [=](tnv_resp& resp) {
      resp.rhdr.rhdr_errno = err;
      resp.rhdr.rhdr_len = len;
      memcpy(resp.u.bytes, &payload, len);
      return 0;
    };
  }
  void answers_dirty(ox_u32 err, ox_u8 clear) {
    service_.answer = [=](tnv_resp& resp) {
      resp.rhdr.rhdr_errno = err;
      resp.rhdr.rhdr_len = 1;
      resp.u.dirty_region.dr_clear = clear;
      return 0;
    };
  }
  void is_gone() {
    service_.answer = [](tnv_resp&) { return 133; };
  }

  int cache(ox_off off, ox_u64 sz, bool truncate = false) {
    fsz_ = 99;
    sent_ = true;
    return vfstnw_cache_regions(&vh_, &file_.fde, off, sz, truncate, &fsz_, &sent_);
  }
  /* The log's texts behind the prefix, with the error that the prefix shows. */
  std::vector<std::string> texts() const {
    std::vector<std::string> found;
    for (const std::string& line : log_.lines()) {
      const size_t err = line.find("\"errno\":");
      const std::string number =
          err == std::string::npos ? "" : line.substr(err + 8, line.find(',', err) - err - 8);
      EXPECT_NE(line.find("\"vfs_user\":\"joe\""), std::string::npos) << line;
      found.push_back(number + " " + line.substr(line.find("\"message\":")));
    }
    return found;
  }

  OpenFile file_{20, 2};
  vfs_handle vh_ = {};
  Service service_;
  ox_u64 fsz_ = 0;
  bool sent_ = false;
  const captured_log log_;
  const char* const joe_ = strcpy(vh_.vfs_user, "joe");
};

/* A request must be exactly these bytes: everything that is not named is zero. */
tnv_msg request(ox_u32 opcode) {
  tnv_msg msg = {};
  msg.hdr.hdr_opcode = opcode;
  msg.hdr.hdr_len = 504;
  return msg;
}
bool same(const tnv_msg& left, const tnv_msg& right) {
  return memcmp(&left, &right, sizeof(left)) == 0;
}

TEST_F(Requests, CarryWhatTheOpenLeft) {
  is_gone();
  cache(3 * MiB, 5, true);
  vfstnw_dirty_regions(&vh_, &file_.fde, 3 * MiB, 5);
  vfstnw_ftruncate(&vh_, &file_.fde, 5);
  ASSERT_EQ(service_.sent.size(), 3u);

  tnv_msg cached = request(12);
  cached.u.bytes[0] = 1;
  memcpy(cached.u.bytes + 8, "\0\0\x30\0\0\0\0\0\5", 9);
  memset(cached.u.bytes + 24, 0x11, 16);
  memset(cached.u.bytes + 40, 0x22, 88);
  EXPECT_TRUE(same(service_.sent[0], cached));

  tnv_msg dirty = request(13);
  memcpy(dirty.u.bytes, "\0\0\x30\0\0\0\0\0\5", 9);
  memset(dirty.u.bytes + 16, 0x11, 16);
  memset(dirty.u.bytes + 32, 0x22, 88);
  EXPECT_TRUE(same(service_.sent[1], dirty));

  tnv_msg truncated = request(14);
  truncated.u.bytes[0] = 5;
  memset(truncated.u.bytes + 8, 0x11, 16);
  memset(truncated.u.bytes + 24, 0x22, 88);
  EXPECT_TRUE(same(service_.sent[2], truncated));
  EXPECT_NE(vh_.vfs_curmsg_ts.tv_sec, 0);
}

TEST_F(Requests, ACachedRangeIsNotAskedForAgain) {
  answers(0, {0, 2 * MiB, 1000, 0, {}});
  EXPECT_EQ(cache(MiB, 2 * MiB), 0);
  EXPECT_TRUE(sent_);
  EXPECT_EQ(fsz_, 1000u);
  EXPECT_EQ(file_.bytes(), (Bytes{0x06, 0, 0, 0, 0}));
  EXPECT_EQ(cache(MiB, 2 * MiB), 0);
  EXPECT_FALSE(sent_);
  EXPECT_EQ(fsz_, 99u);
  EXPECT_EQ(service_.sent.size(), 1u);
  EXPECT_EQ(vfstnw_cache_regions(&vh_, &file_.fde, 0, 1, false, nullptr, nullptr), 0);
  EXPECT_EQ(service_.sent.size(), 2u);
}

TEST_F(Requests, WhatCountsIsTheSizeThatTheServiceCached) {
  answers(0, {0, MiB, 0, 0, {}}); /* less than asked, whatever it starts at */
  EXPECT_EQ(cache(4 * MiB, 3 * MiB), 0);
  EXPECT_EQ(file_.bytes(), (Bytes{0x10, 0, 0, 0, 0}));
  EXPECT_FALSE(vfstnw_is_cached(&file_.fde, 4 * MiB, 3 * MiB));
  answers(0, {0, 0, 0, 0, {}}); /* nothing */
  EXPECT_EQ(cache(0, MiB), 0);
  EXPECT_EQ(file_.bytes(), (Bytes{0x10, 0, 0, 0, 0}));
  answers(0, {0, most, 0, 0, {}}); /* more than there is: the dirty map stays untouched */
  EXPECT_EQ(cache(14 * MiB, MiB), 0);
  EXPECT_EQ(file_.bytes(), (Bytes{0x10, 0xC0, 0, 0, 0}));
  answers(0, {0, MiB, 0, 0, {}}); /* past the end: asked each time */
  EXPECT_EQ(cache(16 * MiB, 1), 0);
  EXPECT_EQ(cache(16 * MiB, 1), 0);
  EXPECT_EQ(service_.sent.size(), 5u);
  EXPECT_EQ(file_.bytes(), (Bytes{0x10, 0xC0, 0, 0, 0}));
}

TEST_F(Requests, ATruncationAlwaysAsksAndSetsNoBit) {
  memset(file_.fde.fdt_rmap, 0xF0, 1);
  answers(0, {0, MiB, 5, 0, {}});
  EXPECT_EQ(cache(7 * MiB, MiB, true), 0);
  EXPECT_EQ(cache(0, MiB, true), 0);
  EXPECT_EQ(service_.sent.size(), 2u);
  EXPECT_EQ(fsz_, 5u);
  EXPECT_EQ(file_.bytes(), (Bytes{0xF0, 0, 0, 0, 0}));
}

TEST_F(Requests, AnswersOfTheCacheRequest) {
  answers(25, {0, MiB, 5, 0, {}}); /* not cacheable */
  EXPECT_EQ(cache(MiB, 2), 0);
  EXPECT_TRUE(sent_);
  EXPECT_EQ(fsz_, 99u);
  answers(7, {0, MiB, 5, 0x01, {}}); /* an error clears nothing */
  EXPECT_EQ(cache(MiB, 2), 7);
  EXPECT_EQ(fsz_, 5u);
  answers(5, {0, MiB, 5, 0, {}}, 0); /* carries no size */
  EXPECT_EQ(cache(MiB, 2), 5);
  EXPECT_EQ(fsz_, 99u);
  is_gone();
  EXPECT_EQ(cache(MiB, 2), 133);
  EXPECT_FALSE(sent_);
  EXPECT_EQ(fsz_, 99u);
  EXPECT_EQ(file_.bytes(), (Bytes{0, 0, 0, 0, 0}));
  const std::string id = "22222222-2222-2222-2222-222222222222";
  EXPECT_EQ(texts(), (std::vector<std::string>{
                         "25 \"message\":\"Uncached read(5, 1048576, 2 : " + id + ")\"}",
                         "7 \"message\":\"cache_region(5, 1048576, 2 : " + id + ") failed\"}",
                         "5 \"message\":\"cache_region(5, 1048576, 2 : " + id + ") failed\"}"}));
}

TEST_F(Requests, AnEmptyFileDropsTheMaps) {
  answers(0, {0, MiB, 5, 0xFE, {}}); /* not the lowest bit */
  EXPECT_EQ(cache(0, 1), 0);
  EXPECT_FALSE(file_.is_dropped());
  answers(0, {0, MiB, 5, 0xFF, {}});
  EXPECT_EQ(cache(MiB, 1), 0);
  EXPECT_EQ(fsz_, 99u);
  EXPECT_TRUE(file_.is_dropped());
  EXPECT_EQ(file_.fde.fdt_stat.st_size, 0u);
}

TEST_F(Requests, WhatIsDirtyIsCachedToo) {
  answers_dirty(0, 0);
  EXPECT_EQ(vfstnw_dirty_regions(&vh_, &file_.fde, 9 * MiB, 2), 0);
  EXPECT_EQ(vfstnw_dirty_regions(&vh_, &file_.fde, 9 * MiB, 2), 0);
  EXPECT_EQ(service_.sent.size(), 1u);
  EXPECT_TRUE(vfstnw_is_cached(&file_.fde, 9 * MiB, MiB));
  EXPECT_EQ(file_.bytes(), (Bytes{0, 0x02, 0, 0x02, 0}));
}

TEST_F(Requests, AnswersOfTheDirtyRequest) {
  answers_dirty(28, 1);
  EXPECT_EQ(vfstnw_dirty_regions(&vh_, &file_.fde, -1, 2), 28);
  is_gone();
  EXPECT_EQ(vfstnw_dirty_regions(&vh_, &file_.fde, 0, 2), 133);
  EXPECT_EQ(file_.bytes(), (Bytes{0, 0, 0, 0, 0}));
  EXPECT_EQ(texts(),
            (std::vector<std::string>{"28 \"message\":\"dirty_region(5, 18446744073709551615, 2 : "
                                      "22222222-2222-2222-2222-222222222222) failed\"}"}));
  answers_dirty(0, 0x03);
  EXPECT_EQ(vfstnw_dirty_regions(&vh_, &file_.fde, 0, 2), 0);
  EXPECT_TRUE(file_.is_dropped());
  EXPECT_EQ(file_.fde.fdt_stat.st_size, 0u);
}

TEST_F(Requests, OnlyATruncationToNothingDropsTheMaps) {
  answers_dirty(0, 1); /* its answer has no payload of its own */
  memset(file_.fde.fdt_rmap, 0xFF, 4);
  EXPECT_EQ(vfstnw_ftruncate(&vh_, &file_.fde, 100), 0);
  EXPECT_EQ(file_.bytes(), (Bytes{0xFF, 0xFF, 0xFF, 0xFF, 0}));
  is_gone();
  EXPECT_EQ(vfstnw_ftruncate(&vh_, &file_.fde, 0), 133);
  answers_dirty(13, 0);
  EXPECT_EQ(vfstnw_ftruncate(&vh_, &file_.fde, 0), 13);
  EXPECT_EQ(file_.bytes(), (Bytes{0xFF, 0xFF, 0xFF, 0xFF, 0}));
  EXPECT_EQ(texts(), (std::vector<std::string>{"13 \"message\":\"ftruncate(5, 0: "
                                               "22222222-2222-2222-2222-222222222222) failed\"}"}));
  answers_dirty(0, 0);
  EXPECT_EQ(vfstnw_ftruncate(&vh_, &file_.fde, 0), 0);
  EXPECT_TRUE(file_.is_dropped());
  EXPECT_EQ(file_.fde.fdt_stat.st_size, 77u); /* the caller's to change */
}

/* ------------------------------------------------------------------- races */

/* Lets `count` threads pass together. (std::barrier loses wake-ups with MinGW's threads.) */
class Gate {
 public:
  explicit Gate(int count) : count_(count) {}
  void arrive_and_wait() {
    std::unique_lock lock(mutex_);
    const int round = round_;
    if (++arrived_ == count_) {
      arrived_ = 0;
      round_++;
      all_here_.notify_all();
    }
    all_here_.wait(lock, [&] { return round_ != round; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable all_here_;
  const int count_;
  int arrived_ = 0;
  int round_ = 0;
};

/* Tests and changes run into drops, many times; the sanitizers judge the memory. */
TEST(RegionMaps, ADropIsSafeAgainstTestsOnOtherThreads) {
  constexpr int rounds = 100;
  OpenFile file;
  Gate gate(5);
  std::atomic<bool> wrong = false;
  const auto in_rounds = [&](auto act) {
    return std::thread([&gate, act] {
      for (int i = 0; i < rounds; i++) {
        gate.arrive_and_wait(); /* the maps are hooked */
        act();
        gate.arrive_and_wait();
      }
    });
  };
  /* The only bit of a range inside the maps is never set: true means that they are gone. */
  std::vector<std::thread> threads;
  threads.push_back(in_rounds([&] {
    while (!vfstnw_is_cached(&file.fde, 0, 1)) {
    }
    if (!vfstnw_is_cached(&file.fde, -1, most)) wrong = true;
  }));
  threads.push_back(in_rounds([&] {
    while (!vfstnw_is_dirty(&file.fde, 0, 1)) {
    }
  }));
  threads.push_back(in_rounds([&] {
    vfstnw_mark_regions(&file.fde, MiB, 60 * MiB, false);
    std::atomic_ref(file.fde.fdt_tnflags).fetch_or(static_cast<ox_u16>(TNV_FL_MODIFIED));
  }));
  threads.push_back(in_rounds([&] { vfstnw_remove_bmaps(&file.fde); }));
  for (int i = 0; i < rounds; i++) {
    file.hook_maps(20, 8);
    gate.arrive_and_wait();
    vfstnw_remove_bmaps(&file.fde); /* two drops at once */
    gate.arrive_and_wait();
    EXPECT_TRUE(file.is_dropped());
    EXPECT_EQ(file.fde.fdt_tnflags, TNV_FL_MODIFIED);
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_FALSE(wrong);
}

}  // namespace
