/*
 * What cloud.h promises, of every cloud: one suite, run over each variant. Those behind faults show
 * that the wrapper with the retries keeps the same promises over a cloud that breaks off.
 */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <random>
#include <thread>

#include "cloud_variants.h"
#include "memory_cloud.h"

namespace {

using tarnd::CloudCode;
using tarnd::CloudContext;
using tarnd::CloudEntry;
using tarnd::CloudResult;
using testing::UnorderedElementsAre;

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
  std::string get(const std::string& path, tarnd::ByteRange range, const std::string& version) {
    std::string content;
    const CloudResult result =
        cloud_->read({}, path, version, range, [&](const char* data, size_t size) {
          content.append(data, size);
          return 0;
        });
    return result.ok() ? content : name_of(result.code);
  }
  std::string get(const std::string& path) {
    CloudEntry entry;
    const CloudResult result = cloud_->status({}, path, &entry);
    return result.ok() ? get(path, {0, entry.size}, entry.version) : name_of(result.code);
  }
  CloudCode rename(const std::string& from, const std::string& to,
                   tarnd::RenameConditions conditions = {}) {
    CloudEntry source;
    cloud_->status({}, from, &source);
    conditions.source_modified = source.modified;
    return cloud_->rename({}, from, to, conditions, &made_).code;
  }
  CloudCode remove(const std::string& path, const std::string& version = "") {
    return cloud_->remove({}, path, version).code;
  }
  testing::Matcher<CloudCode> nothing_to_remove() const {
    if (GetParam().loses_answers) {
      return testing::AnyOf(CloudCode::NOT_FOUND, CloudCode::OK);
    }
    return CloudCode::NOT_FOUND;
  }
  int error_of(const CloudResult& result) { return result.error; }
  std::vector<std::string> names(const std::string& path) {
    std::vector<std::string> names;
    EXPECT_TRUE(cloud_
                    ->list({}, path,
                           [&](const CloudEntry& entry) {
                             names.push_back(entry.name);
                             return true;
                           })
                    .ok());
    return names;
  }

  std::shared_ptr<tarnd::Cloud> cloud_ = GetParam().open();
  CloudEntry made_; /* by the last change */
};

TEST_P(CloudContract, AContentIsReplacedOnlyWhereItIsTheOneThatWasNamed) {
  ASSERT_EQ(put("file", "one"), CloudCode::OK);
  const CloudEntry first = made_;
  EXPECT_EQ(first.name, "file");
  EXPECT_EQ(first.size, 3u);
  EXPECT_EQ(get("file", {1, 2}, first.version), "ne");
  EXPECT_EQ(get("file", {3, 0}, first.version), "");
  EXPECT_EQ(put("file", "two"), CloudCode::EXISTS);
  EXPECT_EQ(put("none", "two", first.version), CloudCode::NOT_FOUND);
  EXPECT_EQ(put("no folder/file", "two"), CloudCode::NOT_FOUND);
  ASSERT_EQ(put("file", "two", first.version), CloudCode::OK);
  const CloudEntry second = made_;
  EXPECT_NE(second.version, first.version) << "also with the same size";
  EXPECT_EQ(put("file", "three", first.version), CloudCode::CHANGED);
  EXPECT_EQ(get("file", {0, 3}, first.version), "changed");
  EXPECT_EQ(get("file", {0, 3}, second.version), "two");
  EXPECT_NE(get("file", {2, 2}, second.version).substr(0, 1), "o") << "past its end";
  EXPECT_EQ(get("none", {0, 3}, second.version), "not found");

  ASSERT_EQ(put("file", "", second.version), CloudCode::OK);
  EXPECT_EQ(get("file"), "");
  EXPECT_THAT(names(""), UnorderedElementsAre("file"));
}

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
  EXPECT_EQ(get("file"), content);
  EXPECT_EQ(patch("file", first, bytes, {{0, 1}}), CloudCode::CHANGED);
  const std::string second = made_.version;
  const bool cuts = GetParam().patches == CloudVariant::ALL;
  ASSERT_EQ(patch("file", second, "xy", {{0, 1}}), cuts ? CloudCode::OK : CloudCode::REFUSED);
  EXPECT_EQ(get("file"), cuts ? "xa" : content);
}

TEST_P(CloudContract, RenamesAndDeletesWhatWasMeantAndReplacesNothingElse) {
  ASSERT_EQ(put("a", "A"), CloudCode::OK);
  const std::string a = made_.version;
  ASSERT_EQ(put("b", "B"), CloudCode::OK);
  const std::string b = made_.version;
  ASSERT_TRUE(cloud_->make_folder({}, "f", &made_).ok());
  EXPECT_TRUE(made_.folder);
  ASSERT_EQ(put("f/inside", "I"), CloudCode::OK);
  EXPECT_EQ(cloud_->make_folder({}, "a", &made_).code, CloudCode::EXISTS);
  EXPECT_EQ(put("f", "x"), CloudCode::EXISTS);
  EXPECT_EQ(cloud_->make_folder({}, "none/f", &made_).code, CloudCode::NOT_FOUND);
  EXPECT_NE(put("a/x", "x"), CloudCode::OK) << "a file is no folder";

  EXPECT_EQ(rename("a", "b"), CloudCode::EXISTS);
  EXPECT_EQ(rename("a", "f"), CloudCode::EXISTS);
  EXPECT_EQ(rename("a", "c", {.source_version = b}), CloudCode::CHANGED);
  EXPECT_EQ(rename("a", "b", {.target_version = a}), CloudCode::CHANGED);
  EXPECT_EQ(rename("a", "none/c"), CloudCode::NOT_FOUND);
  EXPECT_EQ(rename("none", "c"), CloudCode::NOT_FOUND);
  EXPECT_EQ(error_of(cloud_->rename({}, "f", "f/g", {}, &made_)), OX_EINVAL);
  EXPECT_EQ(get("a") + get("b") + get("f/inside"), "ABI");
  ASSERT_EQ(rename("a", "b", {a, b}), CloudCode::OK);
  EXPECT_EQ(made_.path, "b");
  EXPECT_EQ(get("b", {0, 1}, made_.version), "A") << "the version that the rename told";
  ASSERT_EQ(rename("f", "g"), CloudCode::OK);
  EXPECT_EQ(get("g/inside"), "I");
  EXPECT_THAT(names(""), UnorderedElementsAre("b", "g"));

  EXPECT_EQ(error_of(cloud_->remove({}, "g", "")), OX_ENOTEMPTY);
  EXPECT_EQ(remove("b", b), CloudCode::CHANGED);
  EXPECT_EQ(remove("b"), CloudCode::OK);
  EXPECT_EQ(remove("g/inside"), CloudCode::OK);
  EXPECT_EQ(remove("g"), CloudCode::OK);
  EXPECT_THAT(remove("g"), nothing_to_remove());
  EXPECT_FALSE(cloud_->remove({}, "", "").ok());
  EXPECT_THAT(names(""), UnorderedElementsAre());
}

TEST_P(CloudContract, AListingStreamsAndStopsWhenTold) {
  std::vector<std::string> made;
  for (int i = 0; i < 40; i++) {
    made.push_back("n" + std::to_string(i));
    ASSERT_EQ(put(made.back(), "x"), CloudCode::OK);
  }
  EXPECT_THAT(names(""), testing::UnorderedElementsAreArray(made));
  int seen = 0;
  EXPECT_TRUE(cloud_->list({}, "", [&](const CloudEntry&) { return ++seen < 3; }).ok());
  EXPECT_EQ(seen, 3);
  const auto none = [](const CloudEntry&) { return true; };
  EXPECT_EQ(error_of(cloud_->list({}, "n1", none)), OX_ENOTDIR);
  EXPECT_EQ(cloud_->list({}, "none", none).code, CloudCode::NOT_FOUND);
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
    EXPECT_EQ(get(path), contents[1]);
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
      mixtures += seen.size() == 5000 && seen.find_first_not_of(seen[0]) != std::string::npos;
    }
  });
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(won, 2);
  EXPECT_EQ(mixtures, 0);
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
  EXPECT_EQ(error_of(cloud_->read({}, "file", version, {0, 3}, full)), OX_ENOSPC);

  tarnd::CancelFlag cancel;
  cancel.raise();
  TextSnapshot fresh("new");
  EXPECT_EQ(cloud_->put({.cancel = &cancel}, "file", {version}, fresh, &made_).code,
            CloudCode::CANCELLED);
  const CloudContext late = {.deadline = std::chrono::steady_clock::now()};
  EXPECT_EQ(cloud_->remove(late, "file", "").code, CloudCode::OFFLINE);
  EXPECT_EQ(get("file"), "old");
  EXPECT_THAT(names(""), UnorderedElementsAre("file")) << "nothing is left beside it";
}

/* One client alone: after each call the cloud is what plain memory says. */
TEST_P(CloudContract, AgreesWithPlainMemory) {
  std::mt19937 random(7);
  std::map<std::string, std::string> model;
  std::map<std::string, std::string> versions;
  const auto any = [&] { return std::string(1, static_cast<char>('a' + random() % 4)); };
  for (int step = 0; step < GetParam().model_steps; step++) {
    const std::string path = any();
    const std::string other = any();
    const std::string content = path + std::to_string(step);
    const bool there = model.contains(path);
    CloudCode expected = there ? CloudCode::OK : CloudCode::NOT_FOUND;
    switch (random() % 4) {
      case 0:
        ASSERT_EQ(put(path, content), there ? CloudCode::EXISTS : CloudCode::OK) << step;
        if (!there) {
          model[path] = content;
          versions[path] = made_.version;
        }
        break;
      case 1:
        ASSERT_EQ(put(path, content, there ? versions[path] : "v"), expected) << step;
        if (there) {
          model[path] = content;
          versions[path] = made_.version;
        }
        break;
      case 2:
        if (there && other != path && model.contains(other)) {
          expected = CloudCode::EXISTS;
        }
        ASSERT_EQ(rename(path, other), expected) << step;
        if (expected == CloudCode::OK && path != other) {
          model[other] = std::exchange(model[path], "");
          versions[other] = made_.version;
          model.erase(path);
        }
        break;
      default:
        if (there) {
          ASSERT_EQ(remove(path, versions[path]), CloudCode::OK) << step;
        } else {
          ASSERT_THAT(remove(path), nothing_to_remove()) << step;
        }
        model.erase(path);
    }
    ASSERT_EQ(get(path), model.contains(path) ? model[path] : "not found") << step;
  }
}

INSTANTIATE_TEST_SUITE_P(All, CloudContract, testing::ValuesIn(cloud_variants()),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
