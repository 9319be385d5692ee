#include "files/file_machine.h"

namespace tarnd {
namespace {

Change waiting(Change change) {
  return change == Change::LOCAL_UP   ? Change::LOCAL
         : change == Change::ASIDE_UP ? Change::ASIDE
                                      : change;
}

Change uploading(Change change) {
  return change == Change::LOCAL   ? Change::LOCAL_UP
         : change == Change::ASIDE ? Change::ASIDE_UP
                                   : change;
}

/* Builds a plan: each step begins where the one before ended. */
class Planner {
 public:
  explicit Planner(FileState state) : state_(state) {}

  FileState state() const { return state_; }
  void add(Action action) { plan_.push_back({action, state_}); }
  void add(Action action, FileState after) {
    state_ = after;
    add(action);
  }
  Plan take() { return std::move(plan_); }

 private:
  FileState state_;
  Plan plan_;
};

/* A sealed local file is copied before anybody may write it. */
void change(Planner& planner) {
  FileState after = planner.state();
  if (after.content == Content::GONE) {
    planner.add(Action::APPLY);
    return;
  }
  after.content = after.content == Content::TORN ? Content::TORN : Content::DIRTY;
  if (after.change == Change::LOCAL || after.change == Change::LOCAL_UP) {
    planner.add(Action::COPY_ASIDE);
    after.change = is_uploading(after.change) ? Change::ASIDE_UP : Change::ASIDE;
    planner.add(Action::RECORD_FULL, after);
  } else {
    planner.add(Action::RECORD, after);
  }
  planner.add(Action::APPLY);
}

/* While others may write, the sealed bytes are a copy, and the local file stays dirty. */
void seal(Planner& planner, const Facts& facts) {
  const bool had_aside = is_aside(planner.state().change);
  if (facts.others_write) {
    planner.add(Action::COPY_ASIDE);
    planner.add(Action::RECORD_FULL, {Content::DIRTY, Change::ASIDE});
  } else {
    planner.add(Action::FLUSH);
    planner.add(Action::RECORD_FULL, {Content::CLEAN, Change::LOCAL});
  }
  if (had_aside) {
    planner.add(Action::DROP_ASIDE);
  }
  planner.add(Action::ENQUEUE);
}

/* The torn content leaves the file; what was sealed before is all that the file has then. */
void part_from_torn(Planner& planner, const Facts& facts) {
  FileState after = planner.state();
  after.content = Content::CLEAN;
  after.change = after.change == Change::ASIDE      ? Change::LOCAL
                 : after.change == Change::ASIDE_UP ? Change::LOCAL_UP
                                                    : after.change;
  if (facts.is_short) {
    planner.add(Action::KEEP_TORN, after);
  } else if (facts.is_empty) {
    planner.add(Action::DROP_TORN, after);
  } else {
    planner.add(Action::FLUSH);
    planner.add(Action::SPIN_OFF, after);
  }
}

bool wants_seal(FileState state, bool modified, const Facts& facts) {
  if (state.content == Content::TORN) {
    return modified;
  }
  return state.content == Content::DIRTY &&
         (modified || facts.last || (facts.silent && facts.read_only));
}

void close(Planner& planner, bool modified, const Facts& facts) {
  const FileState state = planner.state();
  if (wants_seal(state, modified, facts)) {
    if (is_uploading(state.change)) {
      planner.add(Action::CANCEL_UPLOAD);
    } else {
      seal(planner, facts);
    }
  } else if (state.content == Content::TORN && facts.last) {
    part_from_torn(planner, facts);
  } else if (modified && state.change != Change::NONE) {
    planner.add(Action::ENQUEUE);
  }
}

/* On record the content is dirty already, and after a restart that means the same as torn. */
void client_died(Planner& planner, const Facts& facts) {
  const FileState state = planner.state();
  if (state.content == Content::DIRTY && (facts.silent || facts.last)) {
    planner.add(Action::REST, {Content::TORN, state.change});
  }
  if (planner.state().content == Content::TORN && facts.last) {
    part_from_torn(planner, facts);
  }
}

/* The change is in the cloud, or given up: the copy goes with it. */
void change_ends(Planner& planner) {
  const FileState state = planner.state();
  planner.add(Action::RECORD, {state.content, Change::NONE});
  if (is_aside(state.change)) {
    planner.add(Action::DROP_ASIDE);
  }
}

void remove(Planner& planner, const Facts& facts) {
  const FileState state = planner.state();
  if (is_uploading(state.change)) {
    planner.add(Action::CANCEL_UPLOAD);
    return;
  }
  planner.add(Action::REMOVE_IN_CLOUD);
  planner.add(Action::RECORD, {Content::GONE, Change::NONE});
  if (is_aside(state.change)) {
    planner.add(Action::DROP_ASIDE);
  }
  if (facts.last) {
    planner.add(Action::FORGET);
  }
}

/* Whatever was not sealed has lost its writer. */
void restart(Planner& planner, const Facts& facts) {
  const FileState state = planner.state();
  if (state.content != Content::CLEAN) {
    part_from_torn(planner, facts);
  }
  if (planner.state().change != Change::NONE) {
    planner.add(Action::ENQUEUE);
  }
}

}  // namespace

Plan plan(FileState state, Event event, const Facts& facts) {
  const FileState idle = {state.content, waiting(state.change)};
  Planner planner(event == Event::RESTART ? idle : state);
  switch (event) {
    case Event::CHANGE:
      change(planner);
      break;
    case Event::CLOSE:
    case Event::CLOSE_MODIFIED:
      close(planner, event == Event::CLOSE_MODIFIED, facts);
      break;
    case Event::CLIENT_DIED:
      client_died(planner, facts);
      break;
    case Event::UPLOAD_STARTS:
      if (state.change != Change::NONE && !is_uploading(state.change)) {
        planner.add(Action::UPLOAD, {state.content, uploading(state.change)});
      }
      break;
    case Event::UPLOADED:
      change_ends(planner);
      break;
    case Event::UPLOAD_FAILED:
      planner.add(Action::REST, idle);
      break;
    case Event::UPLOAD_LOST:
      planner.add(Action::BECOME_CONFLICT, idle);
      break;
    case Event::UPLOAD_IMPOSSIBLE:
      planner.add(Action::KEEP_CHANGE);
      change_ends(planner);
      break;
    case Event::REMOVE:
      remove(planner, facts);
      break;
    case Event::RESTART:
      restart(planner, facts);
      break;
  }
  return planner.take();
}

}  // namespace tarnd
