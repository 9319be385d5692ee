/* What is remembered of a cloud's names: never what a change of ours has made wrong. */
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <set>
#include <thread>

#include "eventually.h"
#include "memory_cloud.h"
#include "names/folded_path.h"
#include "names/name_caching_cloud.h"

namespace {

using namespace tarnd;
using std::chrono::milliseconds;

std::string lower(const std::string& path) {
  std::string folded = path;
  std::transform(path.begin(), path.end(), folded.begin(), [](char c) { return tolower(c); });
  return folded;
}

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
  void put(const std::string& path) {
    CloudEntry made;
    TextSnapshot content("x");
    if (names_.status({}, path, &made).code == CloudCode::NOT_FOUND) {
      made.version.clear();
    }
    names_.put({}, path, {made.version, false}, content, &made);
  }

  static inline const CloudContext OLD = {.may_be_old = true};
  MemoryCloud* memory_ = new MemoryCloud;
  NameCachingCloud names_{std::unique_ptr<Cloud>(memory_), FRESH, lower};
};

/* Names that differ in case only are two items here, and one key of the cache. */
TEST_F(NamesTest, AfterAnyChangesOfOursTheAnswersAreThoseOfTheCloud) {
  const char* const paths[] = {"a", "A", "b", "a/x", "a/X", "b/x", "a/b", "a/b/x", "c0", "A/x"};
  std::mt19937 random(1);
  const auto any = [&] { return std::string(paths[random() % std::size(paths)]); };
  uint64_t compared = 0;
  const uint64_t before = asked();
  for (int step = 0; step < 20000; step++) {
    const std::string path = any();
    CloudEntry made;
    switch (random() % 60) {
      case 0:
        put(path);
        break;
      case 1:
        names_.remove({}, path, "");
        break;
      case 2:
        names_.rename({}, path, any(), {}, &made);
        break;
      case 3:
        names_.make_folder({}, path, &made);
        break;
      case 4:
        names_.status({}, path, &made);
        break;
      default:
        compared++;
        ASSERT_EQ(status(names_, path), status(*memory_, path)) << path << " at step " << step;
        ASSERT_EQ(list(names_, parent_path(path)), list(*memory_, parent_path(path))) << step;
    }
  }
  EXPECT_LT(asked() - before - 2 * compared, compared) << "most answers come from the cache";
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
