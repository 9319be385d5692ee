// The cloud that is a directory, and the paths that lead into it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "cloud.h"
#include "ox_errno.h"
#include "share_path.h"

namespace {

using tarnd::CloudEntry;
using testing::HasSubstr;
using testing::UnorderedElementsAre;
namespace fs = std::filesystem;

std::pair<int, std::string> Normalised(const std::string& share, const std::string& path) {
  std::string out;
  const int err = tarnd::NormaliseSharePath(share, path, &out);
  return {err, out};
}

std::pair<int, std::string> Path(const std::string& text) { return {0, text}; }

TEST(SharePath, JoinsWithEitherSlash) {
  EXPECT_EQ(Normalised("", ""), Path(""));
  EXPECT_EQ(Normalised("/", "\\"), Path(""));
  EXPECT_EQ(Normalised("/team/docs/", "\\a\\b/c"), Path("team/docs/a/b/c"));
  EXPECT_EQ(Normalised("team", "//a/./b/../c\\"), Path("team/a/c"));
  EXPECT_EQ(Normalised("", "Grüße/日本語/🚀 x.txt"), Path("Grüße/日本語/🚀 x.txt"));
  EXPECT_EQ(Normalised("", ".profile/a..b/con.c/nullable"), Path(".profile/a..b/con.c/nullable"));
}

TEST(SharePath, NothingClimbsOutOfTheShare) {
  for (const char* path : {"..", "../x", "a/../../x", "\\..\\team2", "a\\..\\..", "./.."}) {
    EXPECT_EQ(Normalised("team", path).first, OX_EPERM) << path;
  }
  EXPECT_EQ(Normalised("..", "x").first, OX_EPERM);
  EXPECT_EQ(Normalised("team", "a/../b"), Path("team/b"));
}

TEST(SharePath, RefusesNamesThatReachOtherFilesOnWindows) {
  for (const char* path :
       {"a:b",  "C:\\x",     "a*",     "a?",   "a\"",      "<a",           "a>",       "a|b",
        "a\tb", "a\x1f",     "a.",     "a ",   "...",      ".. ",          "NUL",      "x/con",
        "Com1", "lpt\u00b2", "CONIN$", "\xff", "\xc0\xaf", "\xed\xa0\x80", "a\xe2\x82"}) {
    EXPECT_EQ(Normalised("", path).first, OX_EINVAL) << path;
  }
  EXPECT_EQ(Normalised("", std::string("a\0b", 3)).first, OX_EINVAL);
  EXPECT_EQ(Normalised("", std::string(244, 'n')).first, 0);
  EXPECT_EQ(Normalised("", std::string(245, 'n')).first, OX_ENAMETOOLONG);
}

class CloudTest : public testing::Test {
 protected:
  void SetUp() override {
    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    root_ = fs::path(temp) / (L"cloud test " + std::to_wstring(GetCurrentProcessId()));
    fs::create_directory(root_);
    std::string error;
    cloud_ = tarnd::OpenCloud(Address(), &error);
    ASSERT_NE(cloud_, nullptr) << error;
  }
  // By the cloud itself: the standard library's removal knows no long paths.
  void TearDown() override {
    Empty("");
    fs::remove_all(root_);
  }
  void Empty(const std::string& folder) {
    std::vector<CloudEntry> entries;
    cloud_->List(folder, &entries);
    for (const CloudEntry& entry : entries) {
      const std::string path = folder.empty() ? entry.name : folder + '/' + entry.name;
      if (entry.folder) {
        Empty(path);
      }
      cloud_->Delete(path);
    }
  }

  std::string Address() const {
    std::string address = "file:///" + root_.generic_string();
    for (size_t at; (at = address.find(' ')) != std::string::npos;) {
      address.replace(at, 1, "%20");
    }
    return address;
  }

  int Put(const std::string& path, const std::string& content) {
    return cloud_->Write(path, content.size(),
                         [&](uint64_t offset, void* buffer, size_t size, size_t* got) {
                           *got = std::min(size, size_t{3});  // in many small pieces
                           std::memcpy(buffer, content.data() + offset, *got);
                           return 0;
                         });
  }
  std::string Get(const std::string& path, uint64_t offset = 0, size_t size = 1000) {
    std::string content(size, '\0');
    size_t got = 0;
    const int err = cloud_->Read(path, offset, content.data(), size, &got);
    content.resize(got);
    return err == 0 ? content : "error " + std::to_string(err);
  }
  CloudEntry Status(const std::string& path) {
    CloudEntry entry;
    EXPECT_EQ(cloud_->Status(path, &entry), 0) << path;
    return entry;
  }
  int StatusError(const std::string& path) {
    CloudEntry entry;
    return cloud_->Status(path, &entry);
  }
  std::vector<std::string> Names(const std::string& path) {
    std::vector<CloudEntry> entries;
    EXPECT_EQ(cloud_->List(path, &entries), 0) << path;
    std::vector<std::string> names;
    for (const CloudEntry& entry : entries) {
      names.push_back(entry.name);
    }
    return names;
  }
  size_t FilesOnDisk() {
    return static_cast<size_t>(
        std::distance(fs::directory_iterator(root_), fs::directory_iterator()));
  }

  fs::path root_;
  std::unique_ptr<tarnd::Cloud> cloud_;
};

bool SameId(const cfs_id_t& a, const cfs_id_t& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

TEST_F(CloudTest, AddressesThatAreWrongSaySo) {
  const auto error = [](const std::string& address) {
    std::string text;
    EXPECT_EQ(tarnd::OpenCloud(address, &text), nullptr) << address;
    EXPECT_THAT(text, HasSubstr(address));
    return text;
  };
  EXPECT_THAT(error("https://example.com"), HasSubstr("no file:/// address"));
  EXPECT_THAT(error("file:///tmp/x"), HasSubstr("drive letter"));
  EXPECT_THAT(error("file:///C:/a%2"), HasSubstr("hexadecimal"));
  EXPECT_THAT(error("file:///C:/a%00b"), HasSubstr("hexadecimal"));
  EXPECT_THAT(error("file:///C:/%ff"), HasSubstr("UTF-8"));
  EXPECT_THAT(error(Address() + "/none"), HasSubstr("cannot be opened"));
  EXPECT_EQ(Put("file", "x"), 0);
  EXPECT_THAT(error(Address() + "/file"), HasSubstr("not a folder"));
}

TEST_F(CloudTest, WhatIsWrittenIsReadAndListed) {
  EXPECT_EQ(cloud_->MakeFolder("Grüße"), 0);
  EXPECT_EQ(Put("Grüße/🚀 日本.txt", "hello, world"), 0);
  EXPECT_EQ(Put("empty", ""), 0);
  EXPECT_THAT(Names(""), UnorderedElementsAre("Grüße", "empty"));
  EXPECT_THAT(Names("Grüße"), UnorderedElementsAre("🚀 日本.txt"));
  EXPECT_EQ(Get("Grüße/🚀 日本.txt"), "hello, world");
  EXPECT_EQ(Get("Grüße/🚀 日本.txt", 7, 3), "wor");
  EXPECT_EQ(Get("Grüße/🚀 日本.txt", 12), "");
  EXPECT_EQ(Get("Grüße/🚀 日本.txt", uint64_t{1} << 40), "");
  EXPECT_EQ(Get("empty"), "");
  EXPECT_EQ(Status("Grüße/🚀 日本.txt").size, 12u);
  EXPECT_TRUE(Status("").folder);
}

TEST_F(CloudTest, IdsFollowThePathAndVersionsTheContent) {
  ASSERT_EQ(Put("File.txt", "one"), 0);
  const CloudEntry first = Status("File.txt");
  const CloudEntry other_case = Status("fILE.TXT");
  EXPECT_EQ(other_case.name, "File.txt");
  EXPECT_TRUE(SameId(first.id, other_case.id));

  std::vector<CloudEntry> listed;
  ASSERT_EQ(cloud_->List("", &listed), 0);
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_TRUE(SameId(first.id, listed[0].id));
  EXPECT_TRUE(SameId(first.version, listed[0].version));
  EXPECT_EQ(first.modified, listed[0].modified);

  ASSERT_EQ(Put("file.TXT", "four"), 0);  // the same file, still with its own name
  EXPECT_THAT(Names(""), UnorderedElementsAre("File.txt"));
  EXPECT_TRUE(SameId(first.id, Status("File.txt").id));
  EXPECT_FALSE(SameId(first.version, Status("File.txt").version));
  ASSERT_EQ(Put("Other", "four"), 0);
  EXPECT_FALSE(SameId(first.id, Status("Other").id));
}

TEST_F(CloudTest, AFailedWriteLeavesTheOldContentAndNothingElse) {
  ASSERT_EQ(Put("file", "old"), 0);
  const auto fails_at_5 = [](uint64_t offset, void*, size_t, size_t* got) {
    *got = 5;
    return offset < 5 ? 0 : OX_EIO;
  };
  const auto ends_early = [](uint64_t, void*, size_t, size_t* got) {
    *got = 0;
    return 0;
  };
  EXPECT_EQ(cloud_->Write("file", 10, fails_at_5), OX_EIO);
  EXPECT_EQ(cloud_->Write("file", 10, ends_early), OX_EIO);
  EXPECT_EQ(cloud_->Write("new", 10, ends_early), OX_EIO);
  EXPECT_EQ(Get("file"), "old");
  EXPECT_EQ(FilesOnDisk(), 1u);
}

TEST_F(CloudTest, AContentOnItsWayIsNeitherSeenNorReplacesEarly) {
  ASSERT_EQ(Put("file", "old"), 0);
  std::vector<std::string> names_meanwhile;
  std::string content_meanwhile;
  size_t on_disk = 0;
  EXPECT_EQ(cloud_->Write("file", 3,
                          [&](uint64_t, void* buffer, size_t, size_t* got) {
                            std::memcpy(buffer, "new", *got = 3);
                            names_meanwhile = Names("");
                            content_meanwhile = Get("file");
                            on_disk = FilesOnDisk();
                            return 0;
                          }),
            0);
  EXPECT_THAT(names_meanwhile, UnorderedElementsAre("file"));
  EXPECT_EQ(content_meanwhile, "old");
  EXPECT_EQ(on_disk, 2u);
  EXPECT_EQ(Get("file"), "new");
}

TEST_F(CloudTest, LeftoversOfKilledWritesAreHiddenAndGo) {
  const char* old_part = ".~tarnd-1-2-3.part";
  const char* new_part = ".~tarnd-4-5-6.part";
  std::ofstream(root_ / old_part) << "half";
  std::ofstream(root_ / new_part) << "half";
  fs::last_write_time(root_ / old_part, fs::file_time_type::clock::now() - std::chrono::hours(1));
  EXPECT_THAT(Names(""), UnorderedElementsAre());
  EXPECT_EQ(StatusError(new_part), OX_ENOENT);
  EXPECT_FALSE(fs::exists(root_ / old_part));
  EXPECT_TRUE(fs::exists(root_ / new_part));

  fs::create_directory(root_ / "gone");
  std::ofstream(root_ / "gone" / new_part) << "half";
  EXPECT_EQ(cloud_->Delete("gone"), 0);
}

TEST_F(CloudTest, RenamesAndDeletes) {
  ASSERT_EQ(Put("a", "A"), 0);
  ASSERT_EQ(Put("b", "B"), 0);
  ASSERT_EQ(cloud_->MakeFolder("f"), 0);
  ASSERT_EQ(Put("f/inside", "I"), 0);
  EXPECT_EQ(cloud_->Rename("a", "b", false), OX_EEXIST);
  EXPECT_EQ(cloud_->Rename("a", "f", true), OX_EEXIST);
  EXPECT_EQ(cloud_->Rename("f", "a", true), OX_EEXIST);
  EXPECT_EQ(cloud_->Rename("f", "f/g", false), OX_EINVAL);
  EXPECT_EQ(cloud_->Rename("none", "c", false), OX_ENOENT);
  EXPECT_EQ(cloud_->Rename("a", "none/c", false), OX_ENOENT);
  EXPECT_EQ(Get("a") + Get("b") + Get("f/inside"), "ABI");
  EXPECT_EQ(cloud_->Rename("a", "b", true), 0);
  EXPECT_EQ(cloud_->Rename("f", "g", false), 0);
  EXPECT_EQ(Get("b") + Get("g/inside"), "AI");

  EXPECT_EQ(cloud_->Delete("g"), OX_ENOTEMPTY);
  EXPECT_EQ(cloud_->Delete("g/inside"), 0);
  EXPECT_EQ(cloud_->Delete("g"), 0);
  EXPECT_EQ(cloud_->Delete("g"), OX_ENOENT);
  EXPECT_NE(cloud_->Delete(""), 0);
  EXPECT_THAT(Names(""), UnorderedElementsAre("b"));
}

TEST_F(CloudTest, SaysWhatIsWrong) {
  ASSERT_EQ(Put("file", "x"), 0);
  ASSERT_EQ(cloud_->MakeFolder("folder"), 0);
  std::vector<CloudEntry> entries;
  EXPECT_EQ(cloud_->List("file", &entries), OX_ENOTDIR);
  EXPECT_EQ(cloud_->List("none", &entries), OX_ENOENT);
  EXPECT_EQ(Get("folder"), "error " + std::to_string(OX_EISDIR));
  EXPECT_EQ(Put("folder", "x"), OX_EISDIR);
  EXPECT_EQ(Put("none/file", "x"), OX_ENOENT);
  EXPECT_EQ(Put("file/x", "x"), OX_ENOTDIR);
  EXPECT_EQ(cloud_->MakeFolder("folder"), OX_EEXIST);
  EXPECT_EQ(cloud_->MakeFolder("file"), OX_EEXIST);
  EXPECT_EQ(cloud_->MakeFolder("none/folder"), OX_ENOENT);
  const HANDLE held =
      CreateFileW((root_ / "file").c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  EXPECT_EQ(Get("file"), "error " + std::to_string(OX_EACCES));
  CloseHandle(held);
}

TEST_F(CloudTest, PathsMayBeLong) {
  const std::string name(100, 'n');
  std::string path;
  for (int depth = 0; depth < 6; depth++) {
    path += (depth > 0 ? "/" : "") + name;
    ASSERT_EQ(cloud_->MakeFolder(path), 0) << depth;
  }
  EXPECT_EQ(Put(path + "/file", "deep"), 0);
  EXPECT_EQ(Get(path + "/file"), "deep");
  EXPECT_THAT(Names(path), UnorderedElementsAre("file"));
}

TEST_F(CloudTest, LinksDoNotLeadOutOfTheDirectory) {
  ASSERT_EQ(cloud_->MakeFolder("share"), 0);
  ASSERT_EQ(Put("secret", "x"), 0);
  ASSERT_EQ(Put("share/file", "inside"), 0);
  std::string error;
  cloud_ = tarnd::OpenCloud(Address() + "/share", &error);
  ASSERT_NE(cloud_, nullptr) << error;
  const auto link = [this](const wchar_t* name, const fs::path& target) {
    const fs::path path = root_ / "share" / name;
    return CreateSymbolicLinkW(path.c_str(), target.c_str(),
                               SYMBOLIC_LINK_FLAG_ALLOW_UNPRIVILEGED_CREATE) &&
           GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
  };
  if (!link(L"out", root_ / "secret") || !link(L"in", root_ / "share" / "file")) {
    GTEST_SKIP() << "this system makes no symbolic links for us";
  }
  EXPECT_EQ(Get("in"), "inside");
  EXPECT_EQ(StatusError("out"), OX_EPERM);
  EXPECT_EQ(Put("out", "y"), OX_EPERM);
  EXPECT_THAT(Names(""), UnorderedElementsAre("file", "in"));
}

// Windows refuses to replace a file that is open: our own readers must not make a write fail, and
// must never see a mixture.
TEST_F(CloudTest, ReadersAndWritersOfOneFile) {
  const std::string contents[] = {std::string(5000, 'a'), std::string(5000, 'b')};
  ASSERT_EQ(Put("file", contents[0]), 0);
  std::atomic<bool> done = false;
  std::atomic<int> mixtures = 0;
  std::thread reader([&] {
    while (!done) {
      const std::string seen = Get("file", 0, 5000);
      mixtures += seen != contents[0] && seen != contents[1];
    }
  });
  for (int i = 1; i <= 20; i++) {
    EXPECT_EQ(Put("file", contents[i % 2]), 0);
  }
  done = true;
  reader.join();
  EXPECT_EQ(mixtures, 0);
}

}  // namespace
