/* The cloud that is a directory, and the paths that lead into it. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include <windows.h>

#include "cloud/cloud_address.h"
#include "memory_cloud.h"
#include "names/share_path.h"
#include "test_folder.h"

namespace {

using tarnd::CloudCode;
using tarnd::CloudEntry;
using testing::HasSubstr;
using testing::UnorderedElementsAre;
namespace fs = std::filesystem;

TEST(SharePath, JoinsButNeverClimbsOutOfTheShare) {
  struct {
    std::string share, path;
    int error;
    std::string joined;
  } const cases[] = {
      {"/", "\\", 0, ""},
      {"/team/docs/", "\\a\\b/c", 0, "team/docs/a/b/c"},
      {"team", "//a/./b/../c\\", 0, "team/a/c"},
      {"", "Grüße/日本語/🚀 x.txt", 0, "Grüße/日本語/🚀 x.txt"},
      {"", ".profile/a..b/con.c/nullable", 0, ".profile/a..b/con.c/nullable"},
      {"team", "..", OX_EPERM, ""},
      {"team", "a/../../x", OX_EPERM, ""},
      {"team", "\\..\\team2", OX_EPERM, ""},
      {"team", "./..", OX_EPERM, ""},
      {"..", "x", OX_EPERM, ""},
  };
  for (const auto& c : cases) {
    std::string joined;
    EXPECT_EQ(tarnd::normalise_share_path(c.share, c.path, &joined), c.error) << c.path;
    EXPECT_EQ(c.error == 0 ? joined : "", c.joined);
  }
}

TEST(SharePath, RefusesNamesThatReachOtherFilesOnWindows) {
  using namespace std::string_view_literals;
  for (const std::string_view name :
       {"a:b"sv,      "C:\\x"sv,        "a*"sv,        "a?"sv,        "a\""sv,    "<a"sv,
        "a>"sv,       "a|b"sv,          "a\tb"sv,      "a\x1f"sv,     "a."sv,     "a "sv,
        "..."sv,      "NUL"sv,          "Com1"sv,      "lpt\u00b2"sv, "CONIN$"sv, "\xff"sv,
        "\xc0\xaf"sv, "\xed\xa0\x80"sv, "a\xe2\x82"sv, "a\0b"sv}) {
    EXPECT_EQ(tarnd::check_name(name), OX_EINVAL) << name;
  }
  std::string joined;
  EXPECT_EQ(tarnd::normalise_share_path("", "x/con", &joined), OX_EINVAL);
  EXPECT_EQ(tarnd::check_name(std::string(244, 'n')), 0);
  EXPECT_EQ(tarnd::check_name(std::string(245, 'n')), OX_EINVAL);
}

class CloudTest : public testing::Test {
 protected:
  void SetUp() override {
    fs::create_directory(root_);
    std::string error;
    cloud_ = tarnd::open_cloud(address_, {&counts_}, &error);
    ASSERT_NE(cloud_, nullptr) << error;
  }
  CloudCode put(const std::string& path, const std::string& content,
                const std::string& version = "") {
    TextSnapshot snapshot(content);
    return cloud_->put({}, path, {version}, snapshot, &made_).code;
  }
  std::string get(const CloudEntry& entry) {
    std::string content;
    const auto result = cloud_->read({}, entry.path, entry.version, {0, entry.size},
                                     [&](const char* data, size_t size) {
                                       content.append(data, size);
                                       return 0;
                                     });
    return result.ok() ? content : name_of(result.code);
  }
  CloudEntry status(const std::string& path) {
    CloudEntry entry;
    EXPECT_TRUE(cloud_->status({}, path, &entry).ok()) << path;
    return entry;
  }
  CloudCode status_code(const std::string& path) {
    CloudEntry entry;
    return cloud_->status({}, path, &entry).code;
  }
  std::vector<CloudEntry> listed(const std::string& path) {
    std::vector<CloudEntry> entries;
    EXPECT_TRUE(cloud_
                    ->list({}, path,
                           [&](const CloudEntry& entry) {
                             entries.push_back(entry);
                             return true;
                           })
                    .ok());
    return entries;
  }
  std::vector<std::string> names(const std::string& path) {
    std::vector<std::string> names;
    for (const CloudEntry& entry : listed(path)) {
      names.push_back(entry.name);
    }
    return names;
  }

  TestFolder folder_;
  tarnd::CloudCounts counts_;
  const fs::path root_ = folder_.path() / "a cloud";
  const std::string address_ = "file:///" + folder_.path().generic_string() + "/a%20cloud";
  std::unique_ptr<tarnd::Cloud> cloud_;
  CloudEntry made_; /* by the last put */
};

bool same_id(const cfs_id_t& a, const cfs_id_t& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

TEST_F(CloudTest, AddressesThatAreWrongSaySo) {
  const auto error = [this](const std::string& address, const std::string& faults = "") {
    std::string text;
    EXPECT_EQ(tarnd::open_cloud(address, {&counts_, faults}, &text), nullptr) << address;
    EXPECT_THAT(text, HasSubstr(address));
    return text;
  };
  EXPECT_THAT(error("ftp://example.com"), HasSubstr("it begins with none of"));
  EXPECT_THAT(error("file:///tmp/x"), HasSubstr("drive letter"));
  EXPECT_THAT(error("file:///C:/a%2"), HasSubstr("hexadecimal"));
  EXPECT_THAT(error("file:///C:/%ff"), HasSubstr("UTF-8"));
  EXPECT_THAT(error(address_ + "/none"), HasSubstr("cannot be opened"));
  EXPECT_EQ(put("file", "x"), CloudCode::OK);
  EXPECT_THAT(error(address_ + "/file"), HasSubstr("not a folder"));
  for (const char* rule : {"latency all", "latency all 5-2", "lost nothing 0.5", "busy all 1.5",
                           "short read #0", "offline all 1", "changed read", "rate much", "x"}) {
    EXPECT_THAT(error("fault+" + address_, rule), HasSubstr(rule));
  }
  EXPECT_THAT(error("fault+" + address_, "@" + address_), HasSubstr("cannot be read"));
}

TEST_F(CloudTest, IdsFollowThePathAndVersionsTheContent) {
  ASSERT_EQ(put("File.txt", "one"), CloudCode::OK);
  const CloudEntry first = status("fILE.TXT");
  EXPECT_EQ(first.name, "File.txt");
  EXPECT_EQ(first.path, "File.txt");
  EXPECT_TRUE(same_id(first.id, made_.id));
  EXPECT_EQ(first.version, made_.version);
  ASSERT_EQ(listed("").size(), 1u);
  EXPECT_TRUE(same_id(first.id, listed("")[0].id));
  EXPECT_EQ(first.version, listed("")[0].version);

  fs::last_write_time(root_ / "File.txt", fs::file_time_type::clock::now());
  EXPECT_NE(status("File.txt").version, first.version) << "a touch may be a change";
  ASSERT_EQ(put("file.TXT", "two", status("File.txt").version), CloudCode::OK);
  EXPECT_THAT(names(""), UnorderedElementsAre("File.txt")) << "still with its own name";
  EXPECT_TRUE(same_id(first.id, made_.id));

  std::ofstream(root_ / "File.txt", std::ios::in | std::ios::binary) << "ONE";
  EXPECT_EQ(get(made_), "changed") << "by a program that writes in place";
  EXPECT_EQ(put("File.txt", "three", made_.version), CloudCode::CHANGED);
  EXPECT_EQ(get(status("File.txt")), "ONE");
}

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

TEST_F(CloudTest, LeftoversOfKilledWritesAreHiddenAndGo) {
  const char* old_part = ".~tarnd-1-2-3.part";
  const char* new_part = ".~tarnd-4-5-6.part";
  std::ofstream(root_ / old_part) << "half";
  std::ofstream(root_ / new_part) << "half";
  fs::last_write_time(root_ / old_part, fs::file_time_type::clock::now() - std::chrono::hours(1));
  EXPECT_THAT(names(""), UnorderedElementsAre());
  EXPECT_EQ(status_code(new_part), CloudCode::NOT_FOUND);
  EXPECT_FALSE(fs::exists(root_ / old_part));
  EXPECT_TRUE(fs::exists(root_ / new_part));

  fs::create_directory(root_ / "gone");
  std::ofstream(root_ / "gone" / new_part) << "half";
  EXPECT_TRUE(cloud_->remove({}, "gone", "").ok());
}

TEST_F(CloudTest, PathsMayBeLong) {
  std::vector<std::string> paths = {std::string(100, 'n')};
  while (paths.size() < 6) {
    paths.push_back(paths.back() + '/' + paths[0]);
  }
  for (const std::string& path : paths) {
    ASSERT_TRUE(cloud_->make_folder({}, path, &made_).ok()) << path;
  }
  paths.push_back(paths.back() + "/file");
  EXPECT_EQ(put(paths.back(), "deep"), CloudCode::OK);
  EXPECT_EQ(get(made_), "deep");
  EXPECT_THAT(names(paths[5]), UnorderedElementsAre("file"));
  for (; !paths.empty(); paths.pop_back()) { /* the standard library's removal knows none */
    EXPECT_TRUE(cloud_->remove({}, paths.back(), "").ok()) << paths.back();
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
  EXPECT_EQ(get(made_), "new");
}

/* The script may be a file: a running service is taken offline and back. */
TEST_F(CloudTest, AFaultScriptInAFileMayChange) {
  const fs::path script = folder_.path() / "faults";
  const auto write = [&](const std::string& text) {
    std::ofstream(script) << text;
    fs::last_write_time(script, fs::last_write_time(script) + std::chrono::seconds(text.size()));
  };
  write("seed 2");
  std::string error;
  const auto cloud = tarnd::open_cloud("fault+" + address_,
                                       {&counts_, "@" + script.string(), {1, {}, {}}}, &error);
  ASSERT_NE(cloud, nullptr) << error;
  EXPECT_TRUE(cloud->status({}, "", &made_).ok());
  write("offline status 1 1");
  EXPECT_EQ(cloud->status({}, "", &made_).code, CloudCode::OFFLINE);
  write("no such rule");
  EXPECT_EQ(cloud->status({}, "", &made_).code, CloudCode::OFFLINE) << "the old ones stay";
  write("");
  Sleep(2);
  EXPECT_TRUE(cloud->status({}, "", &made_).ok());
}

}  // namespace
