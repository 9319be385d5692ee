/*
 * What cloud.h promises, of every cloud: one suite, run over each variant. Those behind faults show
 * that the wrapper with the retries keeps the same promises over a cloud that breaks off.
 */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "cloud_player.h"
#include "cloud_variants.h"
#include "cloud_walk.h"

namespace {

using tarnd::CloudCode;
using tarnd::CloudContext;
using tarnd::CloudEntry;
using tarnd::CloudResult;

constexpr uint64_t MIB = uint64_t{1} << 20;

class CloudContract : public testing::TestWithParam<CloudVariant> {
 protected:
  CloudCode put(const std::string& path, const std::string& content,
                const std::string& version = "") {
    TextSnapshot snapshot(content);
    return cloud_->put({}, path, {version}, snapshot, &made_).code;
  }
  CloudCode patch(const std::string& path, const std::string& version, const std::string& content,
                  std::vector<tarnd::ByteRange> changed) {
    TextSnapshot snapshot(content, std::move(changed));
    return cloud_->patch({}, path, {version}, snapshot, &made_).code;
  }
  /* As scripts show it: the content in quotes, or why there is none. */
  std::string get(const std::string& path) {
    return CloudPlayer(*cloud_).commands().at("get")({{path}, {}});
  }
  std::string list() { return CloudPlayer(*cloud_).commands().at("list")({{""}, {}}); }

  std::shared_ptr<tarnd::Cloud> cloud_ = GetParam().open();
  CloudEntry made_; /* by the last change */
};

TEST_P(CloudContract, APatchIsTheOldContentWithTheChangedBytes) {
  std::string content(3 * MIB + 5, 'a');
  ASSERT_EQ(put("file", content), CloudCode::OK);
  ASSERT_EQ(cloud_->capabilities().patch, GetParam().patches != CloudVariant::NONE);
  if (GetParam().patches == CloudVariant::NONE) {
    EXPECT_EQ(patch("file", made_.version, "xy", {{0, 1}}), CloudCode::REFUSED);
    return;
  }
  const std::string first = made_.version;
  /* Only what changed may be read from the snapshot. */
  const std::string bytes = std::string(MIB, '?') + "bc" + std::string(2 * MIB + 3, '?') + "de";
  ASSERT_EQ(patch("file", first, bytes, {{MIB, 2}, {3 * MIB + 5, 2}}), CloudCode::OK);
  content.replace(MIB, 2, "bc");
  content += "de";
  EXPECT_EQ(get("file"), as_word(content));
  EXPECT_EQ(patch("file", first, bytes, {{0, 1}}), CloudCode::CHANGED);
  const std::string second = made_.version;
  const bool cuts = GetParam().patches == CloudVariant::ALL;
  ASSERT_EQ(patch("file", second, "xy", {{0, 1}}), cuts ? CloudCode::OK : CloudCode::REFUSED);
  EXPECT_EQ(get("file"), as_word(cuts ? "xa" : content));
}

TEST_P(CloudContract, AListingStopsWhenTold) {
  for (int i = 0; i < 40; i++) {
    ASSERT_EQ(put("n" + std::to_string(i), "x"), CloudCode::OK);
  }
  EXPECT_EQ(std::ranges::count(list(), ','), 39);
  int seen = 0;
  EXPECT_TRUE(cloud_->list({}, "", [&](const CloudEntry&) { return ++seen < 3; }).ok());
  EXPECT_EQ(seen, 3);
}

/* Another client replaces the file between two pieces of one read. */
TEST_P(CloudContract, AReadNeverMixesTwoContents) {
  const std::string contents[] = {std::string(3 * MIB, 'a'), std::string(3 * MIB, 'b')};
  for (int at = 0; at < 3; at++) {
    const std::string path = "file" + std::to_string(at);
    ASSERT_EQ(put(path, contents[0]), CloudCode::OK);
    const std::string version = made_.version;
    std::string seen;
    const CloudResult result =
        cloud_->read({}, path, version, {0, 3 * MIB}, [&](const char* data, size_t size) {
          if (seen.size() <= at * MIB && seen.size() + size > at * MIB) {
            EXPECT_EQ(put(path, contents[1], version), CloudCode::OK);
          }
          seen.append(data, size);
          return 0;
        });
    EXPECT_EQ(contents[0].substr(0, seen.size()), seen);
    EXPECT_EQ(result.code, seen.size() < 3 * MIB ? CloudCode::CHANGED : CloudCode::OK);
    EXPECT_EQ(get(path), as_word(contents[1]));
  }
}

TEST_P(CloudContract, OfRacingChangesOneWinsAndReadersSeeWholeContents) {
  ASSERT_EQ(put("file", std::string(5000, 'a')), CloudCode::OK);
  const std::string version = made_.version;
  std::atomic<int> won = 0;
  std::atomic<int> mixtures = 0;
  std::vector<std::thread> threads;
  for (char letter = 'b'; letter < 'f'; letter++) {
    threads.emplace_back([&, letter] {
      TextSnapshot snapshot(std::string(5000, letter));
      CloudEntry made;
      won += cloud_->put({}, "file", {version}, snapshot, &made).ok() ? 1 : 0;
      won += cloud_->put({}, "new", {}, snapshot, &made).ok() ? 1 : 0;
    });
  }
  threads.emplace_back([&] {
    for (int i = 0; i < 20; i++) {
      const std::string seen = get("file");
      mixtures += seen.starts_with('"') && !seen.ends_with("\"*5000") ? 1 : 0;
    }
  });
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(won, 2);
  EXPECT_EQ(mixtures, 0);
}

/* No two pieces of it are the same. */
TEST_P(CloudContract, ALargeContentArrivesWholeOrNotAtAll) {
  std::string content;
  for (int number = 0; content.size() < 9 * MIB; number++) {
    content += std::to_string(number) + ' ';
  }
  ASSERT_EQ(put("file", content), CloudCode::OK);
  TextSnapshot broken(std::string(content.rbegin(), content.rend()));
  broken.error = OX_ENOSPC;
  broken.fails_behind = 5 * MIB;
  const CloudResult failed = cloud_->put({}, "file", {made_.version}, broken, &made_);
  EXPECT_EQ(failed.error, OX_ENOSPC);
  std::string seen;
  const auto see = [&](const char* data, size_t size) {
    seen.append(data, size);
    return 0;
  };
  EXPECT_TRUE(cloud_->read({}, "file", made_.version, {0, content.size()}, see).ok());
  EXPECT_TRUE(seen == content);
  EXPECT_EQ(list(), "file " + std::to_string(content.size())) << "nothing else is left";
}

TEST_P(CloudContract, CallsThatEndEarlyLeaveThingsAsTheyWere) {
  ASSERT_EQ(put("file", "old"), CloudCode::OK);
  const std::string version = made_.version;
  TextSnapshot broken("new");
  broken.error = OX_ENOSPC;
  const CloudResult failed = cloud_->put({}, "file", {version}, broken, &made_);
  EXPECT_EQ(failed.code, CloudCode::REFUSED);
  EXPECT_EQ(failed.error, OX_ENOSPC);
  const auto full = [](const char*, size_t) { return OX_ENOSPC; };
  EXPECT_EQ(cloud_->read({}, "file", version, {0, 3}, full).error, OX_ENOSPC);

  tarnd::CancelFlag cancel;
  cancel.raise();
  TextSnapshot fresh("new");
  EXPECT_EQ(cloud_->put({.cancel = &cancel}, "file", {version}, fresh, &made_).code,
            CloudCode::CANCELLED);
  const CloudContext late = {.deadline = std::chrono::steady_clock::now()};
  EXPECT_EQ(cloud_->remove(late, "file", "").code, CloudCode::OFFLINE);
  EXPECT_EQ(get("file"), "\"old\"");
  EXPECT_EQ(list(), "file 3") << "nothing else is left";
}

TEST_P(CloudContract, AgreesWithPlainMemory) {
  CloudWalk walk(*cloud_, {"a1", "b2", "c", "c/a1", "c/d"});
  walk.loses_answers = GetParam().loses_answers;
  walk.walk(GetParam().model_steps);
}

INSTANTIATE_TEST_SUITE_P(All, CloudContract, testing::ValuesIn(cloud_variants()),
                         [](const auto& info) { return std::string(info.param.name); });

class CloudContractScript : public testing::TestWithParam<std::tuple<CloudVariant, ScriptCase>> {};

TEST_P(CloudContractScript, Holds) {
  const auto& [variant, script_case] = GetParam();
  const auto cloud = variant.open();
  CloudPlayer player(*cloud);
  Commands commands = player.commands();
  /* Where answers get lost, a delete of what was never there may be told to have worked. */
  commands["remove_none"] = [&, remove = commands["remove"]](const Arguments& arguments) {
    const std::string answer = remove(arguments);
    return variant.loses_answers && answer.empty() ? "not found" : answer;
  };
  play(script_case, commands);
}

INSTANTIATE_TEST_SUITE_P(All, CloudContractScript,
                         testing::Combine(testing::ValuesIn(cloud_variants()),
                                          testing::ValuesIn(script_cases("cloud_contract"))),
                         [](const auto& info) {
                           return std::get<0>(info.param).name +
                                  identifier_of(std::get<1>(info.param));
                         });

}  // namespace
