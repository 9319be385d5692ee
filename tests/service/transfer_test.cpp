/*
 * Contents on their way: what is read of the cloud for those who wait, in what order, and that the
 * local file only ever gets the bytes that it misses.
 */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <random>
#include <semaphore>

#include "cloud_variants.h"
#include "eventually.h"
#include "files/region_set.h"
#include "memory_cloud.h"
#include "transfer/file_fetches.h"
#include "transfer/read_ahead.h"
#include "transfer/upload_queue.h"

namespace {

using namespace tarnd;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using Ranges = std::vector<ByteRange>;

constexpr uint64_t MIB = uint64_t{1} << 20;
constexpr size_t GRAIN = 16;

/* Some regions. */
ByteRange grains(uint64_t first, uint64_t count) { return {first * GRAIN, count * GRAIN}; }
Run run_of(ByteRange range) { return {range.offset, range.end()}; }

/* A local file that looks closely at what is written to it, and when. */
class LocalCopy : public FetchTarget {
  template <typename Work>
  auto locked(const Work& work) {
    const std::lock_guard guard(lock_);
    return work();
  }

 public:
  LocalCopy(std::string path, std::string version, size_t size)
      : source_{std::move(path), std::move(version)}, bytes_(size, '.') {}

  Source source() override {
    return locked([&] { return source_; });
  }
  Ranges missing(ByteRange range) override {
    return locked([&] {
      Ranges missing;
      const uint64_t end = std::min<uint64_t>(range.end(), bytes_.size());
      for (Run run = present_.next_missing({range.offset, end}); !run.empty();
           run = present_.next_missing({run.end, end})) {
        missing.push_back({run.first, run.end - run.first});
      }
      return missing;
    });
  }
  int write(uint64_t offset, const char* data, size_t size) override {
    if (before_write) {
      before_write(offset);
    }
    return locked([&] {
      EXPECT_TRUE(present_.next_present({offset, offset + size}).empty()) << "written over";
      bytes_.replace(offset, size, data, size);
      return write_error.load();
    });
  }
  void arrived(ByteRange range) override {
    locked([&] { present_.add(run_of(range)); });
  }

  void set_source(Source source) {
    locked([&] { source_ = std::move(source); });
  }
  bool has(ByteRange range) { return missing(range).empty(); }
  std::string bytes() {
    return locked([&] { return bytes_; });
  }
  /* As a client does with regions that were fetched; all else would be written over. */
  void write_ones(ByteRange range) {
    locked([&] { bytes_.replace(range.offset, range.length, range.length, '1'); });
  }
  void forget_all() {
    locked([&] { present_.clear(); });
  }

  std::function<void(uint64_t offset)> before_write; /* without a lock; fixed while reads run */
  std::atomic<int> write_error = 0;

 private:
  std::mutex lock_; /* guards the fields below */
  Source source_;
  std::string bytes_;
  RegionSet present_;
};

std::string pattern(size_t size) {
  std::string text(size, '\0');
  std::generate(text.begin(), text.end(), [i = 0]() mutable { return 'a' + i++ % 23; });
  return text;
}

/* ------------------------------------------------------------------ fetches */

class FetchTest : public testing::Test {
 protected:
  CloudCode fetch(const Ranges& ranges, ByteRange ahead = {},
                  milliseconds time = milliseconds(20000)) {
    return fetches_.fetch(ranges, ahead, Clock::now() + time).code;
  }
  /* On a thread of its own. */
  std::future<CloudCode> fetching(ByteRange range) {
    return std::async(std::launch::async, [this, range] { return fetch({range}); });
  }
  uint64_t reads() const { return cloud_.counts.of(CloudCall::READ); }
  /* Reads wait until they are let through. */
  void close_gate() {
    cloud_.before = [this](CloudCall, const std::string&) {
      gate_.acquire();
      return CloudResult{};
    };
  }

  std::counting_semaphore<> gate_{0};
  MemoryCloud cloud_;
  const std::string content_ = pattern(40 * GRAIN + 5);
  LocalCopy copy_{"file", cloud_.set("file", content_), content_.size()};
  TransferEngine engine_{cloud_, [] { return nullptr; }, 2};
  FileFetches fetches_{engine_, copy_, GRAIN};
};

TEST_F(FetchTest, EqualAndNeighbouringBytesAreReadOnce) {
  close_gate();
  auto first = fetching(grains(0, 1));
  EXPECT_TRUE(eventually([&] { return reads() == 1; }));
  auto same = fetching(grains(0, 1));
  EXPECT_EQ(fetch({}, grains(1, 10)), CloudCode::OK) << "nobody waits for read-ahead";
  auto inside = fetching(grains(2, 1));
  auto behind = fetching(grains(11, 1));
  gate_.release(100);
  EXPECT_THAT((std::vector{first.get(), same.get(), inside.get(), behind.get()}),
              testing::Each(CloudCode::OK));
  ASSERT_TRUE(eventually([&] { return copy_.has(grains(0, 12)); }));
  EXPECT_LE(reads(), 5u) << "for 12 regions and 5 wishes";
  EXPECT_EQ(fetch({grains(20, 2), grains(30, 1)}), CloudCode::OK);
  EXPECT_EQ(copy_.bytes().substr(20 * GRAIN, 2 * GRAIN), content_.substr(20 * GRAIN, 2 * GRAIN));
}

TEST_F(FetchTest, WhoWaitsForTheFirstBytesDoesNotWaitForTheLast) {
  cloud_.piece = GRAIN;
  std::atomic<bool> goes_on = false;
  copy_.before_write = [&](uint64_t offset) {
    EXPECT_TRUE(offset < 2 * GRAIN || eventually([&] { return goes_on.load(); }));
  };
  EXPECT_EQ(fetch({grains(0, 2)}, grains(2, 39)), CloudCode::OK);
  EXPECT_FALSE(copy_.has(grains(3, 1)));
  EXPECT_EQ(reads(), 1u);
  goes_on = true;
  EXPECT_EQ(fetch({grains(0, 41)}), CloudCode::OK);
  EXPECT_EQ(copy_.bytes(), content_);
}

TEST_F(FetchTest, AFailureReachesThoseWhoWaitedWhenItsReadBegan) {
  cloud_.before = [](CloudCall, const std::string&) { return CloudResult::of(CloudCode::OFFLINE); };
  EXPECT_EQ(fetch({grains(4, 1)}, grains(0, 2)), CloudCode::OFFLINE);
  cloud_.before = nullptr;
  EXPECT_EQ(fetch({grains(4, 1)}), CloudCode::OK) << "a failure is not kept";
  copy_.write_error = OX_ENOSPC;
  EXPECT_EQ(fetch({grains(8, 1)}), CloudCode::REFUSED);
  copy_.write_error = 0;

  /* The file gets another path while a read of the old one is under way. */
  const uint64_t reads_before = reads();
  close_gate();
  auto before = fetching(grains(12, 1));
  EXPECT_TRUE(eventually([&] { return reads() > reads_before; }));
  copy_.set_source({"moved", cloud_.set("moved", content_)});
  cloud_.set("file", "another content");
  auto after = fetching(grains(12, 1));
  std::this_thread::sleep_for(milliseconds(20));
  gate_.release(100);
  EXPECT_EQ(before.get(), CloudCode::CHANGED);
  EXPECT_EQ(after.get(), CloudCode::OK) << "it never asked for the old path";
}

TEST_F(FetchTest, WhoGivesUpTakesNobodyAlong) {
  std::atomic<bool> hangs = true;
  cloud_.before = [&](CloudCall, const std::string&) {
    EXPECT_TRUE(eventually([&] { return !hangs; }));
    return CloudResult{};
  };
  EXPECT_EQ(fetch({grains(0, 1)}, {}, milliseconds(5)), CloudCode::OFFLINE);
  auto later = fetching(grains(0, 2));
  std::this_thread::sleep_for(milliseconds(20));
  hangs = false;
  EXPECT_EQ(later.get(), CloudCode::OK);
  hangs = true;
  const uint64_t reads_before = reads();
  auto stopped = fetching(grains(12, 1));
  EXPECT_TRUE(eventually([&] { return reads() > reads_before; }));
  std::thread stopping([&] { fetches_.stop(); });
  EXPECT_EQ(stopped.get(), CloudCode::CANCELLED) << "at once";
  hangs = false;
  stopping.join();
  EXPECT_FALSE(copy_.has(grains(12, 1)));
  EXPECT_EQ(fetch({grains(12, 1)}), CloudCode::OK);
  engine_.stop();
  EXPECT_EQ(fetch({grains(16, 1)}), CloudCode::CANCELLED);
}

/* One reader of each file at a time, so that the order in which they come is seen. */
TEST_F(FetchTest, WhatSomebodyWaitsForGoesBeforeReadAheadOfWhateverFile) {
  std::mutex lock;
  std::string order;
  cloud_.before = [&](CloudCall, const std::string& path) {
    {
      const std::lock_guard guard(lock);
      order += path;
    }
    gate_.acquire();
    return CloudResult{};
  };
  const auto started = [&] {
    const std::lock_guard guard(lock);
    return order;
  };
  const auto copy = [&](const char* path) {
    return LocalCopy(path, cloud_.set(path, content_), content_.size());
  };
  LocalCopy copies[] = {copy("a"), copy("b"), copy("c"), copy("d")};
  std::list<FileFetches> files;
  for (LocalCopy& target : copies) {
    files.emplace_back(engine_, target, GRAIN);
  }
  auto file = files.begin();
  const auto wants = [&](bool ahead) {
    return std::async(std::launch::async, [&, ahead, fetches = &*file++] {
      const ByteRange range = grains(0, 1);
      return fetches->fetch(ahead ? Ranges{} : Ranges{range}, ahead ? range : ByteRange{},
                            Clock::now() + std::chrono::seconds(20));
    });
  };
  wants(true).wait();
  ASSERT_TRUE(eventually([&] { return started() == "a"; }));
  wants(true).wait();
  const auto fetched = wants(false);
  ASSERT_TRUE(eventually([&] { return started() == "ac"; })) << "one place is left for it";
  const auto fetched_next = wants(false);
  std::this_thread::sleep_for(milliseconds(20));
  gate_.release();
  ASSERT_TRUE(eventually([&] { return started() == "acd"; }));
  gate_.release(100);
  EXPECT_TRUE(eventually([&] { return started() == "acdb"; }));
}

/* Several threads, faults, stops, renames and clients that write what was fetched, by seeds. */
TEST_F(FetchTest, InAnyOrderTheCopyGetsTheContentAndNothingIsWrittenOver) {
  for (unsigned seed = 1; seed <= 20; seed++) {
    auto memory = std::make_unique<MemoryCloud>();
    memory->piece = 24;
    LocalCopy copy("file", memory->set("file", content_), content_.size());
    const auto cloud = with_faults(std::move(memory),
                                   "latency read 0-1; short read 0.1; error read 0.1; changed read "
                                   "0.02; busy read 0.05 1; seed " +
                                       std::to_string(seed),
                                   &test_counts, 3);
    TransferEngine engine(
        *cloud, [] { return nullptr; }, 3);
    FileFetches fetches(engine, copy, GRAIN);
    const auto fetch = [&](ByteRange range, ByteRange ahead) {
      return fetches.fetch({range}, ahead, Clock::now() + std::chrono::seconds(20)).ok();
    };
    const auto client = [&](unsigned number) {
      std::mt19937 random(seed * 100 + number);
      for (int step = 0; step < 60; step++) {
        const ByteRange range = grains(random() % 37, 1 + random() % 4);
        if (fetch(range, grains(random() % 37, random() % 4))) {
          EXPECT_TRUE(copy.has(range));
          copy.write_ones(range);
        }
      }
    };
    std::vector<std::thread> threads;
    for (unsigned number = 0; number < 3; number++) {
      threads.emplace_back(client, number);
    }
    for (int i = 0; i < 5; i++) {
      std::this_thread::sleep_for(milliseconds(seed % 4));
      fetches.stop();
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    while (!fetch({0, content_.size()}, {})) {
    }
    const std::string got = copy.bytes();
    for (size_t i = 0; i < got.size(); i++) {
      EXPECT_TRUE(got[i] == '1' || got[i] == content_[i]) << i;
    }
    EXPECT_NE(got.find('1'), std::string::npos);
  }
}

/* ------------------------------------------------------------------ read-ahead */

/* A client with a map of its own: silent as long as it was told of what it reads. */
struct Reader {
  ReadAhead ahead;
  uint64_t told = 0;
  uint64_t fetched = 0; /* ahead */
  int asked = 0;

  void read(ByteRange range, uint64_t size) {
    const ByteRange next = ahead.next(range, size);
    EXPECT_LE(next.end(), size);
    fetched += next.length;
    const uint64_t region_end = std::min((range.end() + MIB - 1) / MIB * MIB, size);
    const uint64_t there = next.empty() && fetched == 0 ? region_end : size;
    told = std::min(there, std::max(region_end, ahead.tell_until()));
    ahead.told(told);
    asked++;
  }
  void read_in_order(uint64_t from, uint64_t to, uint64_t size) {
    told = from;
    for (uint64_t offset = from; offset < to; offset += MIB / 16) {
      if (offset >= told) {
        read({offset, MIB / 16}, size);
      }
    }
  }
};

TEST(ReadAhead, FollowsReadersInOrderAndLeavesOthersAlone) {
  constexpr uint64_t SIZE = 256 * MIB;
  Reader sequential;
  sequential.read_in_order(0, SIZE, SIZE);
  EXPECT_EQ(sequential.fetched, SIZE - MIB - MIB / 16) << "all but what was asked for first";
  EXPECT_LE(sequential.asked, 30) << "instead of 256";
  Reader from_the_middle;
  from_the_middle.read_in_order(100 * MIB, 120 * MIB, SIZE);
  EXPECT_GE(from_the_middle.fetched, 20 * MIB);

  Reader header_again_and_again;
  Reader jumping;
  std::mt19937 random(3);
  for (int i = 0; i < 200; i++) {
    header_again_and_again.read({0, 4096}, SIZE);
    jumping.read({MIB + random() % 20 * 12 * MIB, 4096}, SIZE);
  }
  EXPECT_EQ(header_again_and_again.fetched + jumping.fetched, 0u);
  Reader of_a_small_file;
  of_a_small_file.read({0, 4096}, 5000);
  of_a_small_file.read({4096, 904}, 5000);
  of_a_small_file.read({0, 4096}, 0);
  EXPECT_LE(of_a_small_file.fetched, 904u);
}

/* ------------------------------------------------------------------ uploads */

/* Answers each try as it was told, and counts the tries. */
class UploadTest : public testing::Test {
 protected:
  CloudResult upload(uint64_t key, const CloudContext& context) {
    CloudCode answer = CloudCode::OK;
    {
      const std::lock_guard guard(lock_);
      const size_t tried = tries_[key].size();
      tries_[key].push_back(Clock::now());
      answer = tried < answers_[key].size() ? answers_[key][tried] : answer;
    }
    if (answer == CloudCode::CANCELLED) { /* it takes its time until it is told to end */
      context.cancel->wait_until(Clock::now() + std::chrono::seconds(20));
    }
    return CloudResult::of(answer);
  }
  size_t tries(uint64_t key) {
    const std::lock_guard guard(lock_);
    return tries_[key].size();
  }

  std::mutex lock_; /* guards the maps */
  std::map<uint64_t, std::vector<CloudCode>> answers_;
  std::map<uint64_t, std::vector<Clock::time_point>> tries_;
  UploadQueue queue_{
      [this](uint64_t key, const CloudContext& context) { return upload(key, context); },
      [] { return nullptr; }, 2};
};

TEST_F(UploadTest, WhatFailsIsTriedAgainWithGrowingPauses) {
  using enum CloudCode;
  answers_ = {{1, {OFFLINE, NO_SPACE}}, {2, {REFUSED}}};
  for (uint64_t key = 1; key <= 3; key++) {
    queue_.add(key);
  }
  ASSERT_TRUE(eventually([&] { return tries(1) + tries(2) + tries(3) == 6; }));
  EXPECT_EQ(tries(3), 1u);
  const auto& at = tries_[1];
  EXPECT_GE(at[1] - at[0], milliseconds(400));
  EXPECT_GE(at[2] - at[1], milliseconds(900));
}

TEST_F(UploadTest, OnesCanBeKickedCancelledAndAddedOnceMore) {
  using enum CloudCode;
  answers_ = {{1, {OFFLINE, OFFLINE, OFFLINE, OFFLINE}},
              {2, {OFFLINE}},
              {3, {CANCELLED}},
              {4, {CANCELLED}},
              {5, {CANCELLED}}};
  queue_.add(1);
  queue_.add(2);
  ASSERT_TRUE(eventually([&] { return tries(1) + tries(2) == 2; }));
  queue_.cancel(2);
  const auto start = Clock::now();
  for (size_t kicked = 1; kicked <= 4; kicked++) {
    ASSERT_TRUE(eventually([&] {
      queue_.kick();
      return tries(1) > kicked;
    }));
  }
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(5)) << "long before the pauses are over";
  queue_.add(3);
  queue_.add(4);
  ASSERT_TRUE(eventually([&] { return tries(3) + tries(4) == 2; }));
  queue_.cancel(3);
  queue_.cancel(4);
  queue_.add(4);
  ASSERT_TRUE(eventually([&] { return tries(4) == 2; })) << "it was added while it ended";
  queue_.add(5);
  ASSERT_TRUE(eventually([&] { return tries(5) == 1; }));
  queue_.finish(milliseconds(5));
  EXPECT_EQ((std::vector{tries(2), tries(3), tries(5)}), (std::vector<size_t>{1, 1, 1}));
}

}  // namespace
