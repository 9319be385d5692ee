/*
 * The service is killed at random moments under eight threads, and while it recovers. Every file of
 * the cloud is whole at any time: what it was, or what a close was asked for. In the end every
 * answered close is there, what was written without one stands beside it under a conflict name, and
 * every file opens again.
 *
 * TNW_KILL_SEED: the first seed, for a failure that was told. The threads' turns do not repeat.
 */
#include <gtest/gtest.h>
#include <windows.h>
/* after windows.h */
#include <process.h>

#include <iostream>
#include <random>
#include <thread>

#include "kill_checks.h"

namespace fs = std::filesystem;

namespace {

class KillRounds : public testing::Test {
 protected:
  void SetUp() override {
    drive_.record.tnw_max_threads = 8;
    for (int file = 0; file < KILL_FILES / 2; file++) {
      drive_.put(kill_path(file, 0, 0), content_of(file, 1));
    }
    checks_.note_what_is_there();
  }

  void play(unsigned seed) {
    dice_.seed(seed);
    const bool power_fails = below(3) == 0;
    const std::string name = "seed " + std::to_string(seed) + (power_fails ? ", power fails" : "");
    SCOPED_TRACE(name);
    std::cout << name << std::endl;
    ASSERT_TRUE(drive_.start()) << drive_.error;
    {
      std::jthread work([&] { work_until_killed(drive_, notes_, seed); });
      Sleep(static_cast<DWORD>(20 + below(400)));
      notes_.killing = true;
      drive_.kill_service();
      notes_.killed = true;
    }
    drive_.stop();
    ASSERT_EQ(notes_.fault, "");
    if (power_fails) {
      lose_what_was_not_flushed();
    }
    ASSERT_EQ(checks_.complaint(false, false), "") << "after the kill";
    for (int kills = below(3); kills > 0; kills--) {
      kill_while_it_recovers();
    }
    ASSERT_EQ(checks_.complaint(false, false), "") << "after kills while it recovers";
    ASSERT_TRUE(drive_.start()) << drive_.error;
    ASSERT_EQ(checks_.complaint_when_settled(!power_fails), "") << checks_.what_the_services_said();
    ASSERT_EQ(drive_.stop(), 0);
    checks_.note_what_is_there();
  }

 private:
  int below(int limit) { return static_cast<int>(dice_() % static_cast<unsigned>(limit)); }

  void kill_while_it_recovers() {
    const std::string cache = '"' + cache_dir(drive_.record) + '"';
    const HANDLE service = reinterpret_cast<HANDLE>(
        _spawnl(_P_NOWAIT, drive_.record.tnw_binpath, "tarnd", "--cache", cache.c_str(), "--addr",
                drive_.record.tnw_api_addr, "--user", "ada", nullptr));
    Sleep(static_cast<DWORD>(below(200)));
    TerminateProcess(service, 9);
    WaitForSingleObject(service, INFINITE);
    CloseHandle(service);
  }

  /* Of versions that no close was asked for: the end of the local file, or its bytes. */
  void lose_what_was_not_flushed() {
    for (const auto& entry : fs::recursive_directory_iterator(cache_dir(drive_.record))) {
      int file = 0;
      int version = 0;
      const std::string text = entry.is_regular_file() ? read_file(entry.path()) : "";
      if (begins_like(text, &file, &version) && version > notes_.files[file].asked) {
        const std::string kept =
            text.substr(0, text.size() / static_cast<size_t>(1 + below(4)) / 2);
        const size_t zeros = below(2) == 0 ? 0 : text.size() - kept.size();
        write_file(entry.path(), kept + std::string(zeros, '\0'));
      }
    }
  }

  RealDrive drive_;
  KillNotes notes_;
  KillChecks checks_{drive_, notes_};
  std::mt19937 dice_;
};

}  // namespace

TEST_F(KillRounds, LoseNothing) {
  const char* asked = getenv("TNW_KILL_SEED");
  const unsigned first = asked != nullptr ? static_cast<unsigned>(std::stoul(asked)) : 1;
  for (unsigned seed = first; seed < first + ROUNDS && !HasFailure(); seed++) {
    play(seed);
  }
}
