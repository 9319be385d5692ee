/*
 * A cached file as the library uses it: maps that go stale, a local file that is written behind the
 * service's back, several opens, kills and changes in the cloud, compared with plain memory.
 */
#include "files/cached_file.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <random>
#include <thread>

#include "files/recovery.h"
#include "memory_cloud.h"
#include "test_folder.h"
#include "vfstnw_bits.h"

namespace {

using tarnd::CachedFile;
using tarnd::Closing;
using tarnd::RegionAnswer;

constexpr const char* PATH = "file";

/* The library's side of one open: its copies of the maps and its handle of the local file. */
class Handle {
 public:
  Handle(std::shared_ptr<CachedFile> file, int shift, bool writable, bool truncate)
      : file_(std::move(file)), shift_(shift) {
    part.writable = writable;
    EXPECT_EQ(file_->attach(&part, truncate, GetCurrentProcessId(), &view_), 0);
    handle_ = reinterpret_cast<HANDLE>(view_.handle);
  }
  ~Handle() { CloseHandle(handle_); }

  bool writable() const { return part.writable; }
  uint64_t size_at_open() const { return view_.size; }

  tarnd::FileOpen part;
  bool modified = false;

  std::string read(uint64_t offset, uint32_t length) {
    cache(offset, length);
    std::string data(length, '\0');
    DWORD got = 0;
    OVERLAPPED position = at(offset);
    ReadFile(handle_, data.data(), length, &got, &position);
    data.resize(got);
    return data;
  }

  void write(uint64_t offset, const std::string& data) {
    cache(offset, data.size());
    if (!has(1, offset, data.size())) {
      RegionAnswer answer;
      ASSERT_EQ(file_->dirty_regions(&part, offset, data.size(), &answer), 0);
      answer.clear ? drop() : mark_both(offset, data.size(), false);
    }
    DWORD written = 0;
    OVERLAPPED position = at(offset);
    ASSERT_TRUE(
        WriteFile(handle_, data.data(), static_cast<DWORD>(data.size()), &written, &position));
    modified |= writable();
  }

  void set_size(uint64_t size) {
    uint64_t old = 0;
    if (has_maps_ && size != 0) {
      const uint64_t region = (size - 1) >> shift_ << shift_;
      RegionAnswer answer;
      ASSERT_EQ(file_->cache_regions(&part, region, 1u << shift_, true, &answer), 0);
      old = answer.size;
    }
    if (has_maps_ || size == 0) {
      ASSERT_EQ(file_->truncate(&part, size), 0);
    }
    if (size == 0) {
      drop();
    }
    const uint64_t from = up(std::min(old, size));
    const uint64_t to = up(std::max(old, size));
    mark_both(from, to - from, old > size);
    resize(size);
    modified = true;
  }

  /* Without a word to the service. */
  void resize(uint64_t size) {
    FILE_END_OF_FILE_INFO info = {};
    info.EndOfFile.QuadPart = static_cast<LONGLONG>(size);
    ASSERT_TRUE(SetFileInformationByHandle(handle_, FileEndOfFileInfo, &info, sizeof info));
  }

  int close(Closing how) { return file_->detach(&part, how); }

 private:
  void cache(uint64_t offset, size_t length) {
    if (has(0, offset, length)) {
      return;
    }
    RegionAnswer answer;
    ASSERT_EQ(file_->cache_regions(&part, offset, length, false, &answer), 0);
    EXPECT_TRUE(answer.clear || answer.cached >= length);
    answer.clear ? drop() : mark(0, offset, answer.cached, false);
  }
  static OVERLAPPED at(uint64_t offset) {
    OVERLAPPED position = {};
    position.Offset = static_cast<DWORD>(offset);
    return position;
  }
  uint64_t up(uint64_t size) const { return (size + (1u << shift_) - 1) >> shift_ << shift_; }
  uint8_t* map(size_t which) { return view_.maps.data() + which * view_.map_bytes; }
  uint64_t map_end() const { return uint64_t{view_.map_bytes * 8} << shift_; }
  bool has(size_t which, uint64_t offset, size_t length) {
    return !has_maps_ ||
           (offset + length <= map_end() &&
            vfstnw_is_region_set(map(which), shift_, static_cast<ox_s64>(offset), length));
  }
  void mark(size_t which, uint64_t offset, uint64_t length, bool clear) {
    const uint64_t end = std::min(offset + length, map_end());
    if (has_maps_ && offset < end) {
      vfstnw_set_region_bits(map(which), shift_, static_cast<ox_s64>(offset), end - offset, clear);
    }
  }
  void mark_both(uint64_t offset, uint64_t length, bool clear) {
    mark(0, offset, length, clear);
    mark(1, offset, length, clear);
  }
  void drop() { has_maps_ = false; }

  std::shared_ptr<CachedFile> file_;
  int shift_;
  tarnd::FileView view_;
  HANDLE handle_ = nullptr;
  bool has_maps_ = true;
};

class CachedFileTest : public testing::Test {
 protected:
  /* A new start of the service; `content` is what the cloud has, when it was changed meanwhile. */
  void reopen(int shift, std::optional<std::string> content = {}) {
    if (content) {
      cloud_.set(PATH, *content);
    }
    env_ = std::make_unique<tarnd::CacheEnvironment>(
        tarnd::CacheEnvironment{cloud_, counters_, folder_.path().wstring(), shift});
    file_ = std::make_shared<CachedFile>(*env_, PATH);
  }
  std::unique_ptr<Handle> open(bool writable = true, bool truncate = false) {
    return std::make_unique<Handle>(file_, env_->region_shift, writable, truncate);
  }
  size_t files_left() const {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(folder_.path()),
                                             std::filesystem::directory_iterator()));
  }

  TestFolder folder_;
  MemoryCloud cloud_;
  tarnd::Counters counters_;
  std::unique_ptr<tarnd::CacheEnvironment> env_;
  std::shared_ptr<CachedFile> file_;
  RegionAnswer answer_;
};

/* ------------------------------------------------------------------ the model */

class Model : public CachedFileTest, public testing::WithParamInterface<int> {
 protected:
  size_t pick(size_t bound) { return random_() % bound; }
  std::string random_data(size_t length) {
    std::string data(length, '\0');
    for (char& c : data) {
      c = static_cast<char>('a' + pick(26));
    }
    return data;
  }
  Handle& any() { return *handles_[pick(handles_.size())]; }

  void make_step() {
    const size_t choice = pick(100);
    if (handles_.empty() || (choice < 12 && handles_.size() < 4)) {
      open_one();
    } else if (choice < 40) {
      read_one();
    } else if (choice < 80) {
      write_one();
    } else if (choice < 84) {
      resize_one();
    } else if (choice < 98) {
      close_one();
    } else {
      kill();
    }
  }

  void open_one() {
    if (handles_.empty() && pick(4) == 0) {
      content_ = random_data(pick(MAX_SIZE));
      cloud_.set(PATH, content_);
    }
    const bool truncate = pick(8) == 0;
    content_ = truncate ? "" : content_;
    handles_.push_back(open(pick(3) != 0, truncate));
    EXPECT_EQ(handles_.back()->size_at_open(), content_.size());
  }
  void read_one() {
    const size_t offset = pick(MAX_SIZE);
    const size_t length = 1 + pick(MAX_SIZE / 2);
    const std::string expected =
        offset < content_.size() ? content_.substr(offset, length) : std::string();
    ASSERT_EQ(any().read(offset, static_cast<uint32_t>(length)), expected);
  }
  void write_one() {
    const size_t offset = pick(MAX_SIZE);
    const std::string data = random_data(1 + pick(60));
    content_.resize(std::max(content_.size(), offset + data.size()), '\0');
    content_.replace(offset, data.size(), data);
    Handle& handle = any();
    handle.write(offset, data);
    written_read_only_ |= !handle.writable();
  }
  void resize_one() {
    const size_t size = pick(3) == 0 ? 0 : pick(MAX_SIZE);
    content_.resize(size, '\0');
    any().set_size(size);
  }
  /* A mark of read-only writes travels with the next close of a writable open. */
  void close_one() {
    const size_t index = pick(handles_.size());
    Handle& handle = *handles_[index];
    const bool carries = handle.writable() && written_read_only_;
    const bool modified = handle.modified || carries;
    written_read_only_ = written_read_only_ && !carries;
    ASSERT_EQ(handle.close(modified ? Closing::MODIFIED : Closing::UNMODIFIED), 0);
    handles_.erase(handles_.begin() + static_cast<ptrdiff_t>(index));
    written_read_only_ = written_read_only_ && !handles_.empty();
    if (modified || handles_.empty()) {
      ASSERT_EQ(cloud_.content_of(PATH), content_);
    }
  }
  void kill() {
    handles_.clear();
    written_read_only_ = false;
    reopen(GetParam());
    tarnd::recover_cache(*env_);
    ASSERT_EQ(cloud_.content_of(PATH), content_);
    ASSERT_EQ(files_left(), 0u);
  }

  static constexpr size_t MAX_SIZE = 400;
  std::mt19937 random_{20240229};
  std::string content_;
  std::vector<std::unique_ptr<Handle>> handles_;
  bool written_read_only_ = false;
};

TEST_P(Model, EveryReadAndEveryWriteBackIsAsInPlainMemory) {
  reopen(GetParam(), "");
  for (int step = 0; step < 2000 && !HasFailure(); step++) {
    SCOPED_TRACE(step);
    make_step();
  }
  EXPECT_GT(cloud_.writes, 100) << "the steps reach what they are to test";
  EXPECT_GT(counters_.regions_fetched, 20u);
}
INSTANTIATE_TEST_SUITE_P(Shifts, Model, testing::Values(0, 3, 5, 20));

/*
 * ------------------------------------------------------------------ what the model does not show
 */

TEST_F(CachedFileTest, FetchesOnlyWhatIsAskedAndOnlyOnce) {
  reopen(4, std::string(100, 'x'));
  const auto first = open();
  const auto second = open();
  EXPECT_EQ(cloud_.reads, 0);
  first->read(20, 1);
  second->read(20, 1);
  EXPECT_EQ(counters_.regions_fetched, 1u) << "kept once for the file";
  EXPECT_EQ(counters_.bytes_fetched, 16u);
  first->read(90, 50);
  EXPECT_EQ(counters_.bytes_fetched, 16u + 20u) << "two regions, the last one 4 bytes long";
}

TEST_F(CachedFileTest, ARegionReportedDirtyUnfetchedIsNotHalfLost) {
  reopen(4, std::string(32, 'x'));
  const auto handle = open();
  ASSERT_EQ(file_->dirty_regions(&handle->part, 5, 1, &answer_), 0);
  EXPECT_EQ(handle->close(Closing::MODIFIED), 0);
  EXPECT_EQ(cloud_.content_of(PATH), std::string(32, 'x'));
}

TEST_F(CachedFileTest, OnlyAnOpenWhoseContentIsGoneIsToldToDropItsMaps) {
  reopen(4, std::string(32, 'x'));
  const auto before = open();
  const auto after = open(true, true);
  EXPECT_EQ(file_->dirty_regions(&after->part, 0, 1, &answer_), 0);
  EXPECT_FALSE(answer_.clear) << "its maps are those of the empty file";
  EXPECT_EQ(file_->cache_regions(&before->part, 0, 1, false, &answer_), 0);
  EXPECT_TRUE(answer_.clear);
  EXPECT_EQ(file_->cache_regions(&before->part, 0, 1, false, &answer_), OX_ENOTTY);
}

/*
 * Each thread writes its own bytes, which share regions with those of the others, and closes with
 * write-backs in between.
 */
TEST_F(CachedFileTest, ParallelOpensLoseNoByte) {
  constexpr size_t THREADS = 4;
  constexpr size_t LENGTH = 400;
  reopen(5, std::string(LENGTH, '-'));
  const auto work = [&](size_t which) {
    for (size_t round = 0; round < 40; round++) {
      const auto handle = open();
      for (size_t at = which + THREADS * (round % 7); at < LENGTH; at += 7 * THREADS) {
        handle->write(at, std::string(1, "abcd"[which]));
      }
      EXPECT_EQ(handle->close(Closing::MODIFIED), 0);
    }
  };
  std::vector<std::thread> threads;
  for (size_t i = 0; i < THREADS; i++) {
    threads.emplace_back(work, i);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::string expected;
  while (expected.size() < LENGTH) {
    expected += "abcd";
  }
  EXPECT_EQ(cloud_.content_of(PATH), expected);
}

TEST_F(CachedFileTest, ARefusedWriteBackIsTriedAgain) {
  reopen(4, "old content");
  auto handle = open();
  handle->write(0, "new");
  cloud_.write_error = OX_ENOSPC;
  EXPECT_EQ(handle->close(Closing::MODIFIED), OX_ENOSPC);
  EXPECT_EQ(cloud_.content_of(PATH), "old content");
  cloud_.write_error = 0;
  EXPECT_EQ(handle->close(Closing::MODIFIED), 0);
  EXPECT_EQ(cloud_.content_of(PATH), "new content");
  EXPECT_EQ(handle->close(Closing::MODIFIED), OX_EBADF) << "closed once";

  handle = open();
  handle->write(0, "NEW");
  cloud_.write_error = OX_EIO;
  EXPECT_EQ(handle->close(Closing::CLIENT_DIED), 0);
  EXPECT_EQ(open()->read(0, 50), "NEW content") << "what could not be written back";
  handle.reset();
  reopen(4);
  EXPECT_EQ(tarnd::recover_cache(*env_), 0u);
  cloud_.write_error = 0;
  EXPECT_EQ(tarnd::recover_cache(*env_), 1u);
  EXPECT_EQ(cloud_.content_of(PATH), "NEW content");
}

TEST_F(CachedFileTest, ContentsAreNeverMixed) {
  reopen(4, std::string(64, 'b'));
  auto handle = open();
  handle->write(0, "mine");
  cloud_.set(PATH, std::string(64, 'c'));
  EXPECT_EQ(file_->cache_regions(&open()->part, 32, 1, false, &answer_), OX_EIO);
  EXPECT_EQ(handle->close(Closing::MODIFIED), OX_EIO) << "not all of it is local";
  EXPECT_EQ(cloud_.content_of(PATH), std::string(64, 'c'));
  handle->set_size(16);
  EXPECT_EQ(handle->close(Closing::MODIFIED), 0) << "the last writer wins";
  EXPECT_EQ(cloud_.content_of(PATH), "minebbbbbbbbbbbb");
}

/* As when the client's truncate request failed or never came. */
TEST_F(CachedFileTest, ASizeThatTheServiceWasNotToldOfIsWrittenBack) {
  const std::string old = "0123456789abcdef0123456789ABCDEF";
  for (const size_t size : {0, 5, 16, 20, 33, 100}) {
    for (const Closing how : {Closing::UNMODIFIED, Closing::CLIENT_DIED}) {
      SCOPED_TRACE(testing::Message() << size << ' ' << static_cast<int>(how));
      reopen(4, old);
      const auto reader = open(false);
      const auto handle = open();
      handle->resize(size);
      EXPECT_EQ(handle->close(how), 0);
      std::string expected = old;
      expected.resize(size, '\0');
      EXPECT_EQ(reader->read(0, 200), expected);
      EXPECT_EQ(reader->close(Closing::UNMODIFIED), 0);
      EXPECT_EQ(cloud_.content_of(PATH), expected);
    }
  }
}

TEST_F(CachedFileTest, WhatAHandleDoesToTheSizeAfterItsCloseDoesNotCount) {
  const std::string old(32, 'x');
  reopen(4, old);
  auto handle = open();
  EXPECT_EQ(handle->close(Closing::UNMODIFIED), 0);
  handle->resize(5);
  handle = open();
  EXPECT_EQ(handle->read(0, 8), old.substr(0, 8));
  handle.reset();
  reopen(4);
  EXPECT_EQ(tarnd::recover_cache(*env_), 0u) << "killed";
  EXPECT_EQ(cloud_.content_of(PATH), old);
}

TEST_F(CachedFileTest, RecoveryNeverOverwritesAChangedFile) {
  reopen(4, "old content");
  open()->write(0, "new");
  reopen(4, "somebody else's");
  EXPECT_EQ(tarnd::recover_cache(*env_), 0u);
  EXPECT_EQ(cloud_.content_of(PATH), "somebody else's");
  const auto kept = std::filesystem::directory_iterator(folder_.path() / "kept");
  EXPECT_EQ(std::distance(begin(kept), end(kept)), 2) << "the file and its journal";
}

TEST_F(CachedFileTest, RangesThatNoFileHas) {
  reopen(4, "x");
  const auto handle = open();
  tarnd::FileOpen* open = &handle->part;
  const uint64_t max = uint64_t{1} << 35;
  EXPECT_EQ(file_->cache_regions(open, max, 1, false, &answer_), OX_E2BIG);
  EXPECT_EQ(file_->cache_regions(open, max - 1, UINT64_MAX, false, &answer_), 0);
  EXPECT_EQ(answer_.cached, 1u);
  EXPECT_EQ(file_->dirty_regions(open, max - 1, 2, &answer_), OX_ENOSPC);
  EXPECT_EQ(file_->dirty_regions(open, UINT64_MAX, UINT64_MAX, &answer_), OX_ENOSPC);
  EXPECT_EQ(file_->truncate(open, max + 1), OX_ENOSPC);
  EXPECT_EQ(handle->close(Closing::UNMODIFIED), 0);
  EXPECT_EQ(cloud_.writes, 0);
  EXPECT_EQ(file_->cache_regions(open, 0, 1, false, &answer_), OX_EBADF) << "after its close";
}

TEST_F(CachedFileTest, RenamedAndDeletedWhileOpen) {
  reopen(2, "old content");
  auto handle = open();
  handle->write(0, "new");
  {
    const CachedFile::Hold hold = file_->hold_for_move();
    cloud_.rename(PATH, "elsewhere", false);
    file_->moved(hold, "elsewhere");
  }
  handle->write(4, "CONTENT");
  handle.reset();
  reopen(2);
  EXPECT_EQ(tarnd::recover_cache(*env_), 1u) << "killed";
  EXPECT_EQ(cloud_.content_of("elsewhere"), "new CONTENT");

  cloud_.set(PATH, "not fetched yet");
  handle = open();
  ASSERT_EQ(file_->remove(PATH, true), 0);
  EXPECT_EQ(handle->read(0, 50), "not fetched yet");
  handle->write(0, "x");
  EXPECT_EQ(handle->close(Closing::MODIFIED), 0);
  tarnd::CloudEntry entry;
  EXPECT_EQ(cloud_.status(PATH, &entry), OX_ENOENT) << "not brought back";
  handle.reset();
  EXPECT_EQ(files_left(), 0u);
}

}  // namespace
