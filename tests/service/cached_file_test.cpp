// A cached file as the library uses it: maps that go stale, a local file that is written behind the
// service's back, several opens, kills and changes in the cloud, compared with plain memory.
#include "cached_file.h"

#include <gtest/gtest.h>

#include <memory>
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

// The library's side of one open: its copies of the maps and its handle of the local file.
class Handle {
 public:
  Handle(std::shared_ptr<CachedFile> file, int shift, bool writable, bool truncate)
      : file_(std::move(file)), shift_(shift) {
    part_.writable = writable;
    EXPECT_EQ(file_->Attach(&part_, truncate, GetCurrentProcessId(), &view_), 0);
    handle_ = reinterpret_cast<HANDLE>(view_.handle);
  }
  ~Handle() { CloseHandle(handle_); }

  bool writable() const { return part_.writable; }
  bool modified = false;
  const tarnd::FileView& view() const { return view_; }

  std::string Read(uint64_t offset, uint32_t length) {
    Cache(offset, length);
    std::string data(length, '\0');
    DWORD got = 0;
    OVERLAPPED position = {};
    position.Offset = static_cast<DWORD>(offset);
    ReadFile(handle_, data.data(), length, &got, &position);
    data.resize(got);
    return data;
  }

  void Write(uint64_t offset, const std::string& data) {
    Cache(offset, data.size());
    if (!Has(Map(1), offset, data.size())) {
      RegionAnswer answer;
      ASSERT_EQ(file_->DirtyRegions(&part_, offset, data.size(), &answer), 0);
      answer.clear
          ? Drop()
          : (Mark(Map(0), offset, data.size(), false), Mark(Map(1), offset, data.size(), false));
    }
    DWORD written = 0;
    OVERLAPPED position = {};
    position.Offset = static_cast<DWORD>(offset);
    ASSERT_TRUE(
        WriteFile(handle_, data.data(), static_cast<DWORD>(data.size()), &written, &position));
    modified |= writable();
  }

  void SetSize(uint64_t size) {
    uint64_t old = 0;
    if (has_maps_ && size != 0) {
      const uint64_t region = (size - 1) >> shift_ << shift_;
      RegionAnswer answer;
      ASSERT_EQ(file_->CacheRegions(&part_, region, 1u << shift_, true, &answer), 0);
      old = answer.size;
    }
    if (has_maps_ || size == 0) {
      ASSERT_EQ(file_->Truncate(&part_, size), 0);
    }
    if (size == 0) {
      Drop();
    }
    const uint64_t from = Up(std::min(old, size));
    const uint64_t to = Up(std::max(old, size));
    if (has_maps_ && from != to) {
      Mark(Map(0), from, to - from, old > size);
      Mark(Map(1), from, to - from, old > size);
    }
    FILE_END_OF_FILE_INFO info = {};
    info.EndOfFile.QuadPart = static_cast<LONGLONG>(size);
    ASSERT_TRUE(SetFileInformationByHandle(handle_, FileEndOfFileInfo, &info, sizeof info));
    modified = true;
  }

  int Close(Closing how) { return file_->Detach(&part_, how); }

 private:
  void Cache(uint64_t offset, size_t length) {
    if (Has(Map(0), offset, length)) {
      return;
    }
    RegionAnswer answer;
    const int err = file_->CacheRegions(&part_, offset, length, false, &answer);
    ASSERT_EQ(err, 0);
    EXPECT_TRUE(answer.clear || answer.cached >= length);
    answer.clear ? Drop() : Mark(Map(0), offset, answer.cached, false);
  }
  uint64_t Up(uint64_t size) const { return (size + (1u << shift_) - 1) >> shift_ << shift_; }
  uint8_t* Map(int which) {
    return view_.maps.data() + static_cast<size_t>(which) * view_.map_bytes;
  }
  bool Inside(uint64_t end) const { return end <= (view_.map_bytes * 8) << shift_; }
  bool Has(const uint8_t* map, uint64_t offset, size_t length) const {
    return !has_maps_ || (Inside(offset + length) &&
                          vfstnw_is_region_set(map, shift_, static_cast<ox_s64>(offset), length));
  }
  void Mark(uint8_t* map, uint64_t offset, uint64_t length, bool clear) const {
    const uint64_t end = std::min(offset + length, uint64_t{view_.map_bytes * 8} << shift_);
    if (has_maps_ && offset < end) {
      vfstnw_set_region_bits(map, shift_, static_cast<ox_s64>(offset), end - offset, clear);
    }
  }
  void Drop() { has_maps_ = false; }

  std::shared_ptr<CachedFile> file_;
  int shift_;
  tarnd::FileOpen part_;
  tarnd::FileView view_;
  HANDLE handle_ = nullptr;
  bool has_maps_ = true;
};

class CachedFileTest : public testing::Test {
 protected:
  void Reopen(int shift) {
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
};

// ------------------------------------------------------------------ the model

class Model : public CachedFileTest, public testing::WithParamInterface<int> {
 protected:
  size_t Pick(size_t bound) { return random_() % bound; }
  std::string Data(size_t length) {
    std::string data(length, '\0');
    for (char& c : data) c = static_cast<char>('a' + Pick(26));
    return data;
  }
  Handle& Any() { return *handles_[Pick(handles_.size())]; }

  void Step() {
    const size_t choice = Pick(100);
    if (handles_.empty() || (choice < 8 && handles_.size() < 4)) {
      OpenOne();
    } else if (choice < 45) {
      ReadOne();
    } else if (choice < 75) {
      WriteOne();
    } else if (choice < 83) {
      ResizeOne();
    } else if (choice < 97) {
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
    EXPECT_EQ(handles_.back()->view().size, content_.size());
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
  // A mark of read-only writes travels with the next close of a writable open.
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
  cloud_.Set(kPath, "");
  Reopen(GetParam());
  for (int step = 0; step < 1500 && !HasFailure(); step++) {
    SCOPED_TRACE(step);
    Step();
  }
  EXPECT_GT(cloud_.writes, 100) << "the steps reach what they are to test";
  EXPECT_GT(counters_.regions_fetched, 50u);
}
INSTANTIATE_TEST_SUITE_P(Shifts, Model, testing::Values(0, 3, 5, 20));

// ------------------------------------------------------------------ single faults

TEST_F(CachedFileTest, FetchesOnlyWhatIsAskedAndOnlyOnce) {
  cloud_.Set(kPath, std::string(100, 'x'));
  Reopen(4);
  const auto first = Open();
  const auto second = Open();
  EXPECT_EQ(cloud_.reads, 0);
  first->Read(20, 1);
  EXPECT_EQ(counters_.regions_fetched, 1u);
  EXPECT_EQ(counters_.bytes_fetched, 16u);
  second->Read(20, 1);
  EXPECT_EQ(counters_.regions_fetched, 1u) << "kept once for the file";
  first->Read(90, 50);
  EXPECT_EQ(counters_.bytes_fetched, 16u + 20u) << "two regions, the last one 4 bytes long";
}

// A mapped file's pages come through a read-only open, whose mark nobody may carry.
TEST_F(CachedFileTest, WhatAReadOnlyOpenWritesWithoutAWordIsWrittenBack) {
  cloud_.Set(kPath, std::string(32, 'x'));
  Reopen(4);
  auto writer = Open();
  writer->Write(0, "1");
  auto mapped = Open(false);  // while region 0 is dirty: it is not told so
  mapped->Write(0, "2");
  EXPECT_EQ(writer->Close(Closing::kModified), 0);
  EXPECT_EQ(cloud_.Content(kPath).substr(0, 2), "2x");
  mapped->Write(0, "3");  // sends nothing
  EXPECT_EQ(mapped->Close(Closing::kUnmodified), 0);
  EXPECT_EQ(cloud_.Content(kPath).substr(0, 2), "3x");

  writer = Open();
  writer->Write(0, "4");
  mapped = Open(false);
  EXPECT_EQ(writer->Close(Closing::kModified), 0);
  mapped->Write(0, "5");
  EXPECT_EQ(mapped->Close(Closing::kUnmodified), 0);
  EXPECT_EQ(cloud_.Content(kPath).substr(0, 2), "5x");
}

TEST_F(CachedFileTest, ARegionReportedDirtyUnfetchedIsNotHalfLost) {
  cloud_.Set(kPath, std::string(32, 'x'));
  Reopen(4);
  tarnd::FileOpen open{.writable = true};
  tarnd::FileView view;
  RegionAnswer answer;
  ASSERT_EQ(file_->Attach(&open, false, GetCurrentProcessId(), &view), 0);
  ASSERT_EQ(file_->DirtyRegions(&open, 5, 1, &answer), 0);
  EXPECT_EQ(file_->Detach(&open, Closing::kModified), 0);
  EXPECT_EQ(cloud_.Content(kPath), std::string(32, 'x'));
  CloseHandle(reinterpret_cast<HANDLE>(view.handle));
}

TEST_F(CachedFileTest, OnlyAnOpenWhoseContentIsGoneIsToldToDropItsMaps) {
  cloud_.Set(kPath, std::string(32, 'x'));
  Reopen(4);
  tarnd::FileOpen before{.writable = true};
  tarnd::FileOpen after{.writable = true};
  tarnd::FileView views[2];
  ASSERT_EQ(file_->Attach(&before, false, GetCurrentProcessId(), &views[0]), 0);
  ASSERT_EQ(file_->Attach(&after, true, GetCurrentProcessId(), &views[1]), 0);
  RegionAnswer answer;
  EXPECT_EQ(file_->DirtyRegions(&after, 0, 1, &answer), 0);
  EXPECT_FALSE(answer.clear) << "its maps are those of the empty file";
  EXPECT_EQ(file_->CacheRegions(&before, 0, 1, false, &answer), 0);
  EXPECT_TRUE(answer.clear);
  EXPECT_EQ(file_->CacheRegions(&before, 0, 1, false, &answer), OX_ENOTTY);
  EXPECT_EQ(file_->DirtyRegions(&before, 0, 1, &answer), 0);
  for (const tarnd::FileView& view : views) CloseHandle(reinterpret_cast<HANDLE>(view.handle));
}

// Each thread writes its own bytes, which share regions with those of the others, and closes with
// write-backs in between.
TEST_F(CachedFileTest, ParallelOpensLoseNoByte) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 40;
  constexpr int kLength = 400;
  cloud_.Set(kPath, std::string(kLength, '-'));
  Reopen(5);
  const auto work = [&](int which) {
    for (int round = 0; round < kRounds; round++) {
      const auto handle = Open();
      for (int offset = which + kThreads * (round % 7); offset < kLength; offset += 7 * kThreads) {
        handle->Write(static_cast<uint64_t>(offset),
                      std::string(1, static_cast<char>('a' + which)));
      }
      EXPECT_EQ(handle->Close(Closing::kModified), 0);
    }
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; i++) threads.emplace_back(work, i);
  for (std::thread& thread : threads) thread.join();
  std::string expected;
  while (expected.size() < kLength) expected += "abcd";
  EXPECT_EQ(cloud_.Content(kPath), expected);
  EXPECT_FALSE(file_->HasUnsaved());
}

TEST_F(CachedFileTest, ARefusedWriteBackKeepsTheOpenAndTheData) {
  cloud_.Set(kPath, "old content");
  Reopen(4);
  auto handle = Open();
  handle->Write(0, "new");
  cloud_.write_error = OX_ENOSPC;
  EXPECT_EQ(handle->Close(Closing::kModified), OX_ENOSPC);
  EXPECT_EQ(cloud_.Content(kPath), "old content");
  EXPECT_TRUE(file_->HasUnsaved());
  cloud_.write_error = 0;
  EXPECT_EQ(handle->Close(Closing::kModified), 0);
  EXPECT_EQ(cloud_.Content(kPath), "new content");
  EXPECT_EQ(handle->Close(Closing::kModified), OX_EBADF) << "closed once";
}

TEST_F(CachedFileTest, AClientThatDiesLosesNothing) {
  cloud_.Set(kPath, "old content");
  Reopen(4);
  Open()->Close(Closing::kClientDied);
  EXPECT_EQ(cloud_.writes, 0) << "it wrote nothing";
  auto handle = Open();
  handle->Write(0, "new");
  cloud_.write_error = OX_EIO;
  EXPECT_EQ(handle->Close(Closing::kClientDied), 0);
  cloud_.write_error = 0;
  EXPECT_EQ(Open()->Read(0, 50), "new content") << "what could not be written back";
  EXPECT_EQ(file_->Save(), 0);
  EXPECT_EQ(cloud_.Content(kPath), "new content");
}

TEST_F(CachedFileTest, AChangeBehindTheCacheIsSeenAtTheNextOpen) {
  cloud_.Set(kPath, "first");
  Reopen(4);
  auto handle = Open();
  EXPECT_EQ(handle->Read(0, 50), "first");
  handle->Close(Closing::kUnmodified);
  cloud_.Set(kPath, "other, and longer than a region");
  handle = Open();
  EXPECT_EQ(handle->Read(0, 50), "other, and longer than a region");
}

TEST_F(CachedFileTest, ContentsAreNeverMixed) {
  const std::string before(64, 'b');
  cloud_.Set(kPath, before);
  Reopen(4);
  auto handle = Open();
  handle->Write(0, "mine");
  cloud_.Set(kPath, std::string(64, 'c'));
  tarnd::FileOpen other;
  tarnd::FileView view;
  RegionAnswer answer;
  ASSERT_EQ(file_->Attach(&other, false, GetCurrentProcessId(), &view), 0);
  EXPECT_EQ(file_->CacheRegions(&other, 32, 1, false, &answer), OX_EIO);
  EXPECT_EQ(handle->Close(Closing::kModified), OX_EIO) << "not all of it is local";
  EXPECT_EQ(cloud_.Content(kPath), std::string(64, 'c'));
  CloseHandle(reinterpret_cast<HANDLE>(view.handle));
}

TEST_F(CachedFileTest, RecoveryNeverOverwritesAChangedFile) {
  cloud_.Set(kPath, "old content");
  Reopen(4);
  Open()->Write(0, "new");
  cloud_.Set(kPath, "somebody else's");
  Reopen(4);
  EXPECT_EQ(tarnd::RecoverCache(*env_), 0u);
  EXPECT_EQ(cloud_.Content(kPath), "somebody else's");
  const auto kept = std::filesystem::directory_iterator(folder_.path() / "kept");
  EXPECT_EQ(std::distance(begin(kept), end(kept)), 2) << "the file and its journal";
}

TEST_F(CachedFileTest, RecoveryWaitsForACloudThatRefuses) {
  cloud_.Set(kPath, "old content");
  Reopen(4);
  Open()->Write(0, "new");
  Reopen(4);
  cloud_.write_error = OX_ENOSPC;
  EXPECT_EQ(tarnd::RecoverCache(*env_), 0u);
  cloud_.write_error = 0;
  EXPECT_EQ(tarnd::RecoverCache(*env_), 1u);
  EXPECT_EQ(cloud_.Content(kPath), "new content");
}

TEST_F(CachedFileTest, RangesThatNoFileHas) {
  cloud_.Set(kPath, "x");
  Reopen(4);
  tarnd::FileOpen open;
  tarnd::FileView view;
  RegionAnswer answer;
  ASSERT_EQ(file_->Attach(&open, false, GetCurrentProcessId(), &view), 0);
  const uint64_t max = uint64_t{1} << 35;
  EXPECT_EQ(file_->CacheRegions(&open, max, 1, false, &answer), OX_E2BIG);
  EXPECT_EQ(file_->CacheRegions(&open, max - 1, UINT64_MAX, false, &answer), 0);
  EXPECT_EQ(answer.cached, 1u);
  EXPECT_EQ(file_->CacheRegions(&open, UINT64_MAX, 1, false, &answer), OX_E2BIG);
  EXPECT_EQ(file_->DirtyRegions(&open, max - 1, 2, &answer), OX_ENOSPC);
  EXPECT_EQ(file_->DirtyRegions(&open, UINT64_MAX, UINT64_MAX, &answer), OX_ENOSPC);
  EXPECT_EQ(file_->Truncate(&open, max + 1), OX_ENOSPC);
  EXPECT_EQ(file_->Detach(&open, Closing::kUnmodified), 0);
  EXPECT_EQ(cloud_.writes, 0);
  EXPECT_EQ(file_->CacheRegions(&open, 0, 1, false, &answer), OX_EBADF) << "after its close";
  CloseHandle(reinterpret_cast<HANDLE>(view.handle));
}

TEST_F(CachedFileTest, RenamedAndDeletedWhileOpen) {
  cloud_.Set(kPath, "old content");
  Reopen(2);
  auto handle = Open();
  handle->Write(0, "new");
  ASSERT_EQ(file_->Rename("elsewhere"), 0);
  handle->Write(4, "CONTENT");
  EXPECT_EQ(handle->Close(Closing::kModified), 0);
  EXPECT_EQ(cloud_.Content("elsewhere"), "new CONTENT");

  cloud_.Set("elsewhere", "not fetched yet");
  handle = Open();
  ASSERT_EQ(file_->Delete(true), 0);
  EXPECT_EQ(handle->Read(0, 50), "not fetched yet");
  handle->Write(0, "x");
  EXPECT_EQ(handle->Close(Closing::kModified), 0);
  tarnd::CloudEntry entry;
  EXPECT_EQ(cloud_.Status("elsewhere", &entry), OX_ENOENT) << "not brought back";
  handle.reset();
  EXPECT_EQ(FilesLeft(), 0u);
}

}  // namespace
