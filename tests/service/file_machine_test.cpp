/*
 * The life of a cached file in every order: all events from every state that can be reached, with
 * every step of every plan failing, and the service killed behind every step. A small world stands
 * for the disk and the cloud; contents are numbers, a higher one for each write.
 */
#include "files/file_machine.h"

#include <gtest/gtest.h>

#include <set>

namespace {

using namespace tarnd;

constexpr int NOTHING = -1;
constexpr int REMOVED = -2;
constexpr int BROKEN = -3; /* what a loss of power left of a content */
constexpr size_t OPENS = 2;
constexpr int WRITES = 3; /* per life, so that the walk ends */

/* What is on record. */
struct Record {
  FileState state;
  bool sealed_aside = false;

  /* NOLINTNEXTLINE(readability-implicit-bool-conversion): the compiler compares bools as ints. */
  auto operator<=>(const Record&) const = default;
};

struct Open {
  bool attached = false;
  bool silent = false; /* may write without a word */
  bool wrote = false;  /* since its open */

  /* NOLINTNEXTLINE(readability-implicit-bool-conversion): the compiler compares bools as ints. */
  auto operator<=>(const Open&) const = default;
};

struct World {
  FileState state;
  Record disk;
  std::array<Open, OPENS> opens;
  int next = 1;         /* the next content */
  int local = 0;        /* in the local file */
  int aside = NOTHING;  /* in the copy */
  int base = 0;         /* of the cloud, that we know */
  int cloud = 0;        /* at the file's path */
  bool arrived = false; /* an upload did, and its answer was lost */
  bool own_name = true; /* false: the file has the conflict name, and the cloud's is not touched */
  bool deleted = false;
  bool queued = false;       /* the change is in the upload queue */
  int flying = NOTHING;      /* what is being uploaded */
  int closed = 0;            /* the last content whose close was answered */
  int told = NOTHING;        /* the last one whose writing was answered */
  std::set<int> asked = {0}; /* contents that a close or a death asked to go up */
  std::set<int> saved = {0}; /* contents in the cloud for a close, or kept on this machine */
  std::set<int> others;      /* contents that somebody else put there */
  std::set<int> torn;        /* contents whose writer died; nobody closed them */
  std::set<int> beside;      /* those of them that went to the conflict name */

  /* NOLINTNEXTLINE(readability-implicit-bool-conversion): the compiler compares bools as ints. */
  auto operator<=>(const World&) const = default;

  int sealed() const { return is_aside(state.change) ? aside : local; }
};

enum class Failure { NONE, STEP_FAILS, KILLED };

bool can_fail(Action action) {
  return action != Action::ENQUEUE && action != Action::DROP_ASIDE && action != Action::REST &&
         action != Action::UPLOAD && action != Action::FORGET;
}

/* Which step of the next plan goes wrong, and how. */
struct Trouble {
  Failure failure = Failure::NONE;
  size_t step = 0;
};

class Walk : public testing::Test {
 protected:
  void visit(const World& world, int depth) {
    if (depth == 0 || HasFailure() || !seen_.emplace(world, depth).second) {
      return;
    }
    for (size_t move = 0; move < MOVES; move++) {
      for (size_t step = 0; step < 7; step++) {
        for (const Failure failure : {Failure::NONE, Failure::STEP_FAILS, Failure::KILLED}) {
          if (failure == Failure::NONE && step != 0) {
            continue;
          }
          World after = world;
          trouble_ = {failure, step};
          hit_ = failure == Failure::NONE;
          path_.push_back(move * 100 + step * 10 + static_cast<size_t>(failure));
          if (play(after, move) && hit_) {
            check(after);
            visit(after, depth - 1);
          }
          path_.pop_back();
        }
      }
    }
  }

  static constexpr size_t MOVES = 18;
  size_t worlds() const { return seen_.size(); }

 private:
  /* False when the move cannot be made here. */
  bool play(World& w, size_t move) {
    Open& open = w.opens[move % OPENS];
    switch (move / 2) {
      case 0:
        return move == 0 ? attach(w) : upload_starts(w);
      case 1:
        return write(w, open);
      case 2:
        return close(w, open, open.wrote ? Event::CLOSE_MODIFIED : Event::CLOSE);
      case 3:
        return close(w, open, Event::CLIENT_DIED);
      case 4:
        return upload_ends(w, move % 2 == 0 ? Event::UPLOADED : Event::UPLOAD_FAILED);
      case 5:
        return move % 2 == 0 ? lose_reply(w) : foreign_change(w);
      case 6:
        return move % 2 == 0 ? remove(w) : kill(w, false);
      case 7:
        return move % 2 == 0 ? close(w, w.opens[0], Event::CLOSE)
                             : upload_ends(w, Event::UPLOAD_IMPOSSIBLE);
      default:
        return move % 2 == 0 ? cut(w, w.opens[0]) : kill(w, true);
    }
  }

  bool attach(World& w) {
    for (Open& open : w.opens) {
      if (!open.attached && !w.deleted) {
        const bool idle = !is_on_record(w.state) && !w.opens[0].attached && !w.opens[1].attached;
        if (idle) { /* the cache is filled anew */
          w.local = w.base = w.cloud;
          w.own_name = true;
        }
        open = {.attached = true};
        return true;
      }
    }
    return false;
  }

  /* Told first, unless it may write silently. */
  bool write(World& w, Open& open) {
    if (!open.attached || w.next > WRITES || w.deleted) {
      return false;
    }
    if (!open.silent && !run(w, Event::CHANGE, {})) {
      return true;
    }
    open.silent = open.wrote = true;
    w.local = w.told = w.next++;
    w.torn.clear();
    return true;
  }

  /* The service itself changes the content, once that is on record. */
  bool cut(World& w, Open& open) {
    if (!open.attached || w.next > WRITES || w.deleted) {
      return false;
    }
    cut_to_ = w.next++;
    if (run(w, Event::CHANGE, {})) {
      open.silent = open.wrote = true;
      w.torn.clear();
    }
    cut_to_ = NOTHING;
    return true;
  }

  bool close(World& w, Open& open, Event event) {
    if (!open.attached) {
      return false;
    }
    Facts facts;
    const Open& other = &open == &w.opens[0] ? w.opens[1] : w.opens[0];
    facts.last = !other.attached;
    facts.silent = open.silent;
    facts.others_write = other.attached;
    w.asked.insert(w.local);
    if (event == Event::CLIENT_DIED && open.silent) {
      tear(w);
    } else if (event == Event::CLOSE_MODIFIED) {
      w.torn.clear();
    }
    const Plan steps = plan(w.state, event, facts);
    if (!steps.empty() && steps[0].action == Action::CANCEL_UPLOAD) {
      return false; /* the driver ends the upload first: a move of its own */
    }
    const bool done = run(w, event, facts);
    if (done || event == Event::CLIENT_DIED) {
      w.closed = done && open.wrote && event == Event::CLOSE_MODIFIED ? w.local : w.closed;
      open = {};
    }
    return true;
  }

  /* Its writer died. What was closed before stays so. */
  static void tear(World& w) {
    const bool sealed = w.state.change != Change::NONE && w.sealed() == w.local;
    if (!sealed && !w.saved.contains(w.local)) {
      w.torn.insert(w.local);
    }
  }

  bool upload_starts(World& w) {
    if (!w.queued || w.state.change == Change::NONE || is_uploading(w.state.change)) {
      return false;
    }
    w.flying = w.sealed();
    return run(w, Event::UPLOAD_STARTS, {});
  }

  /* What the cloud answers decides which event it is. */
  bool upload_ends(World& w, Event event) {
    if (!is_uploading(w.state.change)) {
      return false;
    }
    if (event == Event::UPLOADED) {
      event = put(w) ? Event::UPLOADED : Event::UPLOAD_LOST;
    }
    end_upload(w, event);
    return true;
  }

  void end_upload(World& w, Event event) {
    w.flying = NOTHING;
    const bool ended = run(w, event, {});
    EXPECT_FALSE(ended && event == Event::UPLOADED && w.state.change != Change::NONE);
    if (!ended && trouble_.failure == Failure::STEP_FAILS) {
      trouble_ = {};
      run(w, Event::UPLOAD_FAILED, {});
    }
  }

  bool lose_reply(World& w) {
    if (!is_uploading(w.state.change) || !put(w)) {
      return false;
    }
    w.arrived = true;
    end_upload(w, Event::UPLOAD_FAILED);
    return true;
  }

  /* Under the conflict name there is always room. */
  bool put(World& w) {
    const int content = w.sealed();
    EXPECT_TRUE(w.asked.contains(content)) << "content " << content << " was not asked for";
    EXPECT_GE(content, 0);
    EXPECT_FALSE(w.own_name && w.torn.contains(content)) << "torn content over the good one";
    if (w.own_name && w.cloud != w.base && w.cloud != content) {
      return false;
    }
    EXPECT_TRUE(!w.own_name || !w.others.contains(w.cloud) || w.cloud == w.base ||
                w.cloud == content)
        << "somebody else's content was replaced";
    if (w.own_name) {
      w.cloud = content;
    }
    w.saved.insert(content);
    return true;
  }

  bool foreign_change(World& w) {
    if (w.next > WRITES || w.deleted) {
      return false;
    }
    w.cloud = w.next++;
    w.others.insert(w.cloud);
    w.saved.insert(w.cloud);
    return true;
  }

  bool remove(World& w) {
    if (w.deleted || is_uploading(w.state.change)) {
      return false;
    }
    Facts facts;
    facts.last = !w.opens[0].attached && !w.opens[1].attached;
    EXPECT_FALSE(run(w, Event::REMOVE, facts) && is_on_record(w.state)) << "it comes back";
    return true;
  }

  /* The process ends: what counts is on record. Without power what was not sealed is incomplete. */
  bool kill(World& w, bool power) {
    w.opens = {};
    w.queued = false;
    w.flying = NOTHING;
    w.state = w.disk.state;
    if (!is_on_record(w.state)) {
      w.state = {};
      w.aside = NOTHING;
      return true;
    }
    if (w.state.content != Content::CLEAN) {
      w.local = power ? BROKEN : w.local;
      w.told = power ? NOTHING : w.told;
      tear(w);
    }
    w.asked.insert(w.local); /* the clients' death asks for it, under the conflict name */
    trouble_ = {};
    run(w, Event::RESTART, {.last = true, .is_short = power});
    return true;
  }

  /* False when a step failed, or the service was killed. */
  bool run(World& w, Event event, const Facts& facts) {
    const Plan steps = plan(w.state, event, facts);
    int copy = NOTHING;
    for (size_t i = 0; i < steps.size(); i++) {
      if (trouble_.failure == Failure::STEP_FAILS && trouble_.step == i &&
          can_fail(steps[i].action)) {
        hit_ = true;
        return false;
      }
      perform(w, steps[i], event, &copy);
      if (trouble_.failure == Failure::KILLED && trouble_.step == i) {
        hit_ = true;
        kill(w, false);
        return false;
      }
    }
    return true;
  }

  void perform(World& w, const Step& step, Event event, int* copy) {
    switch (step.action) {
      case Action::RECORD:
      case Action::RECORD_FULL:
        if (*copy != NOTHING) {
          w.aside = *copy;
        }
        w.base = event == Event::UPLOADED && w.own_name ? w.cloud : w.base;
        w.disk = {step.after, is_aside(step.after.change)};
        break;
      case Action::COPY_ASIDE:
        *copy = event == Event::CHANGE ? w.sealed() : w.local;
        break;
      case Action::APPLY:
        if (cut_to_ != NOTHING) {
          w.local = w.told = cut_to_;
        }
        break;
      case Action::SPIN_OFF: /* the torn content is a sealed file of its own now */
        EXPECT_TRUE(w.asked.contains(w.local) && w.local != BROKEN);
        w.beside.insert(w.local);
        [[fallthrough]];
      case Action::KEEP_TORN:
        w.local = is_aside(w.state.change) ? w.aside : w.base;
        w.disk = {step.after, false};
        break;
      case Action::BECOME_CONFLICT:
        w.own_name = false;
        w.disk = {step.after, is_aside(step.after.change)};
        break;
      case Action::REMOVE_IN_CLOUD:
        w.deleted = true;
        w.cloud = REMOVED;
        break;
      case Action::KEEP_CHANGE:
        w.saved.insert(w.sealed());
        break;
      case Action::ENQUEUE:
        w.queued = true;
        break;
      default:
        break;
    }
    w.state = step.after;
  }

  /* No answered close is lost, and nothing sealed was written over. */
  void check(const World& w) {
    const bool pending = w.state.change != Change::NONE;
    const bool waits = pending && w.sealed() >= w.closed;
    const bool later = *w.saved.rbegin() >= w.closed && w.saved.contains(w.closed);
    EXPECT_TRUE(w.deleted || waits || later || is_superseded(w)) << "close " << w.closed << " lost";
    EXPECT_FALSE(pending && !w.asked.contains(w.sealed())) << "what is sealed was written over";
    EXPECT_TRUE(is_on_record(w.state) == is_on_record(w.disk.state) || w.deleted)
        << "the record differs";
    EXPECT_TRUE(w.told == NOTHING || w.told == w.local || (pending && w.told == w.sealed()) ||
                w.saved.contains(w.told) || w.beside.contains(w.told) || w.deleted)
        << "what was written is lost";
    EXPECT_TRUE(!pending || is_uploading(w.state.change) || w.queued) << "nobody uploads it";
    EXPECT_EQ(is_uploading(w.state.change), w.flying != NOTHING);
    EXPECT_TRUE(w.state != FileState() || w.local == w.base || !w.own_name || w.deleted ||
                w.saved.contains(w.local))
        << "a clean file is another one";
    if (HasFailure()) {
      std::string moves;
      for (const size_t step : path_) {
        moves += std::to_string(step) + ' ';
      }
      ADD_FAILURE() << "after the moves " << moves;
    }
  }

  /* A later content that was closed, or died, is there instead. */
  static bool is_superseded(const World& w) {
    return w.saved.upper_bound(w.closed) != w.saved.end();
  }

  std::set<std::pair<World, int>> seen_;
  std::vector<size_t> path_;
  Trouble trouble_;
  int cut_to_ = NOTHING;
  bool hit_ = false;
};

TEST_F(Walk, EveryOrderWithEveryStepFailingLosesAndMixesNothing) {
  visit(World(), 7);
  EXPECT_GT(worlds(), 1000u);
}

}  // namespace
