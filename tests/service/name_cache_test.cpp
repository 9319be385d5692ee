/* What is remembered of a cloud's names: never what a change of ours has made wrong. */
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>

#include "cloud_walk.h"
#include "eventually.h"
#include "names/name_caching_cloud.h"

namespace {

using namespace tarnd;
using std::chrono::milliseconds;

class NamesTest : public testing::Test {
 protected:
  static constexpr milliseconds FRESH{300};
  static std::string text(const CloudResult& result, const CloudEntry& entry) {
    return std::string(name_of(result.code)) + (result.ok() ? entry.path + entry.version : "");
  }
  static std::string status(Cloud& cloud, const std::string& path) {
    CloudEntry entry;
    return text(cloud.status(OLD, path, &entry), entry);
  }
  static std::string list(Cloud& cloud, const std::string& path) {
    std::set<std::string> names;
    const CloudResult result = cloud.list(OLD, path, [&](const CloudEntry& entry) {
      return names.insert(entry.name + entry.version).second;
    });
    return testing::PrintToString(names) + name_of(result.code);
  }
  uint64_t asked() const { return memory_->counts.all(); }
  static inline const CloudContext OLD = {.may_be_old = true};
  MemoryCloud* memory_ = new MemoryCloud;
  NameCachingCloud names_{std::unique_ptr<Cloud>(memory_), FRESH, lower};
};

/* Names that differ in case only are two items here, and one key of the cache. */
TEST_F(NamesTest, AfterAnyChangesOfOursTheAnswersAreThoseOfTheCloud) {
  constexpr int STEPS = 20000;
  CloudWalk walk(names_, {"a", "A", "b", "a/x1", "a/X1", "b/x1", "a/b", "a/b/x1", "c0", "A/x1"});
  walk.looks = 12;
  walk.walk(STEPS);
  const CloudCounts& counts = memory_->counts;
  EXPECT_LT(counts.of(CloudCall::LIST), STEPS / 4) << "most answers come from the cache";
}

TEST_F(NamesTest, WhatOthersChangeIsSeenWhenTheTimeIsOverOrAtOnceByWhoAsksForIt) {
  EXPECT_EQ(status(names_, "file"), "not found");
  EXPECT_EQ(list(names_, ""), "{}ok");
  const uint64_t asked_before = asked();
  const std::string version = memory_->set("file", "from elsewhere");
  EXPECT_EQ(status(names_, "file"), "not found");
  EXPECT_EQ(status(names_, "other"), "not found") << "the listing does not have it";
  EXPECT_EQ(list(names_, ""), "{}ok");
  EXPECT_EQ(asked(), asked_before);
  CloudEntry entry;
  EXPECT_TRUE(names_.status({}, "file", &entry).ok());
  EXPECT_EQ(status(names_, "file"), "okfile" + version) << "the answer is remembered";
  EXPECT_TRUE(eventually([&] { return list(names_, "") == list(*memory_, ""); }));
}

/* What the cloud says to a question from before our change is an old answer. */
TEST_F(NamesTest, AnAnswerThatAChangeOvertookIsNotRemembered) {
  std::atomic<int> answers = 0;
  std::atomic<bool> held = true;
  memory_->before = [&](CloudCall call, const std::string&) {
    const bool look = call == CloudCall::STATUS || call == CloudCall::LIST;
    if (look && held && answers++ < 2) {
      EXPECT_TRUE(eventually([&] { return !held; }));
    }
    return CloudResult{};
  };
  std::thread statuses([&] { status(names_, "file"); });
  std::thread listings([&] { list(names_, ""); });
  EXPECT_TRUE(eventually([&] { return answers == 2; }));
  CloudEntry made;
  TextSnapshot content("x");
  EXPECT_TRUE(names_.put({}, "file", {}, content, &made).ok());
  held = false;
  statuses.join();
  listings.join();
  const uint64_t asked_before = asked();
  status(names_, "file");
  list(names_, "");
  EXPECT_EQ(asked(), asked_before + 2);
}

}  // namespace
