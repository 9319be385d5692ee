/*
 * tnw_read and tnw_write: what each answer of the service lets them do, and what they leave. Which
 * regions they ask for: bmap_test; that warm ones cost no message: drive_test; contents:
 * model_test.
 */

#include <gtest/gtest.h>
#include <windows.h>

#include "peer_drive.h"
#include "tnw_fd.h"

namespace {

constexpr ox_s64 UNTOUCHED = -77;
const std::string CONTENT = "0123456789";

class Transfer : public testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(drive.start(), nullptr); }

  /*
   * A file with this content and maps of 16 regions of 16 bytes, none of which is cached; then
   * region requests are answered with these errors.
   */
  void* open(ox_u32 fetch_err, ox_u32 report_err) {
    tnv_wopen_resp answer = open_answer();
    answer.wopen_resp_handle = local_file(local, CONTENT);
    answer.wopen_resp_stat.st_size = CONTENT.size();
    answer.wopen_resp_rmap_size = 2;
    answer.wopen_resp_tnflags = TNV_FL_MAPPED;
    drive.answer_opens(answer, Bytes(4));
    void* file = drive.open("f");
    drive.peer->on_request([=](PeerConnection& conn) {
      const tnv_cache_region_resp fetched = {0, 1, CONTENT.size(), 0, {}};
      if (conn.opcode() == TNV_OP_CACHE_REGION) {
        return conn.answer(fetch_err, fetched);
      }
      const bool report = conn.opcode() == TNV_OP_DIRTY_REGION;
      conn.answer(report ? report_err : 0, tnv_dirty_region_resp{});
    });
    return file;
  }

  PeerDrive drive;
  const std::string local = drive.folder / "local";
};

}  // namespace

TEST_F(Transfer, DoWhatTheServicesAnswersLetThem) {
  const struct {
    const char* name;
    ox_u32 fetch_err, report_err;
    int read_code;
    ox_s64 read_count;
    int write_code;
    size_t fetches; /* of a read and a write of the same region */
  } cases[] = {
      {"granted", 0, 0, 0, 4, 0, 1},
      {"no fetch", 28, 0, ERROR_DISK_FULL, UNTOUCHED, ERROR_DISK_FULL, 2},
      {"no report", 0, 28, 0, 4, ERROR_DISK_FULL, 1},
      {"nothing to fetch", 7, 0, 0, UNTOUCHED, 0, 2},
      {"not to be cached", 25, 0, 0, 4, 0, 2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    void* const file = open(c.fetch_err, c.report_err);
    const size_t before = drive.peer->count(TNV_OP_CACHE_REGION);
    char got[4] = {};
    ox_s64 count = UNTOUCHED;
    EXPECT_EQ(tnw_read(file, got, sizeof got, 2, &count, nullptr), c.read_code);
    EXPECT_EQ(count, c.read_count);
    EXPECT_EQ(std::string(got, 4), count < 0 ? std::string(4, '\0') : "2345");
    char data[] = "zz";
    count = UNTOUCHED;
    EXPECT_EQ(tnw_write(file, data, 2, 1, &count, nullptr), c.write_code);
    EXPECT_EQ(count, c.write_code ? UNTOUCHED : 2);
    EXPECT_EQ(read_file(local), c.write_code ? CONTENT : "0zz3456789");
    EXPECT_EQ(drive.peer->count(TNV_OP_CACHE_REGION), before + c.fetches);
    EXPECT_EQ(tnw_close(file, nullptr), 0);
  }
}

TEST_F(Transfer, AWriteOverTheEndAddsItsCountToTheOldSize) {
  void* const file = open(0, 0);
  char data[] = "abcd";
  EXPECT_EQ(tnw_write(file, data, 4, 8, nullptr, nullptr), 0);
  EXPECT_EQ(read_file(local).size(), 12u);
  EXPECT_EQ(static_cast<tnvfd*>(file)->fdt_stat.st_size, 14u) << "deliberately not 12";
  EXPECT_EQ(tnw_close(file, nullptr), 0);
}
