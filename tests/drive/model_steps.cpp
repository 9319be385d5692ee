#include "model_steps.h"

#include <algorithm>
#include <random>
#include <sstream>

namespace {

constexpr size_t NEAR = 48 * MODEL_REGION; /* where most of it happens */
constexpr size_t FAR = 700 * MODEL_REGION; /* past the end of an open's maps */

constexpr const char* ACT_NAMES[] = {"put",   "open",   "close",  "cleanup", "read",  "read all",
                                     "write", "resize", "rename", "remove",  "may go"};

class Dice {
 public:
  explicit Dice(unsigned seed) : random_(seed) {}

  size_t below(size_t limit) { return random_() % limit; }
  /* One that likely is as the act wants it; often the same again. */
  size_t slot(Act act) {
    const bool wants_open = act != Act::OPEN;
    size_t tries = 4 * MODEL_SLOTS;
    if (one_in(2)) {
      slot_ = below(MODEL_SLOTS);
    }
    while (open_[slot_] != wants_open && tries-- > 0) {
      slot_ = below(MODEL_SLOTS);
    }
    if (act == Act::OPEN || act == Act::CLOSE) {
      open_[slot_] = act == Act::OPEN;
    }
    return slot_;
  }
  bool one_in(size_t n) { return below(n) == 0; }
  template <typename T, size_t N>
  T any_of(const T (&choices)[N]) {
    return choices[below(N)];
  }

  /* Often where the last range ended, or at a region's edge or beside it. */
  size_t offset() {
    if (one_in(2)) {
      return end_;
    }
    const size_t off = below(one_in(40) ? FAR : NEAR);
    if (one_in(2)) {
      return off;
    }
    const size_t edge = (off / MODEL_REGION + 1) * MODEL_REGION;
    return edge + below(3) - 1;
  }
  /* Within a region, over a few, over several bytes of a map. */
  size_t length() {
    const size_t len =
        1 + below(any_of({MODEL_REGION, MODEL_REGION, 4 * MODEL_REGION, 20 * MODEL_REGION}));
    return one_in(3) ? (len / MODEL_REGION + 1) * MODEL_REGION : len;
  }
  void ended_at(size_t off) { end_ = off % NEAR; }
  /* Mostly large: what was cut off once does not come from the cloud any more. */
  size_t size() { return one_in(12) ? 0 : one_in(3) ? offset() : NEAR / 2 + below(NEAR); }

 private:
  std::mt19937_64 random_;
  size_t slot_ = 0;
  bool open_[MODEL_SLOTS] = {};
  size_t end_ = 0;
};

struct Weight {
  Act act;
  size_t weight;
};
constexpr Weight WEIGHTS[] = {
    {Act::PUT, 5},      {Act::OPEN, 7},   {Act::CLOSE, 5},      {Act::CLEANUP, 1},
    {Act::READ, 26},    {Act::WRITE, 25}, {Act::RESIZE, 6},     {Act::RENAME, 2},
    {Act::READ_ALL, 1}, {Act::REMOVE, 1}, {Act::ASK_REMOVE, 1},
};

Act any_act(Dice& dice) {
  size_t total = 0;
  for (const Weight& w : WEIGHTS) {
    total += w.weight;
  }
  size_t left = dice.below(total);
  const Weight* w = WEIGHTS;
  for (; left >= w->weight; w++) {
    left -= w->weight;
  }
  return w->act;
}

OpenHow any_open(Dice& dice) {
  OpenHow how;
  how.disposition = dice.one_in(4)
                        ? static_cast<ox_u32>(dice.below(6))
                        : dice.any_of<ox_u32>({TNW_DISP_OPEN, TNW_DISP_OPEN, TNW_DISP_OPEN_IF});
  how.access = dice.any_of<ox_u32>({ACC_BOTH, ACC_BOTH, ACC_BOTH, TNW_ACC_READ, TNW_ACC_READ,
                                    TNW_ACC_WRITE, TNW_ACC_ATTRIBUTES});
  how.share = dice.one_in(6) ? static_cast<ox_u32>(dice.below(8)) : SHARE_ALL;
  return how;
}

Step any_step(Dice& dice, Act act) {
  Step step;
  step.act = act;
  step.slot = dice.slot(act);
  step.name = dice.below(MODEL_NAMES);
  step.target = dice.below(MODEL_NAMES);
  step.how = any_open(dice);
  step.off = dice.offset();
  step.len = act == Act::RESIZE || act == Act::PUT ? dice.size() : dice.length();
  step.data = static_cast<unsigned>(dice.below(1'000'000));
  if (act == Act::READ || act == Act::WRITE) {
    dice.ended_at(step.off + step.len);
  }
  return step;
}

/* All that a step has, also what its act does not look at. */
std::string step_text(const Step& step) {
  std::ostringstream text;
  text << ACT_NAMES[static_cast<size_t>(step.act)] << ": slot " << step.slot << ", file "
       << step.name << " to " << step.target << ", " << step.len << " at " << step.off
       << ", disposition " << step.how.disposition << ", access " << step.how.access << ", share "
       << step.how.share << " (" << step.data << ")\n";
  return text.str();
}

}  // namespace

Steps random_steps(unsigned seed, size_t count) {
  Dice dice(seed);
  Steps steps;
  for (size_t name = 0; name + 1 < MODEL_NAMES; name++) {
    steps.push_back(any_step(dice, Act::PUT));
    steps.back().name = name;
  }
  while (steps.size() < count) {
    steps.push_back(any_step(dice, any_act(dice)));
  }
  return steps;
}

std::string steps_text(const Steps& steps) {
  std::string text;
  for (const Step& step : steps) {
    text += step_text(step);
  }
  return text;
}
