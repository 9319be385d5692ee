/*
 * A cache is not purged while a service has it that this process knows nothing of: one that still
 * writes back after the last drive has gone, or one of another process.
 */
#include <gtest/gtest.h>
#include <windows.h>
/* after windows.h */
#include <process.h>

#include <cstring>

#include "eventually.h"
#include "real_drive.h"

namespace {

class Purge : public testing::Test {
 protected:
  int purge() const {
    auto options = std::make_unique<tnw_purge_opt_t>();
    memcpy(options->po_workdir, drive_.record.tnw_workdir, sizeof options->po_workdir);
    memcpy(options->po_domain, drive_.record.tnw_domain, sizeof options->po_domain);
    memcpy(options->po_username, drive_.record.tnw_username, sizeof options->po_username);
    return tnw_purge_cache(options.get());
  }

  /* Of the cache, while a service has it. */
  size_t entries() const {
    using Entries = std::filesystem::recursive_directory_iterator;
    const Entries all(cache_dir(drive_.record));
    return static_cast<size_t>(std::distance(begin(all), end(all)));
  }

  void expect_purge_is_refused() const {
    const size_t before = entries();
    EXPECT_EQ(purge(), ERROR_BUSY);
    EXPECT_EQ(entries(), before);
  }

  RealDrive drive_;
};

}  // namespace

TEST_F(Purge, WaitsForAServiceThatStillWritesBack) {
  const std::string behind_faults = std::string("fault+") + drive_.record.tnw_api_addr;
  set_field(drive_.record.tnw_api_addr, behind_faults);
  SetEnvironmentVariableA("TARND_FAULTS", "latency put 6000");
  ASSERT_TRUE(drive_.start()) << drive_.error;
  {
    DriveFile file(drive_, "file", {.disposition = TNW_DISP_CREATE});
    EXPECT_EQ(file.write(0, "written"), 0);
    EXPECT_EQ(file.close(), 0);
  }
  EXPECT_EQ(tnw_deinit(drive_.drive, false), 0);
  drive_.drive = nullptr;
  ASSERT_NE(drive_.get("file"), "written") << "it is in the cloud too early for this test";
  expect_purge_is_refused();
  EXPECT_EQ(WaitForSingleObject(drive_.service(), 60'000), WAIT_OBJECT_0);
  EXPECT_EQ(drive_.get("file"), "written");
  EXPECT_EQ(purge(), 0);
  SetEnvironmentVariableA("TARND_FAULTS", nullptr);
}

TEST_F(Purge, LeavesTheServiceOfAnotherProcessAlone) {
  const std::string cache = '"' + cache_dir(drive_.record) + '"';
  const HANDLE service = reinterpret_cast<HANDLE>(
      _spawnl(_P_NOWAIT, drive_.record.tnw_binpath, "tarnd", "--cache", cache.c_str(), "--addr",
              drive_.record.tnw_api_addr, "--user", "ada", nullptr));
  ASSERT_TRUE(eventually([&] { return file_exists(socket_path(drive_.record)); },
                         std::chrono::seconds(60)));
  expect_purge_is_refused();
  TerminateProcess(service, 9);
  WaitForSingleObject(service, INFINITE);
  CloseHandle(service);
  EXPECT_EQ(purge(), 0);
}
