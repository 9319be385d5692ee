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

#include "kill_rounds.h"

namespace fs = std::filesystem;

namespace {

constexpr ULONGLONG PATIENCE_MS = 60'000;

class KillRounds : public testing::Test {
 protected:
  void SetUp() override {
    drive_.record.tnw_max_threads = 8;
    for (int file = 0; file < KILL_FILES / 2; file++) {
      drive_.put(kill_path(file, 0, 0), content_of(file, 1));
    }
    note_what_is_there();
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
    ASSERT_EQ(complaint(false, false), "") << "after the kill";
    for (int kills = below(3); kills > 0; kills--) {
      kill_while_it_recovers();
    }
    ASSERT_EQ(complaint(false, false), "") << "after kills while it recovers";
    ASSERT_TRUE(drive_.start()) << drive_.error;
    for (const ULONGLONG end = GetTickCount64() + PATIENCE_MS;
         !complaint(true, !power_fails).empty() && GetTickCount64() < end; Sleep(20)) {
    }
    ASSERT_EQ(complaint(true, !power_fails), "") << what_the_services_said();
    open_every_file();
    ASSERT_EQ(drive_.stop(), 0);
    note_what_is_there();
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

  std::string what_the_services_said() const {
    std::string said;
    for (const auto& entry : fs::directory_iterator(drive_.folder / "log")) {
      for (const std::string& line : lines_of(read_file(entry.path()))) {
        const bool counts =
            line.find("ERR:") != std::string::npos && line.find("tnv_connio") == std::string::npos;
        said += counts || line.find("main.cpp") != std::string::npos ? line + '\n' : "";
      }
    }
    return said;
  }

  /* Where the file is, of the places where it may be. */
  std::vector<std::string> paths_of(int file) const {
    std::vector<std::string> found;
    for (const int way : {0, 1, 2, 3}) {
      const std::string path = kill_path(file, way / 2, way % 2);
      const auto allows = [](const KillPlace& place, int at) {
        return place.now == at || place.next == at;
      };
      if (allows(notes_.folders[file % KILL_FOLDERS], way / 2) &&
          allows(notes_.places[file], way % 2) && fs::exists(drive_.in_cloud(path))) {
        found.push_back(path);
      }
    }
    return found;
  }

  /* What is wrong with the cloud; empty when nothing is. `settled`: nothing waits any more. */
  std::string complaint(bool settled, bool writes_stay) const {
    for (int file = 0; file < KILL_FILES; file++) {
      const KillFile& notes = notes_.files[file];
      const std::vector<std::string> paths = paths_of(file);
      if (settled && paths.size() != 1 && (notes.closed > 0 || paths.size() > 1)) {
        return std::to_string(file) + " is there " + std::to_string(paths.size()) + " times";
      }
      int version = 0;
      for (const std::string& path : paths) {
        version = version_in(file, drive_.get(path));
        if (version < (settled ? notes.closed.load() : before_[file]) || version > notes.asked) {
          return path + " is version " + std::to_string(version) + ", was " +
                 std::to_string(before_[file]) + ", closed " + std::to_string(notes.closed) +
                 ", asked " + std::to_string(notes.asked);
        }
      }
      if (settled && writes_stay && version != notes.begun && !is_kept_beside(file)) {
        return std::to_string(notes.written) + " pieces of " + std::to_string(file) + " version " +
               std::to_string(notes.begun) + " are lost";
      }
    }
    return "";
  }

  /* -1 when it is not just that. */
  static int version_in(int number, const std::string& text) {
    int file = 0;
    int version = 0;
    return begins_like(text, &file, &version) && text == content_of(number, version) ? version : -1;
  }

  static bool is_conflict(const fs::path& path) {
    return path.filename().string().find("(conflict of ") != std::string::npos;
  }

  /*
   * Whether a conflict copy has what was written of the newest version, or the service has kept it
   * aside: it does so when the client cut the file before the service had that on record.
   */
  bool is_kept_beside(int number) const {
    const std::string written =
        content_of(number, notes_.files[number].begun)
            .substr(0, static_cast<size_t>(notes_.files[number].written) * KILL_PIECE);
    bool kept = written.empty();
    for (const auto& entry : fs::recursive_directory_iterator(drive_.in_cloud(""))) {
      kept = kept || (is_conflict(entry.path()) && read_file(entry.path()).starts_with(written));
    }
    const fs::path aside = fs::path(cache_dir(drive_.record)) / "files" / "kept";
    for (const auto& entry : fs::directory_iterator(aside)) {
      kept = kept || read_file(entry.path()).starts_with(written);
    }
    return kept;
  }

  void open_every_file() {
    for (int file = 0; file < KILL_FILES; file++) {
      for (const std::string& path : paths_of(file)) {
        DriveFile open(drive_, path);
        ASSERT_EQ(open.error(), 0) << path;
        EXPECT_EQ(version_in(file, open.read_all()), version_in(file, drive_.get(path))) << path;
        EXPECT_EQ(open.close(), 0) << path;
      }
    }
  }

  /* The start of a round. */
  void note_what_is_there() {
    notes_.killing = notes_.killed = false;
    for (int file = 0; file < KILL_FILES; file++) {
      const std::vector<std::string> paths = paths_of(file);
      KillFile& notes = notes_.files[file];
      before_[file] = paths.empty() ? 0 : version_in(file, drive_.get(paths[0]));
      notes.closed = notes.asked = before_[file];
      notes.begun = std::max(notes.begun.load(), before_[file]);
      notes.written = 0;
      notes_.places[file].now = notes_.places[file].next =
          !paths.empty() && paths[0].ends_with(" moved") ? 1 : 0;
    }
    for (int folder = 0; folder < KILL_FOLDERS; folder++) {
      notes_.folders[folder].now = notes_.folders[folder].next =
          fs::exists(drive_.in_cloud(kill_folder(folder, 1))) ? 1 : 0;
    }
    for (const auto& entry : fs::recursive_directory_iterator(drive_.in_cloud(""))) {
      if (is_conflict(entry.path())) {
        fs::remove(entry.path());
      }
    }
  }

  RealDrive drive_;
  KillNotes notes_;
  std::mt19937 dice_;
  int before_[KILL_FILES] = {}; /* the versions at the start of the round; 0: no file */
};

}  // namespace

TEST_F(KillRounds, LoseNothing) {
  const char* asked = getenv("TNW_KILL_SEED");
  const unsigned first = asked != nullptr ? static_cast<unsigned>(std::stoul(asked)) : 1;
  for (unsigned seed = first; seed < first + ROUNDS && !HasFailure(); seed++) {
    play(seed);
  }
}
