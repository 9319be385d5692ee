/*
 * A cached file as the library uses it: maps that go stale, a local file that is written behind the
 * service's back, several opens, kills and changes in the cloud, compared with plain memory.
 */
#include "cached_file.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <random>
#include <thread>

#include "memory_cloud.h"
#include "recovery.h"
#include "test_folder.h"
#include "vfstnw_bits.h"

namespace {

using tarnd::CachedFile;
using tarnd::Closing;
using tarnd::RegionAnswer;

constexpr const char* kPath = "file";

/* The library's side of one open: its copies of the maps and its handle of the local file. */
class Handle {
 public:
  Handle(std::shared_ptr<CachedFile> file, int shift, bool writable, bool truncate)
      : file_(std::move(file)), shift_(shift) {
    part.writable = writable;
    EXPECT_EQ(file_->Attach(&part, truncate, GetCurrentProcessId(), &view_), 0);
    handle_ = reinterpret_cast<HANDLE>(view_.handle);
  }
  ~Handle() { CloseHandle(handle_); }

  bool writable() const { return part.writable; }
  uint64_t size_at_open() const { return view_.size; }

  tarnd::FileOpen part;
  bool modified = false;

  std::string Read(uint64_t offset, uint32_t length) {
    Cache(offset, length);
    std::string data(length, '\0');
    DWORD got = 0;
    OVERLAPPED position = At(offset);
    ReadFile(handle_, data.data(), length, &got, &position);
    data.resize(got);
    return data;
  }

  void Write(uint64_t offset, const std::string& data) {
    Cache(offset, data.size());
    if (!Has(1, offset, data.size())) {
      RegionAnswer answer;
      ASSERT_EQ(file_->DirtyRegions(&part, offset, data.size(), &answer), 0);
      answer.clear ? Drop() : MarkBoth(offset, data.size(), false);
    }
    DWORD written = 0;
    OVERLAPPED position = At(offset);
    ASSERT_TRUE(
        WriteFile(handle_, data.data(), static_cast<DWORD>(data.size()), &written, &position));
    modified |= writable();
  }

  void SetSize(uint64_t size) {
    uint64_t old = 0;
    if (has_maps_ && size != 0) {
      const uint64_t region = (size - 1) >> shift_ << shift_;
      RegionAnswer answer;
      ASSERT_EQ(file_->CacheRegions(&part, region, 1u << shift_, true, &answer), 0);
      old = answer.size;
    }
    if (has_maps_ || size == 0) {
      ASSERT_EQ(file_->Truncate(&part, size), 0);
    }
    if (size == 0) {
      Drop();
    }
    const uint64_t from = Up(std::min(old, size));
    const uint64_t to = Up(std::max(old, size));
    MarkBoth(from, to - from, old > size);
    Resize(size);
    modified = true;
  }

  /* Without a word to the service. */
  void Resize(uint64_t size) {
    FILE_END_OF_FILE_INFO info = {};
    info.EndOfFile.QuadPart = static_cast<LONGLONG>(size);
    ASSERT_TRUE(SetFileInformationByHandle(handle_, FileEndOfFileInfo, &info, sizeof info));
  }

  int Close(Closing how) { return file_->Detach(&part, how); }

 private:
  void Cache(uint64_t offset, size_t length) {
    if (Has(0, offset, length)) {
      return;
    }
    RegionAnswer answer;
    ASSERT_EQ(file_->CacheRegions(&part, offset, length, false, &answer), 0);
    EXPECT_TRUE(answer.clear || answer.cached >= length);
    answer.clear ? Drop() : Mark(0, offset, answer.cached, false);
  }
  static OVERLAPPED At(uint64_t offset) {
    OVERLAPPED position = {};
    position.Offset = static_cast<DWORD>(offset);
    return position;
  }
  uint64_t Up(uint64_t size) const { return (size + (1u << shift_) - 1) >> shift_ << shift_; }
  uint8_t* Map(size_t which) { return view_.maps.data() + which * view_.map_bytes; }
  uint64_t MapEnd() const { return uint64_t{view_.map_bytes * 8} << shift_; }
  bool Has(size_t which, uint64_t offset, size_t length) {
    return !has_maps_ ||
           (offset + length <= MapEnd() &&
            vfstnw_is_region_set(Map(which), shift_, static_cast<ox_s64>(offset), length));
  }
  void Mark(size_t which, uint64_t offset, uint64_t length, bool clear) {
    const uint64_t end = std::min(offset + length, MapEnd());
    if (has_maps_ && offset < end) {
      vfstnw_set_region_bits(Map(which), shift_, static_cast<ox_s64>(offset), end - offset, clear);
    }
  }
  void MarkBoth(uint64_t offset, uint64_t length, bool clear) {
    Mark(0, offset, length, clear);
    Mark(1, offset, length, clear);
  }
  void Drop() { has_maps_ = false; }

  std::shared_ptr<CachedFile> file_;
  int shift_;
  tarnd::FileView view_;
  HANDLE handle_ = nullptr;
  bool has_maps_ = true;
};

class CachedFileTest : public testing::Test {
 protected:
  /* A new start of the service; `content` is what the cloud has, when it was changed meanwhile. */
  void Reopen(int shift, std::optional<std::string> content = {}) {
    if (content) {
      cloud_.Set(kPath, *content);
    }
    env_ = std::make_unique<tarnd::CacheEnvironment>(
        tarnd::CacheEnvironment{cloud_, counters_, folder_.path().wstring(), shift});
    file_ = std::make_shared<CachedFile>(*env_, kPath);
  }
  std::unique_ptr<Handle> Open(bool writable = true, bool truncate = false) {
    return std::make_unique<Handle>(file_, env_->region_shift, writable, truncate);
  }
  size_t FilesLeft() const {
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
  size_t Pick(size_t bound) { return random_() % bound; }
  std::string Data(size_t length) {
    std::string data(length, '\0');
    for (char& c : data) {
      c = static_cast<char>('a' + Pick(26));
    }
    return data;
  }
  Handle& Any() { return *handles_[Pick(handles_.size())]; }

  void Step() {
    const size_t choice = Pick(100);
    if (handles_.empty() || (choice < 12 && handles_.size() < 4)) {
      OpenOne();
    } else if (choice < 40) {
      ReadOne();
    } else if (choice < 80) {
      WriteOne();
    } else if (choice < 84) {
      ResizeOne();
    } else if (choice < 98) {
      CloseOne();
    } else {
      Kill();
    }
  }

  void OpenOne() {
    if (handles_.empty() && Pick(4) == 0) {
      content_ = Data(Pick(kMaxSize));
      cloud_.Set(kPath, content_);
    }
    const bool truncate = Pick(8) == 0;
    content_ = truncate ? "" : content_;
    handles_.push_back(Open(Pick(3) != 0, truncate));
    EXPECT_EQ(handles_.back()->size_at_open(), content_.size());
  }
  void ReadOne() {
    const size_t offset = Pick(kMaxSize);
    const size_t length = 1 + Pick(kMaxSize / 2);
    const std::string expected =
        offset < content_.size() ? content_.substr(offset, length) : std::string();
    ASSERT_EQ(Any().Read(offset, static_cast<uint32_t>(length)), expected);
  }
  void WriteOne() {
    const size_t offset = Pick(kMaxSize);
    const std::string data = Data(1 + Pick(60));
    content_.resize(std::max(content_.size(), offset + data.size()), '\0');
    content_.replace(offset, data.size(), data);
    Handle& handle = Any();
    handle.Write(offset, data);
    written_read_only_ |= !handle.writable();
  }
  void ResizeOne() {
    const size_t size = Pick(3) == 0 ? 0 : Pick(kMaxSize);
    content_.resize(size, '\0');
    Any().SetSize(size);
  }
  /* A mark of read-only writes travels with the next close of a writable open. */
  void CloseOne() {
    const size_t index = Pick(handles_.size());
    Handle& handle = *handles_[index];
    const bool carries = handle.writable() && written_read_only_;
    const bool modified = handle.modified || carries;
    written_read_only_ = written_read_only_ && !carries;
    ASSERT_EQ(handle.Close(modified ? Closing::kModified : Closing::kUnmodified), 0);
    handles_.erase(handles_.begin() + static_cast<ptrdiff_t>(index));
    written_read_only_ = written_read_only_ && !handles_.empty();
    if (modified || handles_.empty()) {
      ASSERT_EQ(cloud_.Content(kPath), content_);
    }
  }
  void Kill() {
    handles_.clear();
    written_read_only_ = false;
    Reopen(GetParam());
    tarnd::RecoverCache(*env_);
    ASSERT_EQ(cloud_.Content(kPath), content_);
    ASSERT_EQ(FilesLeft(), 0u);
  }

  static constexpr size_t kMaxSize = 400;
  std::mt19937 random_{20240229};
  std::string content_;
  std::vector<std::unique_ptr<Handle>> handles_;
  bool written_read_only_ = false;
};

TEST_P(Model, EveryReadAndEveryWriteBackIsAsInPlainMemory) {
  Reopen(GetParam(), "");
  for (int step = 0; step < 2000 && !HasFailure(); step++) {
    SCOPED_TRACE(step);
    Step();
  }
  EXPECT_GT(cloud_.writes, 100) << "the steps reach what they are to test";
  EXPECT_GT(counters_.regions_fetched, 20u);
}
INSTANTIATE_TEST_SUITE_P(Shifts, Model, testing::Values(0, 3, 5, 20));

/*
 * ------------------------------------------------------------------ what the model does not show
 */

TEST_F(CachedFileTest, FetchesOnlyWhatIsAskedAndOnlyOnce) {
  Reopen(4, std::string(100, 'x'));
  const auto first = Open();
  const auto second = Open();
  EXPECT_EQ(cloud_.reads, 0);
  first->Read(20, 1);
  second->Read(20, 1);
  EXPECT_EQ(counters_.regions_fetched, 1u) << "kept once for the file";
  EXPECT_EQ(counters_.bytes_fetched, 16u);
  first->Read(90, 50);
  EXPECT_EQ(counters_.bytes_fetched, 16u + 20u) << "two regions, the last one 4 bytes long";
}

TEST_F(CachedFileTest, ARegionReportedDirtyUnfetchedIsNotHalfLost) {
  Reopen(4, std::string(32, 'x'));
  const auto handle = Open();
  ASSERT_EQ(file_->DirtyRegions(&handle->part, 5, 1, &answer_), 0);
  EXPECT_EQ(handle->Close(Closing::kModified), 0);
  EXPECT_EQ(cloud_.Content(kPath), std::string(32, 'x'));
}

TEST_F(CachedFileTest, OnlyAnOpenWhoseContentIsGoneIsToldToDropItsMaps) {
  Reopen(4, std::string(32, 'x'));
  const auto before = Open();
  const auto after = Open(true, true);
  EXPECT_EQ(file_->DirtyRegions(&after->part, 0, 1, &answer_), 0);
  EXPECT_FALSE(answer_.clear) << "its maps are those of the empty file";
  EXPECT_EQ(file_->CacheRegions(&before->part, 0, 1, false, &answer_), 0);
  EXPECT_TRUE(answer_.clear);
  EXPECT_EQ(file_->CacheRegions(&before->part, 0, 1, false, &answer_), OX_ENOTTY);
}

/*
 * Each thread writes its own bytes, which share regions with those of the others, and closes with
 * write-backs in between.
 */
TEST_F(CachedFileTest, ParallelOpensLoseNoByte) {
  constexpr size_t kThreads = 4;
  constexpr size_t kLength = 400;
  Reopen(5, std::string(kLength, '-'));
  const auto work = [&](size_t which) {
    for (size_t round = 0; round < 40; round++) {
      const auto handle = Open();
      for (size_t at = which + kThreads * (round % 7); at < kLength; at += 7 * kThreads) {
        handle->Write(at, std::string(1, "abcd"[which]));
      }
      EXPECT_EQ(handle->Close(Closing::kModified), 0);
    }
  };
  std::vector<std::thread> threads;
  for (size_t i = 0; i < kThreads; i++) {
    threads.emplace_back(work, i);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::string expected;
  while (expected.size() < kLength) {
    expected += "abcd";
  }
  EXPECT_EQ(cloud_.Content(kPath), expected);
}

TEST_F(CachedFileTest, ARefusedWriteBackIsTriedAgain) {
  Reopen(4, "old content");
  auto handle = Open();
  handle->Write(0, "new");
  cloud_.write_error = OX_ENOSPC;
  EXPECT_EQ(handle->Close(Closing::kModified), OX_ENOSPC);
  EXPECT_EQ(cloud_.Content(kPath), "old content");
  cloud_.write_error = 0;
  EXPECT_EQ(handle->Close(Closing::kModified), 0);
  EXPECT_EQ(cloud_.Content(kPath), "new content");
  EXPECT_EQ(handle->Close(Closing::kModified), OX_EBADF) << "closed once";

  handle = Open();
  handle->Write(0, "NEW");
  cloud_.write_error = OX_EIO;
  EXPECT_EQ(handle->Close(Closing::kClientDied), 0);
  EXPECT_EQ(Open()->Read(0, 50), "NEW content") << "what could not be written back";
  handle.reset();
  Reopen(4);
  EXPECT_EQ(tarnd::RecoverCache(*env_), 0u);
  cloud_.write_error = 0;
  EXPECT_EQ(tarnd::RecoverCache(*env_), 1u);
  EXPECT_EQ(cloud_.Content(kPath), "NEW content");
}

TEST_F(CachedFileTest, ContentsAreNeverMixed) {
  Reopen(4, std::string(64, 'b'));
  auto handle = Open();
  handle->Write(0, "mine");
  cloud_.Set(kPath, std::string(64, 'c'));
  EXPECT_EQ(file_->CacheRegions(&Open()->part, 32, 1, false, &answer_), OX_EIO);
  EXPECT_EQ(handle->Close(Closing::kModified), OX_EIO) << "not all of it is local";
  EXPECT_EQ(cloud_.Content(kPath), std::string(64, 'c'));
  handle->SetSize(16);
  EXPECT_EQ(handle->Close(Closing::kModified), 0) << "the last writer wins";
  EXPECT_EQ(cloud_.Content(kPath), "minebbbbbbbbbbbb");
}

/* As when the client's truncate request failed or never came. */
TEST_F(CachedFileTest, ASizeThatTheServiceWasNotToldOfIsWrittenBack) {
  const std::string old = "0123456789abcdef0123456789ABCDEF";
  for (const size_t size : {0, 5, 16, 20, 33, 100}) {
    for (const Closing how : {Closing::kUnmodified, Closing::kClientDied}) {
      SCOPED_TRACE(testing::Message() << size << ' ' << static_cast<int>(how));
      Reopen(4, old);
      const auto reader = Open(false);
      const auto handle = Open();
      handle->Resize(size);
      EXPECT_EQ(handle->Close(how), 0);
      std::string expected = old;
      expected.resize(size, '\0');
      EXPECT_EQ(reader->Read(0, 200), expected);
      EXPECT_EQ(reader->Close(Closing::kUnmodified), 0);
      EXPECT_EQ(cloud_.Content(kPath), expected);
    }
  }
}

TEST_F(CachedFileTest, WhatAHandleDoesToTheSizeAfterItsCloseDoesNotCount) {
  const std::string old(32, 'x');
  Reopen(4, old);
  auto handle = Open();
  EXPECT_EQ(handle->Close(Closing::kUnmodified), 0);
  handle->Resize(5);
  handle = Open();
  EXPECT_EQ(handle->Read(0, 8), old.substr(0, 8));
  handle.reset();
  Reopen(4);
  EXPECT_EQ(tarnd::RecoverCache(*env_), 0u) << "killed";
  EXPECT_EQ(cloud_.Content(kPath), old);
}

TEST_F(CachedFileTest, RecoveryNeverOverwritesAChangedFile) {
  Reopen(4, "old content");
  Open()->Write(0, "new");
  Reopen(4, "somebody else's");
  EXPECT_EQ(tarnd::RecoverCache(*env_), 0u);
  EXPECT_EQ(cloud_.Content(kPath), "somebody else's");
  const auto kept = std::filesystem::directory_iterator(folder_.path() / "kept");
  EXPECT_EQ(std::distance(begin(kept), end(kept)), 2) << "the file and its journal";
}

TEST_F(CachedFileTest, RangesThatNoFileHas) {
  Reopen(4, "x");
  const auto handle = Open();
  tarnd::FileOpen* open = &handle->part;
  const uint64_t max = uint64_t{1} << 35;
  EXPECT_EQ(file_->CacheRegions(open, max, 1, false, &answer_), OX_E2BIG);
  EXPECT_EQ(file_->CacheRegions(open, max - 1, UINT64_MAX, false, &answer_), 0);
  EXPECT_EQ(answer_.cached, 1u);
  EXPECT_EQ(file_->DirtyRegions(open, max - 1, 2, &answer_), OX_ENOSPC);
  EXPECT_EQ(file_->DirtyRegions(open, UINT64_MAX, UINT64_MAX, &answer_), OX_ENOSPC);
  EXPECT_EQ(file_->Truncate(open, max + 1), OX_ENOSPC);
  EXPECT_EQ(handle->Close(Closing::kUnmodified), 0);
  EXPECT_EQ(cloud_.writes, 0);
  EXPECT_EQ(file_->CacheRegions(open, 0, 1, false, &answer_), OX_EBADF) << "after its close";
}

TEST_F(CachedFileTest, RenamedAndDeletedWhileOpen) {
  Reopen(2, "old content");
  auto handle = Open();
  handle->Write(0, "new");
  {
    const CachedFile::Hold hold = file_->HoldForMove();
    cloud_.Rename(kPath, "elsewhere", false);
    file_->Moved(hold, "elsewhere");
  }
  handle->Write(4, "CONTENT");
  handle.reset();
  Reopen(2);
  EXPECT_EQ(tarnd::RecoverCache(*env_), 1u) << "killed";
  EXPECT_EQ(cloud_.Content("elsewhere"), "new CONTENT");

  cloud_.Set(kPath, "not fetched yet");
  handle = Open();
  ASSERT_EQ(file_->Delete(kPath, true), 0);
  EXPECT_EQ(handle->Read(0, 50), "not fetched yet");
  handle->Write(0, "x");
  EXPECT_EQ(handle->Close(Closing::kModified), 0);
  tarnd::CloudEntry entry;
  EXPECT_EQ(cloud_.Status(kPath, &entry), OX_ENOENT) << "not brought back";
  handle.reset();
  EXPECT_EQ(FilesLeft(), 0u);
}

}  // namespace
