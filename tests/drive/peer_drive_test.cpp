/*
 * What the scripts cannot say of a drive whose service is a scripted peer: races, times, and what a
 * process holds. Starts that fail are in faults_test.
 */
#include <gtest/gtest.h>
#include <windows.h>

#include <thread>
#include <utility>

#include "eventually.h"
#include "ox_errno.h"
#include "peer_drive.h"
#include "process_state.h"

namespace fs = std::filesystem;

namespace {

class Start : public testing::Test {
 protected:
  PeerDrive drive_;
  const LogCapture log_;
};

/* Ends while a start waits: its service's process has begun and does not say that it is ready. */
[[noreturn]] void end_during_a_start(const TestFolder& folder) {
  tnw_tninit record = start_record(folder, beside_test("stand_in_service.exe"));
  SetEnvironmentVariableA("STAND_IN_COMMAND", (folder / "begun").c_str());
  std::thread([&] { tnw_init(&record, nullptr); }).detach();
  const bool begun = eventually([&] { return file_exists(folder / "begun"); });
  ExitProcess(begun ? 3 : 4);
}

}  // namespace

/* The end of a process stops its other threads where they stand. */
TEST(StartDeathTest, DoesNotHoldUpTheEndOfTheProcess) {
  const TestFolder folder;
  SetEnvironmentVariableA("TMP", folder.path().string().c_str()); /* for the other process's own */
  EXPECT_EXIT(end_during_a_start(folder), testing::ExitedWithCode(3), "");
  SetEnvironmentVariableA("TMP", nullptr);
}

/* A start that is refused, or the service that refuses it; and one that is not refused. */
struct StartKind {
  const char* name;
  bool starts;
  size_t keeps; /* bytes: the record of an aborted pool is never freed */
  void (*prepare)(PeerDrive&);
};

/* Refuses the requests of an operation, or hangs up in it. */
template <ox_u32 OPCODE, bool HANGS_UP = false>
void refuse(PeerDrive& drive) {
  drive.script = [](PeerConnection& conn) {
    if (conn.opcode() == OPCODE && HANGS_UP) {
      conn.close();
    } else {
      conn.answer(conn.opcode() == OPCODE ? OX_EINVAL : 0);
    }
  };
}

const StartKind KINDS[] = {
    {"Good", true, 0, [](PeerDrive&) {}},
    {"OpensRefused", true, 0, refuse<TNV_OP_WIN_OPEN>},
    {"NoProgram", false, 0,
     [](PeerDrive& d) { set_field(d.record.tnw_binpath, d.folder / "x.exe"); }},
    {"NoFolder", false, 0, [](PeerDrive& d) { set_field(d.record.tnw_workdir, "Q:\\none"); }},
    {"NoConnection", false, 3200, refuse<TNV_OP_WIN_CONNECT>},
    {"NoVersion", false, 3200, refuse<TNV_OP_GET_VERSION>},
    {"HangsUp", false, 3200, refuse<TNV_OP_GET_VERSION, true>},
};

class Starts : public testing::TestWithParam<StartKind> {};

/* After the first ten nothing grows. A thread that goes on keeps a handle, too. */
TEST_P(Starts, LeaveNothingBehind) {
  const char* asked = getenv("TNW_STARTS");
  PeerDrive drive;
  drive.record.tnw_max_threads = 3;
  GetParam().prepare(drive);
  Holding before;
  const size_t starts = asked != nullptr ? std::stoul(asked) : 24;
  for (size_t made = 0; made < starts; made++) {
    ASSERT_EQ(drive.start() != nullptr, GetParam().starts);
    if (drive.drive != nullptr) {
      tnw_close(drive.open("f"), nullptr);
      ASSERT_EQ(tnw_deinit_force(std::exchange(drive.drive, nullptr)), 0);
    }
    drive.peer.reset();
    if (made == 10) {
      before = own_holding(8 * 1024 + starts * GetParam().keeps);
    }
  }
  EXPECT_EQ(growth(before, own_holding(0)), "");
}

INSTANTIATE_TEST_SUITE_P(All, Starts, testing::ValuesIn(KINDS),
                         [](const auto& info) { return info.param.name; });

TEST_F(Start, WritesItsPidOverTheOldOneWithoutTruncating) {
  const std::string pid_file = cache_dir(drive_.record) + "/da_pid";
  fs::create_directories(cache_dir(drive_.record));
  write_file(pid_file, "99999999999999");
  ASSERT_NE(drive_.start(), nullptr);
  const std::string own = std::to_string(GetCurrentProcessId());
  EXPECT_EQ(read_file(pid_file), own + std::string(14 - own.size(), '9'));
  EXPECT_EQ(log_.count("real DA PID: " + own + ", file DA PID: "), 1u);
}

TEST_F(Start, IsUndoneByOneOfTwoDeinitsAtOnce) {
  ASSERT_NE(drive_.start(), nullptr);
  int codes[2];
  std::thread other([&] { codes[0] = tnw_deinit(drive_.drive, false); });
  codes[1] = tnw_deinit(drive_.drive, false);
  other.join();
  EXPECT_EQ(codes[0] + codes[1], ERROR_INVALID_PARAMETER);
}

TEST_F(Start, GivesTheLastFreeDescriptorToOneOfTwoThreads) {
  ASSERT_NE(drive_.start(), nullptr);
  std::vector<void*> files;
  while (void* const file = drive_.open("f")) {
    files.push_back(file);
  }
  ASSERT_GE(files.size(), 100u);
  for (int round = 0; round < 50; round++) {
    EXPECT_EQ(tnw_close(files.back(), nullptr), 0);
    void* got[2];
    int errs[2];
    std::thread other([&] { got[0] = drive_.open("f", 3, &errs[0]); });
    got[1] = drive_.open("f", 3, &errs[1]);
    other.join();
    ASSERT_NE(got[0] == nullptr, got[1] == nullptr);
    EXPECT_EQ(errs[0] + errs[1], 24);
    files.back() = got[0] != nullptr ? got[0] : got[1];
  }
}
