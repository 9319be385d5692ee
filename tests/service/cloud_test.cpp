/* The cloud that is a directory, and the paths that lead into it. */
#include <gtest/gtest.h>

#include <windows.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "cloud/cloud_address.h"
#include "cloud_player.h"
#include "names/share_path.h"
#include "test_folder.h"

namespace {

using tarnd::CloudCode;
using tarnd::CloudEntry;
namespace fs = std::filesystem;

/* Behind faults of a script in a file, which has none at first. */
class CloudTest : public testing::Test {
 protected:
  CloudTest() {
    fs::create_directory(root_);
    write_file(faults_, "");
    cloud_ = open(address_ + "/a%20cloud", "@" + faults_);
  }
  std::unique_ptr<tarnd::Cloud> open(const std::string& address, const std::string& faults) {
    auto cloud = tarnd::open_cloud(address, {&counts_, faults, {1, {}, {}}}, &error_);
    EXPECT_EQ(cloud == nullptr, !error_.empty()) << error_;
    return cloud;
  }
  CloudCode put(const std::string& path, const std::string& content,
                const std::string& version = "") {
    TextSnapshot snapshot(content);
    return cloud_->put({}, path, {version}, snapshot, &made_).code;
  }
  std::string disk(const std::string& name) const { return (root_ / name).string(); }

  const TestFolder folder_;
  tarnd::CloudCounts counts_;
  const fs::path root_ = folder_.path() / "a cloud";
  const std::string address_ = "fault+file:///" + folder_.path().generic_string();
  const std::string faults_ = folder_ / "faults";
  std::unique_ptr<tarnd::Cloud> cloud_;
  CloudEntry made_; /* by the last put */
  std::string error_;
};

class CloudScript : public CloudTest, public testing::WithParamInterface<ScriptCase> {
 protected:
  static std::string join(const Arguments& a) {
    std::string joined;
    const int err = tarnd::normalise_share_path(a[0], a[1], &joined);
    return err == 0 ? as_word(joined) : error_name(err);
  }
  static std::string allowed(const Arguments& a) {
    const auto count = std::ranges::count(a.words, 0, &tarnd::check_name);
    return std::to_string(count) + " of " + std::to_string(a.words.size());
  }
  /* Why it cannot be opened, without the path of the test's folder. */
  std::string open_error(const Arguments& a) {
    const std::string here = folder_.path().generic_string();
    const bool is_local = a[0].starts_with('/');
    const auto opened = open(is_local ? address_ + a[0] : a[0], a[1]);
    for (size_t at = 0; (at = error_.find(here)) != std::string::npos;) {
      error_.erase(at, here.size());
    }
    return error_;
  }
  /* The number of the item's id in the order of their appearance, of its listing, too. */
  std::string id(const Arguments& a) {
    const auto number_of = [this](const CloudEntry& entry) {
      const std::string id(reinterpret_cast<const char*>(&entry.id), sizeof entry.id);
      const auto place = std::ranges::find(ids_, id);
      return place == ids_.end() ? (ids_.push_back(id), ids_.size()) : place - ids_.begin() + 1;
    };
    CloudEntry item;
    cloud_->status({}, a[0], &item);
    std::string text = std::to_string(number_of(item));
    cloud_->list({}, "", [&](const CloudEntry& entry) {
      const bool same = entry.version == item.version && entry.size == item.size;
      text += entry.name == item.name && same ? " " + std::to_string(number_of(entry)) : "";
      return true;
    });
    return text;
  }
  std::string touch(const Arguments& a) {
    const std::chrono::hours ago(a.option("hours_ago", 0));
    fs::last_write_time(disk(a[0]), fs::file_time_type::clock::now() - ago);
    return "";
  }
  /* In place, as a program does that does not replace files. */
  std::string write(const Arguments& a) {
    std::fstream(disk(a[0]), std::ios::in | std::ios::out | std::ios::binary) << a[1];
    return "";
  }
  /* A running service looks at the time of the file. */
  std::string set_faults(const Arguments& a) {
    const auto time = fs::last_write_time(faults_);
    write_file(faults_, a[0]);
    fs::last_write_time(faults_, time + std::chrono::seconds(1));
    Sleep(2);
    return "";
  }

  std::vector<std::string> ids_;
};

TEST_P(CloudScript, Holds) {
  CloudPlayer player(*cloud_);
  Commands commands = player.commands();
  commands["join"] = join;
  commands["allowed"] = allowed;
  commands["open"] = [this](const Arguments& a) { return open_error(a); };
  commands["id"] = [this](const Arguments& a) { return id(a); };
  commands["touch"] = [this](const Arguments& a) { return touch(a); };
  commands["write"] = [this](const Arguments& a) { return write(a); };
  commands["create"] = [this](const Arguments& a) { return write_file(disk(a[0]), a[1]), ""; };
  commands["on_disk"] = [this](const Arguments& a) {
    return fs::exists(disk(a[0])) ? "yes" : "no";
  };
  commands["faults"] = [this](const Arguments& a) { return set_faults(a); };
  play(GetParam(), commands);
}

INSTANTIATE_TEST_SUITE_P(All, CloudScript, testing::ValuesIn(script_cases("cloud_directory")),
                         case_name);

/* A disk gives the number of a deleted file to a new one, and its clock may stand still. */
TEST_F(CloudTest, NoVersionComesTwice) {
  std::set<std::string> versions;
  ASSERT_EQ(put("file", "0"), CloudCode::OK);
  for (int i = 0; i < 100; i++) {
    EXPECT_TRUE(versions.insert(made_.version).second) << i;
    if (i % 2 == 0) {
      ASSERT_EQ(put("file", "1", made_.version), CloudCode::OK);
    } else {
      ASSERT_TRUE(cloud_->remove({}, "file", made_.version).ok());
      ASSERT_EQ(put("file", "2"), CloudCode::OK);
    }
  }
}

/*
 * Somebody has the file open and shares everything: older systems refuse to replace it until he
 * closes it, and then the put goes through.
 */
TEST_F(CloudTest, AFileThatIsOpenElsewhereIsReplacedOnceItCanBe) {
  ASSERT_EQ(put("file", "old"), CloudCode::OK);
  std::ifstream reader(root_ / "file");
  std::thread closing([&] {
    Sleep(100);
    reader.close();
  });
  EXPECT_EQ(put("file", "new", made_.version), CloudCode::OK);
  closing.join();
  EXPECT_EQ(read_file(root_ / "file"), "new");
}

}  // namespace
