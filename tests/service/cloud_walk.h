/* Random calls on a cloud and on plain memory, which are to answer alike. */
#ifndef CLOUD_WALK_H
#define CLOUD_WALK_H

#include <gtest/gtest.h>

#include <random>
#include <set>

#include "memory_cloud.h"
#include "names/folded_path.h"

inline std::string lower(const std::string& path) {
  std::string folded = path;
  std::transform(path.begin(), path.end(), folded.begin(), [](char c) { return tolower(c); });
  return folded;
}

/* One client alone, as the service is one: it looks at a name before it changes what is there. */
class CloudWalk {
 public:
  using Spelling = std::function<std::string(const std::string& path, std::mt19937& random)>;

  /* Paths without a digit become folders. `spelling` gives the path that the cloud is asked by; its
   * answers may have any case then. */
  CloudWalk(tarnd::Cloud& cloud, std::vector<std::string> paths, Spelling spelling = {})
      : cloud_(cloud), paths_(std::move(paths)), spelling_(std::move(spelling)) {}

  unsigned looks = 2;         /* one of so many calls is a change */
  bool loses_answers = false; /* a delete of what is not there may be told to have worked */

  void walk(int steps) {
    for (step_ = 0; step_ < steps && !testing::Test::HasFailure(); step_++) {
      const auto kind = random_() % looks == 0 ? random_() % LIST : LIST + random_() % 2;
      const std::string path = any();
      const std::string to = any();
      const std::string asked = spelled(path);
      const std::string answer = call(cloud_, kind, asked, spelled(to));
      const std::string expected = call(model_, kind, path, to);
      const bool is_lost = loses_answers && kind == REMOVE && expected == "not found";
      const bool both_fail = !answer.starts_with("ok") && !expected.starts_with("ok");
      EXPECT_TRUE(answer == expected || (is_lost && answer == "ok") ||
                  (spelling_ && kind == RENAME && both_fail))
          << answer << "\ninstead of\n"
          << expected << "\nto call " << kind << " of " << asked << " and " << to << " at step "
          << step_;
    }
  }

 private:
  using Entry = tarnd::CloudEntry;
  using Result = tarnd::CloudResult;
  enum Call { CHANGE, REMOVE, RENAME, LIST, LOOK };

  std::string any() { return paths_[random_() % paths_.size()]; }
  std::string spelled(const std::string& path) {
    return spelling_ ? spelling_(path, random_) : path;
  }
  std::string folded(const std::string& path) const { return spelling_ ? lower(path) : path; }
  static std::string text(const Result& result, const std::string& more = "") {
    return name_of(result.code) + (result.ok() ? more : "");
  }

  std::string call(tarnd::Cloud& cloud, uint64_t kind, const std::string& path,
                   const std::string& to) {
    Entry found, made;
    const Result look = cloud.status({.may_be_old = kind == LOOK}, path, &found);
    switch (kind) {
      case CHANGE:
        return change(cloud, path, found);
      case REMOVE:
        return text(cloud.remove({}, path, found.version));
      case RENAME:
        return text(look.ok()
                        ? cloud.rename({}, path, to, {found.version, "", found.modified}, &made)
                        : look);
      case LIST:
        return list(cloud, tarnd::parent_path(path));
      default:
        return text(look, ' ' + folded(found.path) + ' ' + content(cloud, found));
    }
  }
  /* Where nothing is, by the path that the folder has told. */
  std::string change(tarnd::Cloud& cloud, const std::string& path, const Entry& found) {
    Entry folder, made;
    const Result above = cloud.status({}, tarnd::parent_path(path), &folder);
    if (!above.ok() || found.folder) {
      return text(above, " has the folder");
    }
    const std::string name = path.substr(path.rfind('/') + 1);
    const std::string own = found.path.empty() ? tarnd::join_path(folder.path, name) : found.path;
    TextSnapshot content(folded(path) + std::to_string(step_));
    const bool is_file = path.find_first_of("0123456789") != std::string::npos;
    return text(is_file ? cloud.put({}, own, {found.version}, content, &made)
                        : cloud.make_folder({}, own, &made),
                ' ' + folded(made.path));
  }
  std::string list(tarnd::Cloud& cloud, const std::string& path) const {
    std::multiset<std::string> names;
    const Result result = cloud.list({.may_be_old = true}, path, [&](const Entry& entry) {
      return names.insert(folded(entry.path)), true;
    });
    return text(result, testing::PrintToString(names));
  }
  static std::string content(tarnd::Cloud& cloud, const Entry& found) {
    std::string content;
    const auto append = [&](const char* data, size_t size) {
      content.append(data, size);
      return 0;
    };
    const bool is_file = !found.folder && !found.path.empty();
    return is_file
               ? text(cloud.read({}, found.path, found.version, {0, found.size}, append), content)
               : "";
  }

  tarnd::Cloud& cloud_;
  MemoryCloud model_;
  const std::vector<std::string> paths_;
  const Spelling spelling_;
  std::mt19937 random_{3};
  int step_ = 0;
};

#endif
