/*
 * Eight threads write, read, list and rename over a cloud whose weather changes, until their
 * service is killed and started again, for a given time. Each life of the service is twice as long
 * as the one before, so the last takes half of the time. No byte may be wrong, and nothing may
 * grow: the last figures are compared with those of a period in which all had settled.
 *
 * TNW_SOAK_SECONDS: how long (15). TNW_SOAK_SEED: the seed, for a failure that was told; the
 * threads' turns do not repeat.
 */
#include <gtest/gtest.h>
#include <windows.h>

#include <iostream>
#include <thread>

#include "kill_checks.h"
#include "log_capture.h"
#include "process_state.h"

namespace {

size_t variable(const char* name, size_t otherwise) {
  const char* value = getenv(name);
  return value != nullptr ? std::stoul(value) : otherwise;
}

/* Fair, slow, gone and busy, in turn; and a few reads that fail or are cut short at all times. */
std::string weather(size_t seed, size_t period) {
  const auto at = [&](size_t from, size_t to) {
    return ";at " + std::to_string(period * from / 12) + "-" + std::to_string(period * to / 12) +
           "/" + std::to_string(period) + " ";
  };
  return "seed " + std::to_string(seed) +
         ";latency all 0-2;error status,list,read 0.01;short read 0.01" + at(3, 6) +
         "latency all 20-200" + at(6, 8) + "offline all 1 100" + at(9, 11) + "busy all 0.5 50";
}

class Soak : public testing::Test {
 protected:
  Soak() {
    const std::string behind_faults = std::string("fault+") + drive_.record.tnw_api_addr;
    set_field(drive_.record.tnw_api_addr, behind_faults);
    SetEnvironmentVariableA("TARND_FAULTS", weather(seed_, step_ * 6).c_str());
    drive_.record.tnw_max_threads = 8;
    notes_.weather = true;
    for (int file = 0; file < KILL_FILES; file++) {
      drive_.put(kill_path(file, 0, 0), content_of(file, 1));
    }
    checks_.note_what_is_there();
  }

  /* In bad weather a service starts and refuses the drive, until the weather is better. */
  void start() {
    const LogCapture log;
    bool started = drive_.start();
    for (size_t tries = 0; !started && tries < 5 * step_; tries++) {
      Sleep(1000);
      started = drive_.start();
    }
    ASSERT_TRUE(started) << log.content() << checks_.what_the_services_said();
  }

  /* One life of the service. */
  void live(size_t seconds, unsigned seed) {
    SCOPED_TRACE("a life of " + std::to_string(seconds) + " seconds");
    ASSERT_NO_FATAL_FAILURE(start());
    {
      std::jthread work([&] { work_until_killed(drive_, notes_, seed); });
      watch(seconds);
      notes_.killing = true;
      drive_.kill_service();
      notes_.killed = true;
    }
    drive_.stop();
    ASSERT_EQ(notes_.fault, "");
    ASSERT_NO_FATAL_FAILURE(start());
    ASSERT_EQ(checks_.complaint_when_settled(true), "") << checks_.what_the_services_said();
    ASSERT_EQ(drive_.stop(), 0);
    EXPECT_EQ(growth(at_rest_, own_holding(0)), "") << "in the library at rest";
    if (at_rest_.empty()) {
      at_rest_ = own_holding(64 * 1024);
    }
    checks_.note_what_is_there();
    notes_.handles.clear();
  }

  const size_t seconds_ = variable("TNW_SOAK_SECONDS", 15);
  const size_t seed_ = variable("TNW_SOAK_SEED", GetTickCount64() % 10'000);
  const size_t step_ = seconds_ < 120 ? 2 : 10; /* seconds from line to line */

 private:
  /* A line at each step. The service has settled after a third of its life, the library after a
   * sixth of the whole time. */
  void watch(size_t seconds) {
    Holding service_settled;
    for (size_t age = step_; age <= seconds && !has_failed(); age += step_) {
      Sleep(static_cast<DWORD>(step_ * 1000));
      passed_ += step_;
      const Holding service = holding_of(drive_.service());
      const Holding own = library_holding();
      print_line(own, service);
      if (service_settled.empty() && age * 3 >= seconds) {
        service_settled = service;
      }
      if (own_settled_.empty() && passed_ * 6 >= seconds_) {
        own_settled_ = own;
      }
      if (age + step_ > seconds) {
        EXPECT_EQ(growth(service_settled, service), "") << "in the service";
        EXPECT_EQ(growth(own_settled_, own), "") << "in the library";
      }
    }
  }

  bool has_failed() {
    const std::lock_guard guard(notes_.lock);
    return !notes_.fault.empty();
  }

  /* The entries of its table that were ever used climb with each one that is not given back. The
   * heap has the contents that are written and compared just now, up to 2 MiB. */
  Holding library_holding() {
    Holding all = own_holding(4 * 1024 * 1024, true);
    const std::lock_guard guard(notes_.lock);
    all.push_back({"table entries", 8, notes_.handles.size()});
    return all;
  }

  void print_line(const Holding& own, const Holding& service) {
    std::cout << passed_ << " s: " << notes_.calls.exchange(0) / step_ << " calls a second, worst "
              << notes_.worst_ms.exchange(0) << " ms; library:";
    print(own);
    std::cout << "; service:";
    print(service);
    std::cout << std::endl;
  }

  static void print(const Holding& all) {
    for (const Held& held : all) {
      std::cout << ' ' << held.name << ' ' << held.now;
    }
  }

  RealDrive drive_;
  KillNotes notes_;
  KillChecks checks_{drive_, notes_};
  Holding own_settled_;
  Holding at_rest_; /* after the first life */
  size_t passed_ = 0;
};

}  // namespace

TEST_F(Soak, LosesNothingAndGrowsNowhere) {
  std::cout << "TNW_SOAK_SECONDS=" << seconds_ << " TNW_SOAK_SEED=" << seed_ << std::endl;
  unsigned seed = static_cast<unsigned>(seed_);
  size_t life = 2 * step_;
  for (size_t left = seconds_; left > 0 && !HasFailure(); life *= 2) {
    const size_t seconds = left < 3 * life ? left : life;
    live(seconds, seed++);
    left -= seconds;
  }
}
