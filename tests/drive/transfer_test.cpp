// tnw_read and tnw_write: when the service is asked, what its answers do, what goes to the file.

#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "peer_drive.h"

namespace {

constexpr ox_s64 UNTOUCHED = -77;
constexpr int REGION = 16;  // bytes: open_answer's shift is 4

// A drive with one open file of 100 bytes, with maps of 16 regions.
class Transfer : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(drive.start(), nullptr);
    for (int i = 0; i < 100; i++) content += static_cast<char>('A' + i % 26);
    tnv_wopen_resp answer = open_answer();
    answer.wopen_resp_handle = local_file(drive.folder / "local", content);
    answer.wopen_resp_rmap_size = 2;
    answer.wopen_resp_tnflags = TNV_FL_MAPPED;
    drive.answer_opens(answer, Bytes(4));
    file = drive.open("f");
    ASSERT_NE(file, nullptr);
    answer_regions(0);
  }
  void TearDown() override { tnw_close(file, nullptr); }

  // Region requests are answered with `err`; a fetch covers what was asked.
  void answer_regions(ox_u32 err, ox_u8 clear = 0) {
    drive.peer->on_request([=](PeerConnection& conn) {
      const tnv_cache_region_msg& asked = conn.request().msg().u.cache_region;
      if (conn.opcode() == TNV_OP_CACHE_REGION) {
        tnv_cache_region_resp fetched = {};
        fetched.cr_sz = asked.cache_read_len;
        fetched.cr_fsz = 100;
        fetched.cr_clear = clear;
        conn.answer(err, fetched);
      } else if (conn.opcode() == TNV_OP_DIRTY_REGION) {
        conn.answer(err, tnv_dirty_region_resp{clear});
      } else {
        conn.answer();
      }
    });
  }

  int read(ox_off off, ox_u64 len) {
    count = UNTOUCHED;
    got.assign(len, '\0');
    const int code = tnw_read(file, got.data(), len, off, &count, nullptr);
    if (count >= 0) got.resize(static_cast<size_t>(count));
    return code;
  }
  int write(ox_off off, std::string data) {
    count = UNTOUCHED;
    return tnw_write(file, data.data(), data.size(), off, &count, nullptr);
  }
  size_t fetches() { return drive.peer->count(TNV_OP_CACHE_REGION); }
  size_t reports() { return drive.peer->count(TNV_OP_DIRTY_REGION); }

  PeerDrive drive;
  std::string content;
  void* file = nullptr;
  ox_s64 count = UNTOUCHED;
  std::string got;
};

}  // namespace

TEST_F(Transfer, FetchesARegionOnceAndReadsWarmWithoutAMessage) {
  EXPECT_EQ(read(5, 20), 0);
  EXPECT_EQ(got, content.substr(5, 20));
  EXPECT_EQ(fetches(), 1u);
  const tnv_cache_region_msg asked = drive.peer->requests().back().msg().u.cache_region;
  EXPECT_EQ(asked.cache_read_off, 5u);
  EXPECT_EQ(asked.cache_read_len, 20u);
  EXPECT_EQ(asked.cache_read_trunc, 0);
  const size_t sent = drive.peer->requests().size();
  for (int i = 0; i < 100; i++) ASSERT_EQ(read(i % 16, 16), 0);
  EXPECT_EQ(drive.peer->requests().size(), sent);
  EXPECT_EQ(read(32, 1), 0);
  EXPECT_EQ(fetches(), 2u) << "region 2 was not part of it";
}

TEST_F(Transfer, ReportsBeforeItWritesAndWritesWarmWithoutAMessage) {
  EXPECT_EQ(write(3, "xyz"), 0);
  EXPECT_EQ(count, 3);
  EXPECT_EQ(fetches(), 1u);
  EXPECT_EQ(reports(), 1u);
  EXPECT_EQ(read_file(drive.folder / "local").substr(0, 8), "ABCxyzGH");
  const size_t sent = drive.peer->requests().size();
  for (int i = 0; i < 100; i++) ASSERT_EQ(write(i % 15, "q"), 0);
  ASSERT_EQ(read(0, 16), 0);
  EXPECT_EQ(drive.peer->requests().size(), sent);
}

TEST_F(Transfer, DoesNotWriteWhatTheServiceRefuses) {
  answer_regions(28);
  EXPECT_EQ(write(0, "x"), ERROR_DISK_FULL);
  EXPECT_EQ(count, UNTOUCHED);
  EXPECT_EQ(read_file(drive.folder / "local"), content);
  EXPECT_EQ(read(0, 1), ERROR_DISK_FULL);
  EXPECT_EQ(fetches(), 2u) << "nothing counts as cached";
}

TEST_F(Transfer, TakesSevenAsNothingToFetch) {
  drive.peer->on_request(
      [](PeerConnection& conn) { conn.answer(conn.opcode() == TNV_OP_CACHE_REGION ? 7 : 0); });
  EXPECT_EQ(read(0, 4), 0);
  EXPECT_EQ(count, UNTOUCHED);
  EXPECT_EQ(write(0, "zz"), 0) << "a write goes on";
  EXPECT_EQ(count, 2);
  EXPECT_EQ(read_file(drive.folder / "local").substr(0, 3), "zzC");
}

TEST_F(Transfer, ReadsUncachedWhatTheServiceWillNotCache) {
  answer_regions(25);
  EXPECT_EQ(read(0, 4), 0);
  EXPECT_EQ(got, content.substr(0, 4));
  EXPECT_EQ(read(0, 4), 0);
  EXPECT_EQ(fetches(), 2u) << "no bit is set";
}

TEST_F(Transfer, GivesTheSystemsAnswersAtTheEndOfTheFile) {
  EXPECT_EQ(read(90, 20), 0) << "one that straddles the end is short";
  EXPECT_EQ(count, 10);
  EXPECT_EQ(read(100, 5), ERROR_HANDLE_EOF);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(read(5000, 5), ERROR_HANDLE_EOF);
  const size_t sent = fetches();
  EXPECT_EQ(read(5000, 5), ERROR_HANDLE_EOF);
  EXPECT_EQ(fetches(), sent + 1) << "past the maps the service is asked each time";
}

TEST_F(Transfer, NeedsNoMapsForAnEmptyRange) {
  EXPECT_EQ(read(0, 0), 0);
  EXPECT_EQ(write(0, ""), 0);
  EXPECT_EQ(fetches() + reports(), 0u);
}

TEST_F(Transfer, DropsTheMapsOnAClearMark) {
  answer_regions(0, 1);
  EXPECT_EQ(read(0, 1), 0);
  answer_regions(28);
  EXPECT_EQ(read(64, 4), 0) << "without maps every range counts as cached";
  EXPECT_EQ(write(64, "x"), 0);
  EXPECT_EQ(fetches() + reports(), 1u);
}

TEST_F(Transfer, ReportsADeadConnectionOnlyWhereItNeedsOne) {
  EXPECT_EQ(read(0, 16), 0);
  drive.peer->hang_up();
  EXPECT_EQ(read(16, 16), 1467);
  EXPECT_EQ(read(0, 16), 0) << "warm: no connection is needed";
  EXPECT_EQ(write(0, "x"), 1467);
  EXPECT_EQ(read_file(drive.folder / "local"), content);
}

TEST_F(Transfer, TellsTheNameOfTheOpener) {
  char name[32];
  ox_s64 n;
  char byte;
  EXPECT_EQ(tnw_read(file, &byte, 1, 0, &n, name), 0);
  EXPECT_STREQ(name, "writer.exe");
  EXPECT_EQ(tnw_read(file, &byte, 1, 0, nullptr, nullptr), 0);
}

// Readers and writers on one handle while the service drops the maps under them.
TEST_F(Transfer, SurvivesADropOfTheMapsUnderParallelCalls) {
  std::atomic<bool> done{false};
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; t++)
    threads.emplace_back([&, t] {
      char byte;
      while (!done) {
        if (tnw_read(file, &byte, 1, t * REGION, nullptr, nullptr)) failures++;
        if (tnw_write(file, &byte, 1, t * REGION, nullptr, nullptr)) failures++;
      }
    });
  Sleep(50);
  answer_regions(0, 1);
  EXPECT_EQ(read(5 * REGION, 1), 0);
  done = true;
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, 0);
}
