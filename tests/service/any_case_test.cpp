/* Names in any case over a cloud that tells cases apart: it answers like one that does not. */
#include <gtest/gtest.h>

#include <random>
#include <set>

#include "memory_cloud.h"
#include "names/any_case_cloud.h"
#include "names/folded_path.h"
#include "names/name_caching_cloud.h"

namespace {

using namespace tarnd;

std::string lower(const std::string& path) {
  std::string folded = path;
  std::transform(path.begin(), path.end(), folded.begin(), [](char c) { return tolower(c); });
  return folded;
}

std::string any_case(const std::string& path, std::mt19937& random) {
  std::string out = path;
  std::transform(path.begin(), path.end(), out.begin(),
                 [&](char c) { return random() % 2 == 0 ? toupper(c) : c; });
  return out;
}

class AnyCase : public testing::Test {
 protected:
  bool has_folder(const std::string& path) const {
    return path.empty() || (model_.contains(path) && path == FOLDER);
  }
  /* As the service does: after a look, by the path that the folder told. */
  void make(const std::string& path, const std::string& asked) {
    CloudEntry folder;
    CloudEntry made;
    if (model_.contains(path) ||
        !cloud_.status({}, any_case(parent_path(path), random_), &folder).ok()) {
      return;
    }
    TextSnapshot content("x");
    const std::string own = join_path(folder.path, asked.substr(asked.rfind('/') + 1));
    ASSERT_TRUE(path == FOLDER ? cloud_.make_folder({}, asked, &made).ok()
                               : cloud_.put({}, own, {}, content, &made).ok());
    model_.insert(path);
  }
  void rename(const std::string& path, const std::string& asked, const std::string& to) {
    CloudEntry made;
    const bool may = model_.contains(path) && has_folder(parent_path(to)) &&
                     (path == to || !model_.contains(to));
    ASSERT_EQ(cloud_.rename({}, asked, any_case(to, random_), {}, &made).ok(), may);
    if (may) {
      model_.erase(path);
      model_.insert(to);
    }
  }
  void list(const std::string& folder) {
    std::multiset<std::string> seen;
    const CloudResult listed =
        cloud_.list({}, any_case(folder, random_), [&](const CloudEntry& entry) {
          seen.insert(lower(entry.path));
          return true;
        });
    std::multiset<std::string> expected = model_;
    std::erase_if(expected, [&](const std::string& item) { return parent_path(item) != folder; });
    ASSERT_EQ(listed.ok(), has_folder(folder));
    ASSERT_EQ(seen, expected);
  }

  static inline const std::string FOLDER = "dir";
  std::mt19937 random_{3};
  AnyCaseCloud cloud_{std::make_unique<NameCachingCloud>(std::make_unique<MemoryCloud>(),
                                                         std::chrono::hours(1), lower),
                      lower};
  std::multiset<std::string> model_; /* what is there, in lower case */
};

}  // namespace

TEST_F(AnyCase, AnswersLikeACloudThatTakesAllCasesForOne) {
  const std::vector<std::string> paths = {"a", "b", FOLDER, "dir/a", "dir/b"};
  for (int step = 0; step < 5000; step++) {
    const std::string path = paths[random_() % paths.size()];
    const std::string asked = any_case(path, random_);
    SCOPED_TRACE(asked + " at step " + std::to_string(step));
    CloudEntry entry;
    ASSERT_EQ(cloud_.status({}, asked, &entry).ok(), model_.contains(path));
    ASSERT_EQ(lower(entry.path), model_.contains(path) ? path : "");
    switch (random_() % 4) {
      case 0:
        make(path, asked);
        break;
      case 1:
        if (path != FOLDER) {
          ASSERT_EQ(cloud_.remove({}, asked, "").ok(), model_.erase(path) == 1);
        }
        break;
      case 2:
        if (path != FOLDER) {
          rename(path, asked, paths[random_() % 2 + (random_() % 2) * 3]);
        }
        break;
      default:
        list(parent_path(path));
    }
    if (HasFatalFailure()) {
      return;
    }
  }
}
