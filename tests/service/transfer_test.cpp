/*
 * Contents on their way: what is read of the cloud for those who wait, in what order, and that the
 * local file only ever gets the bytes that it misses.
 */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <random>

#include "cloud_variants.h"
#include "eventually.h"
#include "files/region_set.h"
#include "gate.h"
#include "memory_cloud.h"
#include "transfer/file_fetches.h"
#include "transfer/read_ahead.h"
#include "transfer/upload_queue.h"

namespace {

using namespace tarnd;
using enum CloudCode;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using Ranges = std::vector<ByteRange>;

constexpr uint64_t MIB = uint64_t{1} << 20;
constexpr size_t GRAIN = 16;
constexpr milliseconds LONG{20000};
constexpr auto NOBODY = [] { return nullptr; }; /* whose credentials are needed */

/* Some regions. */
ByteRange grains(uint64_t first, uint64_t count) { return {first * GRAIN, count * GRAIN}; }

/* A local file that looks closely at what is written to it, and when. */
class LocalCopy : public FetchTarget {
  using Guard = std::lock_guard<std::mutex>;

 public:
  LocalCopy(std::string path, std::string version, size_t size)
      : source_{std::move(path), std::move(version)}, bytes_(size, '.') {}

  Source source() override {
    const Guard guard(lock_);
    return source_;
  }
  Ranges missing(ByteRange range) override {
    const Guard guard(lock_);
    Ranges missing;
    const uint64_t end = std::min<uint64_t>(range.end(), bytes_.size());
    for (Run run = present_.next_missing({range.offset, end}); !run.empty();
         run = present_.next_missing({run.end, end})) {
      missing.push_back({run.first, run.end - run.first});
    }
    return missing;
  }
  int write(uint64_t offset, const char* data, size_t size) override {
    const int err = before_write ? before_write(offset) : 0;
    const Guard guard(lock_);
    EXPECT_TRUE(present_.next_present({offset, offset + size}).empty()) << "written over";
    bytes_.replace(offset, size, data, size);
    return err;
  }
  void arrived(ByteRange range) override {
    const Guard guard(lock_);
    present_.add({range.offset, range.end()});
  }

  void set_source(Source source) {
    const Guard guard(lock_);
    source_ = std::move(source);
  }
  bool has(ByteRange range) { return missing(range).empty(); }
  const std::string& bytes() const { return bytes_; } /* while nothing is fetched */
  /* As a client does with regions that were fetched; all else would be written over. */
  void write_ones(ByteRange range) {
    const Guard guard(lock_);
    bytes_.replace(range.offset, range.length, range.length, '1');
  }

  /* Without a lock; an error number is the write's. Set while no read runs. */
  std::function<int(uint64_t offset)> before_write;

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

struct File {
  File(const char* path, MemoryCloud& cloud, TransferEngine& engine, const std::string& content)
      : copy(path, cloud.set(path, content), content.size()), fetches(engine, copy, GRAIN) {}
  CloudCode fetch(const Ranges& ranges, ByteRange ahead = {}, milliseconds time = LONG) {
    return fetches.fetch(ranges, ahead, Clock::now() + time).code;
  }

  LocalCopy copy;
  FileFetches fetches;
};

class FetchTest : public testing::Test {
 protected:
  CloudCode fetch(const Ranges& ranges, ByteRange ahead = {}, milliseconds time = LONG) {
    return file_.fetch(ranges, ahead, time);
  }
  /* On a thread of its own. */
  std::future<CloudCode> fetching(ByteRange range) {
    return std::async(std::launch::async, [this, range] { return fetch({range}); });
  }
  uint64_t reads() const { return cloud_.counts.of(CloudCall::READ); }
  /* Reads are noted by their paths, and wait until they are let through. */
  void close_gate() {
    cloud_.before = [this](CloudCall, const std::string& path) {
      std::unique_lock lock(lock_);
      started_ += path;
      lock.unlock();
      gate_.wait();
      return CloudResult{};
    };
  }
  bool have_started(const std::string& paths) {
    return eventually([&] {
      const std::lock_guard guard(lock_);
      return started_ == paths;
    });
  }

  Gate gate_;
  std::mutex lock_;
  std::string started_; /* guarded by lock_ */
  MemoryCloud cloud_;
  const std::string content_ = pattern(40 * GRAIN + 5);
  TransferEngine engine_{cloud_, NOBODY, 2};
  File file_{"file", cloud_, engine_, content_};
  LocalCopy& copy_ = file_.copy;
};

TEST_F(FetchTest, EqualAndNeighbouringBytesAreReadOnce) {
  close_gate();
  auto first = fetching(grains(0, 1));
  EXPECT_TRUE(eventually([&] { return reads() == 1; }));
  auto same = fetching(grains(0, 1));
  EXPECT_EQ(fetch({}, grains(1, 10)), OK) << "nobody waits for read-ahead";
  auto inside = fetching(grains(2, 1));
  auto behind = fetching(grains(11, 1));
  gate_.post(100);
  EXPECT_THAT((std::vector{first.get(), same.get(), inside.get(), behind.get()}),
              testing::Each(OK));
  ASSERT_TRUE(eventually([&] { return copy_.has(grains(0, 12)); }));
  EXPECT_LE(reads(), 5u) << "for 12 regions and 5 wishes";
}

TEST_F(FetchTest, WhoWaitsForTheFirstBytesDoesNotWaitForTheLast) {
  cloud_.piece = GRAIN;
  std::atomic<bool> goes_on = false;
  copy_.before_write = [&](uint64_t offset) {
    return offset < 2 * GRAIN || eventually([&] { return goes_on.load(); }) ? 0 : OX_EIO;
  };
  EXPECT_EQ(fetch({grains(0, 2)}, grains(2, 39)), OK);
  EXPECT_FALSE(copy_.has(grains(3, 1)));
  EXPECT_EQ(reads(), 1u);
  goes_on = true;
  EXPECT_EQ(fetch({grains(0, 41)}), OK);
  EXPECT_EQ(copy_.bytes(), content_);
}

TEST_F(FetchTest, AFailureReachesThoseWhoWaitedWhenItsReadBegan) {
  cloud_.before = [](CloudCall, const std::string&) { return CloudResult::of(OFFLINE); };
  EXPECT_EQ(fetch({grains(4, 1)}), OFFLINE);
  cloud_.before = nullptr;
  EXPECT_EQ(fetch({grains(4, 1)}), OK) << "a failure is not kept";
  copy_.before_write = [](uint64_t) { return OX_ENOSPC; };
  EXPECT_EQ(fetch({grains(8, 1)}), REFUSED);
  copy_.before_write = nullptr;

  /* The file gets another path while a read of the old one is under way. */
  const uint64_t reads_before = reads();
  close_gate();
  auto before = fetching(grains(12, 1));
  EXPECT_TRUE(eventually([&] { return reads() > reads_before; }));
  copy_.set_source({"moved", cloud_.set("moved", content_)});
  cloud_.set("file", "another content");
  auto after = fetching(grains(12, 1));
  std::this_thread::sleep_for(milliseconds(20));
  gate_.post(100);
  EXPECT_EQ(before.get(), CHANGED);
  EXPECT_EQ(after.get(), OK) << "it never asked for the old path";
}

TEST_F(FetchTest, WhoGivesUpTakesNobodyAlong) {
  std::atomic<bool> hangs = true;
  cloud_.before = [&](CloudCall, const std::string&) {
    EXPECT_TRUE(eventually([&] { return !hangs; }));
    return CloudResult{};
  };
  EXPECT_EQ(fetch({grains(0, 1)}, {}, milliseconds(5)), OFFLINE);
  auto later = fetching(grains(0, 2));
  std::this_thread::sleep_for(milliseconds(20));
  hangs = false;
  EXPECT_EQ(later.get(), OK);
  hangs = true;
  const uint64_t reads_before = reads();
  auto stopped = fetching(grains(12, 1));
  EXPECT_TRUE(eventually([&] { return reads() > reads_before; }));
  std::thread stopping([&] { file_.fetches.stop(); });
  EXPECT_EQ(stopped.get(), CANCELLED) << "at once";
  hangs = false;
  stopping.join();
  EXPECT_FALSE(copy_.has(grains(12, 1)));
  EXPECT_EQ(fetch({grains(12, 1)}), OK);
  engine_.stop();
  EXPECT_EQ(fetch({grains(16, 1)}), CANCELLED);
}

/* One reader of each file at a time, so that the order in which they come is seen. */
TEST_F(FetchTest, WhatSomebodyWaitsForGoesBeforeReadAheadOfWhateverFile) {
  close_gate();
  std::list<File> files;
  const auto want = [&](const char* path, const Ranges& ranges, ByteRange ahead) {
    File& file = files.emplace_back(path, cloud_, engine_, content_);
    return std::async(std::launch::async, [=, &file] { return file.fetch(ranges, ahead); });
  };
  want("a", {}, grains(0, 1)).wait();
  EXPECT_TRUE(have_started("a"));
  want("b", {}, grains(0, 1)).wait();
  const auto fetched = want("c", {grains(0, 1)}, {});
  EXPECT_TRUE(have_started("ac")) << "one place is left for it";
  const auto fetched_next = want("d", {grains(0, 1)}, {});
  std::this_thread::sleep_for(milliseconds(20));
  gate_.post();
  EXPECT_TRUE(have_started("acd"));
  gate_.post(100);
  EXPECT_TRUE(have_started("acdb"));
}

/* Several threads, faults, stops, renames and clients that write what was fetched, by seeds. */
TEST_F(FetchTest, InAnyOrderTheCopyGetsTheContentAndNothingIsWrittenOver) {
  const char* const faults =
      "latency read 0-1; short read 0.1; error read 0.1; changed read 0.02; busy read 0.05 1";
  for (unsigned seed = 1; seed <= 20; seed++) {
    auto memory = std::make_unique<MemoryCloud>();
    memory->piece = 24;
    MemoryCloud& below = *memory;
    const std::string script = "seed " + std::to_string(seed) + ';' + faults;
    const auto cloud = with_faults(std::move(memory), script, &test_counts, 3);
    TransferEngine engine(*cloud, NOBODY, 3);
    File file("file", below, engine, content_);
    const auto client = [&](unsigned number) {
      std::mt19937 random(seed * 100 + number);
      for (int step = 0; step < 60; step++) {
        const ByteRange range = grains(random() % 37, 1 + random() % 4);
        if (file.fetch({range, grains(38, 1)}, grains(random() % 37, random() % 4)) == OK) {
          EXPECT_TRUE(file.copy.has(range));
          file.copy.write_ones(range);
        }
      }
    };
    std::vector<std::future<void>> clients;
    for (unsigned number = 0; number < 3; number++) {
      clients.push_back(std::async(std::launch::async, client, number));
    }
    for (int i = 0; i < 5; i++) {
      std::this_thread::sleep_for(milliseconds(seed % 4));
      file.fetches.stop();
    }
    clients.clear(); /* when they have ended */
    while (file.fetch({{0, content_.size()}}) != OK) {
    }
    const std::string got = file.copy.bytes();
    EXPECT_TRUE(std::equal(got.begin(), got.end(), content_.begin(),
                           [](char is, char was) { return is == '1' || is == was; }));
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
    told = fetched == 0 ? region_end : std::clamp(ahead.tell_until(), region_end, size);
    ahead.told(told);
    asked++;
  }
  void read_from(uint64_t from, uint64_t size) {
    for (uint64_t offset = from; offset < size; offset += MIB / 16) {
      if (offset >= told) {
        read({offset, MIB / 16}, size);
      }
    }
  }
};

TEST(ReadAhead, FollowsReadersInOrderAndLeavesOthersAlone) {
  constexpr uint64_t SIZE = 256 * MIB;
  Reader sequential;
  sequential.read_from(20 * MIB, SIZE);
  EXPECT_EQ(sequential.fetched, SIZE - 21 * MIB - MIB / 16) << "all but what was asked for first";
  EXPECT_LE(sequential.asked, 30) << "instead of 236";

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
  EXPECT_LE(of_a_small_file.fetched, 904u);
}

/* ------------------------------------------------------------------ uploads */

/* Answers each try as it was told, then OK. */
class UploadTest : public testing::Test {
 protected:
  CloudResult upload(uint64_t key, const CloudContext& context) {
    std::unique_lock lock(lock_);
    auto& answers = answers_[key];
    answers.push_back(OK);
    const CloudCode answer = answers.front();
    answers.erase(answers.begin());
    tries_[key].push_back(Clock::now());
    lock.unlock();
    all_tries_++;
    if (answer == CANCELLED) { /* it takes its time until it is told to end */
      context.cancel->wait_until(Clock::now() + LONG);
    }
    return CloudResult::of(answer);
  }
  bool have_been(size_t tries) {
    return eventually([&] { return all_tries_ == tries; });
  }

  std::mutex lock_; /* guards the maps */
  std::map<uint64_t, std::vector<CloudCode>> answers_;
  std::map<uint64_t, std::vector<Clock::time_point>> tries_;
  std::atomic<size_t> all_tries_ = 0;
  UploadQueue queue_{
      [this](uint64_t key, const CloudContext& context) { return upload(key, context); }, NOBODY,
      2};
};

TEST_F(UploadTest, WhatFailsIsTriedAgainWithGrowingPauses) {
  answers_ = {{1, {OFFLINE, NO_SPACE}}, {2, {REFUSED}}};
  for (uint64_t key = 1; key <= 3; key++) {
    queue_.add(key);
  }
  ASSERT_TRUE(have_been(6));
  EXPECT_EQ(tries_[3].size(), 1u);
  EXPECT_GE(tries_[1][1] - tries_[1][0], milliseconds(400));
  EXPECT_GE(tries_[1][2] - tries_[1][1], milliseconds(900));
}

TEST_F(UploadTest, OnesCanBeKickedCancelledAndAddedOnceMore) {
  answers_ = {{1, {OFFLINE}}, {2, {OFFLINE}}, {3, {CANCELLED}}, {4, {CANCELLED}}, {5, {CANCELLED}}};
  queue_.add(1);
  queue_.add(2);
  ASSERT_TRUE(have_been(2));
  queue_.cancel(2);
  ASSERT_TRUE(eventually([&] {
    queue_.kick(); /* its pause may not have begun */
    return all_tries_ == 3;
  }));
  queue_.add(3);
  queue_.add(4);
  ASSERT_TRUE(have_been(5));
  queue_.cancel(3);
  queue_.cancel(4);
  queue_.add(4);
  ASSERT_TRUE(have_been(6)) << "it was added while it ended";
  queue_.add(5);
  ASSERT_TRUE(have_been(7));
  queue_.finish(milliseconds(5));
  EXPECT_TRUE(have_been(7));
  EXPECT_EQ(tries_[2].size() + tries_[3].size() + tries_[5].size(), 3u);
}

}  // namespace
