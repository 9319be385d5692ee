/* The cloud that is a directory, and the paths that lead into it. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "cloud/cloud.h"
#include "names/share_path.h"
#include "ox_errno.h"
#include "test_folder.h"

namespace {

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
    cloud_ = tarnd::open_cloud(address_, &error);
    ASSERT_NE(cloud_, nullptr) << error;
  }
  int put(const std::string& path, const std::string& content) {
    return cloud_->write(path, content.size(),
                         [&](uint64_t offset, void* buffer, size_t size, size_t* got) {
                           *got = std::min(size, size_t{3}); /* in many small pieces */
                           std::memcpy(buffer, content.data() + offset, *got);
                           return 0;
                         });
  }
  std::string get(const std::string& path, uint64_t offset = 0, size_t size = 1000) {
    std::string content(size, '\0');
    size_t got = 0;
    const int err = cloud_->read(path, offset, content.data(), size, &got);
    content.resize(got);
    return err == 0 ? content : "error " + std::to_string(err);
  }
  CloudEntry status(const std::string& path) {
    CloudEntry entry;
    EXPECT_EQ(cloud_->status(path, &entry), 0) << path;
    return entry;
  }
  int status_error(const std::string& path) {
    CloudEntry entry;
    return cloud_->status(path, &entry);
  }
  std::vector<std::string> names(const std::string& path) {
    std::vector<CloudEntry> entries;
    EXPECT_EQ(cloud_->list(path, &entries), 0) << path;
    std::vector<std::string> names;
    for (const CloudEntry& entry : entries) {
      names.push_back(entry.name);
    }
    return names;
  }
  size_t files_on_disk() {
    return static_cast<size_t>(
        std::distance(fs::directory_iterator(root_), fs::directory_iterator()));
  }

  TestFolder folder_;
  const fs::path root_ = folder_.path() / "a cloud";
  const std::string address_ = "file:///" + folder_.path().generic_string() + "/a%20cloud";
  std::unique_ptr<tarnd::Cloud> cloud_;
};

bool same_id(const cfs_id_t& a, const cfs_id_t& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

TEST_F(CloudTest, AddressesThatAreWrongSaySo) {
  const auto error = [](const std::string& address) {
    std::string text;
    EXPECT_EQ(tarnd::open_cloud(address, &text), nullptr) << address;
    EXPECT_THAT(text, HasSubstr(address));
    return text;
  };
  EXPECT_THAT(error("https://example.com"), HasSubstr("no file:/// address"));
  EXPECT_THAT(error("file:///tmp/x"), HasSubstr("drive letter"));
  EXPECT_THAT(error("file:///C:/a%2"), HasSubstr("hexadecimal"));
  EXPECT_THAT(error("file:///C:/%ff"), HasSubstr("UTF-8"));
  EXPECT_THAT(error(address_ + "/none"), HasSubstr("cannot be opened"));
  EXPECT_EQ(put("file", "x"), 0);
  EXPECT_THAT(error(address_ + "/file"), HasSubstr("not a folder"));
}

TEST_F(CloudTest, IdsFollowThePathAndVersionsTheContent) {
  ASSERT_EQ(put("File.txt", "one"), 0);
  EXPECT_EQ(get("File.txt", 1, 1), "n");
  EXPECT_EQ(get("File.txt", uint64_t{1} << 40), "");
  const CloudEntry first = status("File.txt");
  const CloudEntry other_case = status("fILE.TXT");
  EXPECT_EQ(other_case.name, "File.txt");
  EXPECT_EQ(other_case.path, "File.txt");
  EXPECT_TRUE(same_id(first.id, other_case.id));

  std::vector<CloudEntry> listed;
  ASSERT_EQ(cloud_->list("", &listed), 0);
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_TRUE(same_id(first.id, listed[0].id));
  EXPECT_TRUE(same_id(first.version, listed[0].version));

  ASSERT_EQ(put("file.TXT", "four"), 0); /* the same file, still with its own name */
  EXPECT_THAT(names(""), UnorderedElementsAre("File.txt"));
  EXPECT_TRUE(same_id(first.id, status("File.txt").id));
  EXPECT_FALSE(same_id(first.version, status("File.txt").version));
  ASSERT_EQ(put("Other", "four"), 0);
  EXPECT_FALSE(same_id(first.id, status("Other").id));
}

TEST_F(CloudTest, AContentAppearsWholeOrNotAtAll) {
  ASSERT_EQ(put("file", "old"), 0);
  const auto ends_early = [](uint64_t offset, void*, size_t, size_t* got) {
    *got = offset < 5 ? 5 : 0;
    return 0;
  };
  EXPECT_EQ(cloud_->write("file", 10, ends_early), OX_EIO);
  EXPECT_EQ(cloud_->write("new", 10, ends_early), OX_EIO);
  EXPECT_EQ(files_on_disk(), 1u);

  std::string seen;
  size_t on_disk = 0;
  const auto look_meanwhile = [&](uint64_t, void* buffer, size_t, size_t* got) {
    std::memcpy(buffer, "new", *got = 3);
    seen = names("").size() == 1 ? get("file") : "the new content shows";
    on_disk = files_on_disk();
    return 0;
  };
  EXPECT_EQ(cloud_->write("file", 3, look_meanwhile), 0);
  EXPECT_EQ(seen, "old");
  EXPECT_EQ(on_disk, 2u) << "beside its target";
  EXPECT_EQ(get("file"), "new");
}

TEST_F(CloudTest, LeftoversOfKilledWritesAreHiddenAndGo) {
  const char* old_part = ".~tarnd-1-2-3.part";
  const char* new_part = ".~tarnd-4-5-6.part";
  std::ofstream(root_ / old_part) << "half";
  std::ofstream(root_ / new_part) << "half";
  fs::last_write_time(root_ / old_part, fs::file_time_type::clock::now() - std::chrono::hours(1));
  EXPECT_THAT(names(""), UnorderedElementsAre());
  EXPECT_EQ(status_error(new_part), OX_ENOENT);
  EXPECT_FALSE(fs::exists(root_ / old_part));
  EXPECT_TRUE(fs::exists(root_ / new_part));

  fs::create_directory(root_ / "gone");
  std::ofstream(root_ / "gone" / new_part) << "half";
  EXPECT_EQ(cloud_->remove("gone"), 0);
}

TEST_F(CloudTest, RenamesAndDeletesAndSaysWhatIsWrong) {
  ASSERT_EQ(put("a", "A"), 0);
  ASSERT_EQ(put("b", "B"), 0);
  ASSERT_EQ(cloud_->make_folder("f"), 0);
  ASSERT_EQ(put("f/inside", "I"), 0);
  EXPECT_EQ(cloud_->rename("a", "b", false), OX_EEXIST);
  EXPECT_EQ(cloud_->rename("a", "f", true), OX_EEXIST);
  EXPECT_EQ(cloud_->rename("f", "a", true), OX_EEXIST);
  EXPECT_EQ(cloud_->rename("f", "f/g", false), OX_EINVAL);
  EXPECT_EQ(cloud_->rename("F", "f/g", false), OX_EINVAL);
  EXPECT_EQ(cloud_->rename("a", "none/c", false), OX_ENOENT);
  EXPECT_EQ(get("f"), "error " + std::to_string(OX_EISDIR));
  EXPECT_EQ(put("f", "x"), OX_EISDIR);
  EXPECT_EQ(put("a/x", "x"), OX_ENOTDIR);
  EXPECT_EQ(cloud_->make_folder("a"), OX_EEXIST);
  EXPECT_EQ(get("a") + get("b") + get("f/inside"), "ABI");
  EXPECT_EQ(cloud_->rename("a", "b", true), 0);
  EXPECT_EQ(cloud_->rename("F", "G", false), 0);
  EXPECT_EQ(cloud_->rename("g", "g", false), 0);
  EXPECT_EQ(get("b") + get("g/inside"), "AI");

  EXPECT_EQ(cloud_->remove("g"), OX_ENOTEMPTY);
  EXPECT_EQ(cloud_->remove("g/inside"), 0);
  EXPECT_EQ(cloud_->remove("g"), 0);
  EXPECT_EQ(cloud_->remove("g"), OX_ENOENT);
  EXPECT_NE(cloud_->remove(""), 0);
  EXPECT_THAT(names(""), UnorderedElementsAre("b"));
}

TEST_F(CloudTest, PathsMayBeLong) {
  std::vector<std::string> paths = {std::string(100, 'n')};
  while (paths.size() < 6) {
    paths.push_back(paths.back() + '/' + paths[0]);
  }
  for (const std::string& path : paths) {
    ASSERT_EQ(cloud_->make_folder(path), 0) << path;
  }
  paths.push_back(paths.back() + "/file");
  EXPECT_EQ(put(paths.back(), "deep"), 0);
  EXPECT_EQ(get(paths.back()), "deep");
  EXPECT_THAT(names(paths[5]), UnorderedElementsAre("file"));
  for (; !paths.empty(); paths.pop_back()) { /* the standard library's removal knows none */
    EXPECT_EQ(cloud_->remove(paths.back()), 0) << paths.back();
  }
}

/*
 * Windows refuses to replace a file that is open: our own readers must not make a write fail, and
 * must never see a mixture.
 */
TEST_F(CloudTest, ReadersAndWritersOfOneFile) {
  const std::string contents[] = {std::string(5000, 'a'), std::string(5000, 'b')};
  ASSERT_EQ(put("file", contents[0]), 0);
  std::atomic<bool> done = false;
  std::atomic<int> mixtures = 0;
  std::thread reader([&] {
    while (!done) {
      const std::string seen = get("file", 0, 5000);
      mixtures += static_cast<__int_type>(seen != contents[0] && seen != contents[1]);
    }
  });
  for (int i = 1; i <= 20; i++) {
    EXPECT_EQ(put("file", contents[i % 2]), 0);
  }
  done = true;
  reader.join();
  EXPECT_EQ(mixtures, 0);
}

}  // namespace
