/*
 * Random calls to the whole client, each compared with a drive in plain memory. A failure is told
 * with its seed and the steps up to it. A service that is killed is kill_rounds_test's.
 *
 * TNW_MODEL_SEED: the first seed, for a failure that was told or for others than the usual ones.
 * TNW_MODEL_STEPS: steps of the test; 1 plays the first seed alone.
 */

#include <gtest/gtest.h>
#include <windows.h>

#include "model_player.h"

namespace {

constexpr size_t STEPS = 8'000;  /* when none are asked for */
constexpr size_t SEQUENCE = 200; /* steps for one seed */

unsigned from_environment(const char* name, unsigned otherwise) {
  char text[16] = {};
  const DWORD size = GetEnvironmentVariableA(name, text, sizeof text);
  return size > 0 && size < sizeof text ? static_cast<unsigned>(std::stoul(text)) : otherwise;
}

class Model : public testing::Test {
 protected:
  void SetUp() override {
    SetEnvironmentVariableA("TARND_REGION_SHIFT", std::to_string(MODEL_REGION_SHIFT).c_str());
    ASSERT_TRUE(drive.start()) << drive.error;
  }

  /* Each time in a folder of its own, whose files nothing has cached. */
  ModelPlayer new_player() { return ModelPlayer(drive, "run " + std::to_string(runs_++)); }

 public:
  RealDrive drive;

 private:
  int runs_ = 0;
};

}  // namespace

TEST_F(Model, RandomCallsAgreeWithPlainMemory) {
  unsigned seed = from_environment("TNW_MODEL_SEED", 1);
  const size_t wanted = from_environment("TNW_MODEL_STEPS", STEPS);
  for (size_t played = 0; played < wanted; seed++) {
    Steps steps = random_steps(seed, SEQUENCE);
    played += steps.size();
    ModelPlayer player = new_player();
    const size_t taken = player.play(steps);
    if (taken == 0) {
      continue;
    }
    steps.resize(std::min(taken, steps.size()));
    ADD_FAILURE() << "seed " << seed << ": " << player.failure() << "\n" << steps_text(steps);
    return;
  }
}
