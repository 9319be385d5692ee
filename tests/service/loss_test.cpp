/*
 * The cache over a cloud in memory, in one process: what it must not lose, and whom one slow or
 * failing call must not hold up. An end of the service is the end of a Cache.
 */
#include <windows.h>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>
#include <future>

#include "files/open_files.h"
#include "memory_cloud.h"
#include "names/folded_path.h"
#include "ox_errno.h"
#include "test_folder.h"
#include "uuid_text.h"
#include "wide_text.h"

namespace {

using namespace tarnd;
namespace fs = std::filesystem;
using std::chrono::milliseconds;

std::atomic<bool> database_is_full = false;

} /* namespace */

extern "C" {
int __real_sqlite3_step(sqlite3_stmt* statement);
int __wrap_sqlite3_step(sqlite3_stmt* statement);
int __wrap_sqlite3_step(sqlite3_stmt* statement) {
  return database_is_full ? SQLITE_FULL : __real_sqlite3_step(statement);
}
}

namespace {

/* Rules for one run of the service. */
struct Rules {
  uint64_t cache_size = uint64_t{1} << 30;
  uint64_t keep_free = 0;
  milliseconds wait{2000};
};

class Cache {
 public:
  Cache(MemoryCloud& cloud, const TestFolder& folder, Rules rules = {})
      : cloud_(cloud),
        folder_(folder.path() / "files"),
        limits_(rules.cache_size, rules.keep_free, [] { return uint64_t{1000}; }),
        reads_(
            cloud, [] { return nullptr; }, 2),
        env_{cloud,
             store_,
             reads_,
             counters_,
             [] { return CloudContext(); },
             folder_.wstring(),
             4,
             rules.wait,
             [this](uint64_t bytes) { return limits_.may_fetch(bytes); }},
        files_(env_, limits_, "me", 2) {
    fs::create_directory(folder_);
    std::vector<FileRecord> records;
    EXPECT_EQ(store_.open(folder / "state.db", &records), 0);
    files_.recover(std::move(records));
  }
  ~Cache() {
    for (const HANDLE handle : handles_) {
      CloseHandle(handle);
    }
  }

  OpenFiles* operator->() { return &files_; }

  struct Opened {
    int error = -1;
    std::shared_ptr<tarnd::OpenFile> open;
    HANDLE handle = nullptr;

    FileOpen* part() const { return &open->part; }
    CachedFile& file() const { return *open->file; }
  };
  Opened open(const std::string& path, bool truncate = false) {
    Opened opened{0, std::make_shared<tarnd::OpenFile>()};
    opened.open->id = new_id();
    opened.open->access = ACCESS_READ | ACCESS_WRITE;
    opened.open->share = SHARE_MASK;
    CloudEntry entry;
    FileView view;
    const bool create = files_.look_up(path, &entry) == OX_ENOENT;
    entry.path = create ? path : entry.path;
    opened.error = files_.add(opened.open, entry, opened.open->access);
    EXPECT_EQ(opened.error, 0);
    opened.error = opened.file().attach(opened.part(), path,
                                        {GetCurrentProcessId(), truncate, create, entry}, &view);
    if (opened.error != 0) {
      files_.remove(*opened.open);
      return opened;
    }
    opened.handle = reinterpret_cast<HANDLE>(view.handle);
    handles_.push_back(opened.handle);
    return opened;
  }
  /* As a client does: reported, then written through its own handle. */
  int write(const Opened& opened, const std::string& data) {
    RegionAnswer answer;
    const int err = opened.file().dirty_regions(opened.part(), 0, data.size(), &answer);
    return err != 0 ? err : write_silently(opened, data);
  }
  static int write_silently(const Opened& opened, const std::string& data) {
    OVERLAPPED start = {};
    const auto size = static_cast<DWORD>(data.size());
    return WriteFile(opened.handle, data.data(), size, nullptr, &start) != 0 ? 0 : OX_EIO;
  }
  int close(const Opened& opened, Closing how = Closing::MODIFIED) {
    const int err = opened.file().detach(opened.part(), how);
    if (err == 0) {
      files_.remove(*opened.open);
      std::erase(handles_, opened.handle);
      CloseHandle(opened.handle);
    }
    return err;
  }
  /* A whole life of a change. */
  int change(const std::string& path, const std::string& content) {
    const Opened opened = open(path, true);
    const int err = opened.error != 0 ? opened.error : write(opened, content);
    return err != 0 ? err : close(opened);
  }
  int fetch(const Opened& opened, uint64_t length) {
    RegionAnswer answer;
    return opened.file().cache_regions(opened.part(), 0, length, false, &answer);
  }
  int rename(const std::string& from, const std::string& to) {
    const auto held =
        files_.reservations().reserve({{folded_path(from), true}, {folded_path(to), true}});
    CloudEntry entry;
    const int err = files_.look_up(from, &entry);
    return err != 0 ? err : files_.rename(entry, from, to);
  }
  /* Until nothing waits for the cloud any more. */
  bool settles() {
    for (int tries = 0; tries < 1000 && files_.unsaved() != 0; tries++) {
      Sleep(10);
    }
    return files_.unsaved() == 0;
  }

 private:
  MemoryCloud& cloud_;
  const fs::path folder_;
  std::vector<HANDLE> handles_;
  StateStore store_;
  Counters counters_;
  CacheLimits limits_;
  TransferEngine reads_;
  CacheEnvironment env_;
  OpenFiles files_;
};

class Loss : public testing::Test {
 protected:
  static bool changes(CloudCall call) { return call == CloudCall::PUT || call == CloudCall::PATCH; }
  void refuse_uploads(const CloudResult& result) {
    cloud_.before = [=](CloudCall call, const std::string&) {
      return changes(call) ? result : CloudResult();
    };
  }
  std::vector<fs::path> local_files() const {
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(folder_.path() / "files")) {
      if (entry.is_regular_file()) {
        files.push_back(entry);
      }
    }
    return files;
  }
  size_t kept() const {
    const fs::path kept = folder_.path() / "files" / "kept";
    return fs::is_directory(kept) ? std::distance(fs::directory_iterator(kept), {}) : 0;
  }
  /* The content of the one file beside those with these names. */
  std::string beside(const std::string& name) { return cloud_.content(conflict_of(name)); }
  std::string conflict_of(const std::string& name) {
    std::string found;
    EXPECT_TRUE(cloud_
                    .list({}, "",
                          [&](const CloudEntry& entry) {
                            found = entry.name.starts_with(name + " (conflict of me ") ? entry.name
                                                                                       : found;
                            return true;
                          })
                    .ok());
    return found;
  }

  TestFolder folder_;
  MemoryCloud cloud_;
};

/* What a service that was killed, or a machine that lost its power, left behind. */
TEST_F(Loss, WhatAnEndedServiceLeftGoesUpOnlyWhereItBelongs) {
  enum Left { WRITTEN, EMPTIED, CLOSED };
  const struct {
    Left left;
    int cut; /* the local file, to so many bytes; -1: it is whole */
    std::string content, beside;
    size_t kept;
  } cases[] = {
      {WRITTEN, -1, "old content", "new content", 0}, {WRITTEN, 4, "old content", "none", 1},
      {WRITTEN, 0, "old content", "none", 1},         {EMPTIED, -1, "old content", "none", 0},
      {CLOSED, -1, "new content", "none", 0},         {CLOSED, 4, "old content", "none", 1},
      {CLOSED, 0, "old content", "none", 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "left " << c.left << " cut to " << c.cut);
    TestFolder folder;
    MemoryCloud cloud;
    fs::create_directories(folder.path() / "files" / "kept");
    cloud.set("f", "old content");
    cloud.before = [](CloudCall call, const std::string&) {
      return changes(call) ? CloudResult::of(CloudCode::OFFLINE) : CloudResult();
    };
    {
      Cache cache(cloud, folder, {.wait = milliseconds(1)});
      const auto opened = cache.open("f", c.left == EMPTIED);
      EXPECT_EQ(c.left == EMPTIED ? 0 : cache.write(opened, "new"), 0);
      EXPECT_EQ(c.left == CLOSED ? cache.close(opened) : 0, 0);
    }
    for (const auto& entry : fs::directory_iterator(folder.path() / "files")) {
      if (entry.is_regular_file() && c.cut >= 0) {
        fs::resize_file(entry, static_cast<uintmax_t>(c.cut));
      }
    }
    cloud.before = nullptr;
    Cache cache(cloud, folder);
    EXPECT_TRUE(cache.settles());
    EXPECT_EQ(cloud.content("f"), c.content);
    EXPECT_EQ(cloud.files(), c.beside == "none" ? 1u : 2u);
    EXPECT_EQ(std::distance(fs::directory_iterator(folder.path() / "files" / "kept"), {}), c.kept);
  }
}

TEST_F(Loss, WhatCannotBeKeptStaysWhereItIs) {
  cloud_.set("f", "old content");
  {
    Cache cache(cloud_, folder_);
    EXPECT_EQ(cache.write(cache.open("f"), "new"), 0);
  }
  ASSERT_EQ(local_files().size(), 1u);
  fs::resize_file(local_files()[0], 4);
  for (const bool there : {false, true}) { /* the folder of what is kept */
    if (there) {
      fs::create_directory(folder_.path() / "files" / "kept");
    }
    Cache cache(cloud_, folder_);
    EXPECT_EQ(local_files().size(), there ? 0u : 1u);
    EXPECT_EQ(kept(), there ? 1u : 0u);
    EXPECT_EQ(cache->unsaved(), there ? 0u : 1u);
  }
}

/* Two opens change a file, one closes, the other one writes on and dies. */
TEST_F(Loss, WhatAnotherOpenWroteAfterTheCloseIsNotLostWithItsClient) {
  cloud_.set("f", "old");
  Cache cache(cloud_, folder_, {.wait = milliseconds(1)});
  refuse_uploads(CloudResult::of(CloudCode::OFFLINE));
  const auto one = cache.open("f");
  const auto two = cache.open("f");
  EXPECT_EQ(cache.write(one, "one") | cache.write(two, "two"), 0);
  EXPECT_EQ(cache.close(one), 0);
  EXPECT_EQ(Cache::write_silently(two, "TWO"), 0);
  EXPECT_EQ(cache.close(two, Closing::CLIENT_DIED), 0);
  cloud_.before = nullptr;
  cache->uploads().kick();
  EXPECT_TRUE(cache.settles());
  EXPECT_EQ(cloud_.content("f"), "two");
  EXPECT_EQ(beside("f"), "TWO");
}

TEST_F(Loss, AChangeThatCannotBeRecordedDoesNotHappenHoweverOftenItIsAskedFor) {
  const std::string version = cloud_.set("f", "content");
  Cache cache(cloud_, folder_);
  const auto opened = cache.open("f");
  ASSERT_EQ(cache.fetch(opened, 7), 0);
  for (const bool full : {true, true, false}) {
    database_is_full = full;
    EXPECT_EQ(cache.open("f", true).error, full ? OX_ENOSPC : 0);
    EXPECT_EQ(fs::file_size(local_files()[0]), full ? 7u : 0u);
    EXPECT_EQ(cache.write(opened, "new"), full ? OX_ENOSPC : 0);
    EXPECT_EQ(opened.file().truncate(opened.part(), 3), full ? OX_ENOSPC : 0);
    EXPECT_EQ(opened.file().has_unsaved(), !full);
  }
  EXPECT_EQ(cache.close(opened), 0);
  EXPECT_EQ(cloud_.content("f"), "new");
}

TEST_F(Loss, ATransferHoldsUpNobodyElse) {
  cloud_.set("big", "old");
  cloud_.set("a", "a");
  Cache cache(cloud_, folder_, {.wait = milliseconds(50)});
  std::promise<void> go;
  const std::shared_future<void> gone = go.get_future().share();
  std::atomic<int> puts = 0;
  cloud_.before = [&](CloudCall call, const std::string& path) {
    if (changes(call) && path.starts_with("big") && puts++ == 0) {
      gone.wait();
    }
    return CloudResult();
  };
  EXPECT_EQ(cache.change("big", "new"), 0) << "answered while it goes up";
  EXPECT_EQ(cache.rename("a", "b"), 0);
  EXPECT_EQ(cache.change("b", "c"), 0);
  EXPECT_EQ(cloud_.content("b"), "c");
  EXPECT_EQ(cloud_.content("big"), "old");
  auto renamed = std::async(std::launch::async, [&] { return cache.rename("big", "big 2"); });
  EXPECT_EQ(cache.rename("b", "a"), 0) << "while the other rename waits for its upload";
  EXPECT_EQ(renamed.wait_for(milliseconds(0)), std::future_status::timeout);
  go.set_value();
  EXPECT_EQ(renamed.get(), 0);
  EXPECT_TRUE(cache.settles());
  EXPECT_EQ(cloud_.content("big 2"), "new");
  EXPECT_EQ(cloud_.files(), 2u);
}

/* Each call of the cloud fails once, until a run in which there is no such call. */
TEST_F(Loss, AFailedCallDuringARenameLosesNoFileAndMakesNoSecondOne) {
  for (int failing = 0, calls = 1; failing < calls; failing++) {
    SCOPED_TRACE(failing);
    TestFolder folder;
    MemoryCloud cloud;
    cloud.set("f", "old content");
    Cache cache(cloud, folder);
    const auto opened = cache.open("f");
    ASSERT_EQ(cache.write(opened, "new"), 0);
    calls = 0;
    cloud.before = [&](CloudCall, const std::string&) {
      return calls++ == failing ? CloudResult::of(CloudCode::OFFLINE) : CloudResult();
    };
    const bool moved = cache.rename("f", "g") == 0;
    cloud.before = nullptr;
    EXPECT_EQ(moved, failing >= calls);
    const auto again = cache.open(moved ? "g" : "f");
    EXPECT_EQ(again.error, 0);
    EXPECT_EQ(again.open->file, opened.open->file) << "one cached file";
    EXPECT_EQ(cache.fetch(again, 11), 0);
    EXPECT_EQ(cache.close(again) | cache.close(opened), 0);
    EXPECT_TRUE(cache.settles());
    EXPECT_EQ(cloud.content(moved ? "g" : "f"), "new content");
    EXPECT_EQ(cloud.files(), 1u);
  }
}

/*
 * The service ends when the cloud has renamed the file or the folder above it, or had no answer: it
 * looks in both places.
 */
TEST_F(Loss, AFileIsFoundWhereARenameWithoutAnAnswerLeftIt) {
  for (int way = 0; way < 16; way++) {
    const bool closed = (way & 1) != 0;
    const bool arrives = (way & 2) != 0;
    const bool whole = (way & 4) != 0; /* the folder is renamed */
    const bool fresh = (way & 8) != 0; /* the file is not in the cloud yet */
    SCOPED_TRACE(way);
    TestFolder folder;
    MemoryCloud cloud;
    CloudEntry made;
    ASSERT_TRUE(cloud.make_folder({}, "d", &made).ok());
    const std::string rest(fresh ? 0 : 60, '.'); /* of which nothing is local */
    if (!fresh) {
      cloud.set("d/f", "old content" + rest);
    }
    const std::string from = whole ? "d" : "d/f";
    const std::string to = whole ? "e" : "d/g";
    {
      Cache cache(cloud, folder, {.wait = milliseconds(1)});
      std::atomic<bool> away = false; /* from the rename on, so that nobody looks too early */
      cloud.before = [&](CloudCall call, const std::string&) {
        const bool is_rename = call == CloudCall::RENAME;
        away = away || is_rename;
        return is_rename               ? CloudResult::of(CloudCode::UNKNOWN_OUTCOME)
               : away || changes(call) ? CloudResult::of(CloudCode::OFFLINE)
                                       : CloudResult();
      };
      const auto opened = cache.open("d/f");
      EXPECT_EQ(cache.write(opened, fresh ? "new content" : "new"), 0);
      EXPECT_EQ(closed ? cache.close(opened) : 0, 0);
      cache->clean_up(*opened.open);
      EXPECT_EQ(cache.rename(from, to) == 0, fresh && !whole) << "of what the cloud does not have";
    }
    cloud.before = nullptr;
    if (arrives && (whole || !fresh)) {
      EXPECT_TRUE(cloud.rename({}, from, to, {}, &made).ok());
    }
    Cache cache(cloud, folder);
    EXPECT_TRUE(cache.settles());
    const std::string parent = whole && arrives ? "e" : "d";
    const bool moved = !whole && (arrives || fresh);
    const std::string name = parent + (moved ? "/g" : "/f");
    const std::string old = fresh ? "none" : "old content" + rest;
    EXPECT_EQ(cloud.content(name), closed ? "new content" + rest : old);
    EXPECT_EQ(cloud.files(), closed || fresh ? 2u : 3u) << "with the folder";
  }
}

TEST_F(Loss, AFailedUploadIsTriedAgainAndOnlyARefusalFailsTheClose) {
  Cache cache(cloud_, folder_, {.wait = milliseconds(300)});
  const struct {
    CloudResult result;
    int error;
  } cases[] = {{CloudResult::of(CloudCode::OFFLINE), 0},
               {CloudResult::busy(milliseconds(1)), 0},
               {CloudResult::of(CloudCode::UNAUTHORISED), 0},
               {CloudResult::of(CloudCode::NO_SPACE), OX_ENOSPC}};
  for (const auto& c : cases) {
    const std::string name = name_of(c.result.code);
    const auto opened = cache.open(name);
    refuse_uploads(c.result);
    EXPECT_EQ(cache.write(opened, "new"), 0);
    EXPECT_EQ(cache.close(opened), c.error) << name;
    EXPECT_EQ(cache->unsaved(), 1u);
    cloud_.before = nullptr;
    EXPECT_EQ(c.error == 0 ? 0 : cache.close(opened), 0) << "it may be repeated";
    cache->uploads().kick();
    EXPECT_TRUE(cache.settles());
    EXPECT_EQ(cloud_.content(name), "new");
  }
}

/* Another client comes between our look and our change. */
TEST_F(Loss, NothingIsReplacedThatNobodyLookedAt) {
  Cache cache(cloud_, folder_);
  cloud_.set("old", "first content, of which a piece is read");
  const auto old = cache.open("old");
  const auto made = cache.open("made");
  EXPECT_EQ(cache.write(old, "ours") | cache.write(made, "ours"), 0);
  cloud_.set("old", "theirs");
  cloud_.set("made", "theirs");
  EXPECT_EQ(cache.fetch(old, 30), OX_EIO) << "never a mixture";
  EXPECT_EQ(cache.close(made) | cache.close(old), 0);
  EXPECT_TRUE(cache.settles());
  EXPECT_EQ(cloud_.content("old") + cloud_.content("made"), "theirstheirs");
  EXPECT_EQ(beside("made"), "ours");
}

TEST_F(Loss, ClosedFilesGoWhenTheCacheIsFullAndTheDiskKeepsItsFloor) {
  Cache cache(cloud_, folder_, {.cache_size = 128, .keep_free = 900});
  for (const char* name : {"a", "b", "c", "d"}) {
    cloud_.set(name, std::string(64, *name));
    const auto opened = cache.open(name);
    EXPECT_EQ(cache.fetch(opened, 64), 0);
    cache.close(opened, Closing::UNMODIFIED);
  }
  const auto used = cache.open("a");
  cache->trim();
  EXPECT_EQ(local_files().size(), 2u) << "the open one, and the one that was used last";
  cloud_.set("large", std::string(101, 'x'));
  EXPECT_EQ(cache.fetch(cache.open("large"), 101), OX_ENOSPC);
}

} /* namespace */
