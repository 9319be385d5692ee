/*
 * The life of one cached file, as decisions only: what happened goes in, what is to be done comes
 * out. No I/O, no locks, no clock; cached_file.h carries it out.
 *
 * A plan is a list of steps, to be done in their order. Each names the state that holds once it is
 * done, so a step that fails, or a process that is killed between two of them, leaves the state of
 * the step before: every prefix of a plan is a sound state. What the disk must know before
 * something happens is therefore simply an earlier step. ENQUEUE, REST, UPLOAD, DROP_ASIDE and
 * FORGET never fail.
 *
 * The rules that all plans keep:
 *   - no acknowledged byte is lost: what a close was answered for is in the cloud, or sealed, or
 *     part of a later close;
 *   - no two contents are mixed: what is sealed is not written any more;
 *   - nothing goes up that no close and no client's death asked for;
 *   - nothing in the cloud is replaced that nobody looked at.
 */
#ifndef SERVICE_FILE_MACHINE_H
#define SERVICE_FILE_MACHINE_H

#include <compare>
#include <vector>

namespace tarnd {

/* The local file, against the last seal. */
enum class Content {
  CLEAN,
  DIRTY, /* changed since, or may be changed without a word */
  TORN,  /* dirty, and a client that wrote it died before it closed */
  GONE,  /* deleted: what opens still write goes nowhere */
};

/* The sealed change that is not in the cloud yet, and where its bytes are. LOCAL only with CLEAN.
 */
enum class Change {
  NONE,
  LOCAL,    /* in the local file, which nobody may write */
  LOCAL_UP, /* the same, while it goes up */
  ASIDE,    /* in a copy beside it */
  ASIDE_UP,
};

struct FileState {
  Content content = Content::CLEAN;
  Change change = Change::NONE;

  auto operator<=>(const FileState&) const = default;
};

constexpr bool is_uploading(Change change) {
  return change == Change::LOCAL_UP || change == Change::ASIDE_UP;
}
constexpr bool is_aside(Change change) {
  return change == Change::ASIDE || change == Change::ASIDE_UP;
}
/* Whether the state must outlive the process. */
constexpr bool is_on_record(FileState state) {
  return state.content == Content::DIRTY || state.content == Content::TORN ||
         state.change != Change::NONE;
}

enum class Event {
  CHANGE, /* an open is about to change the content, or to be allowed to without a word */
  CLOSE,  /* of an open that did not modify the file, as far as its client knows */
  CLOSE_MODIFIED,
  CLIENT_DIED, /* the end of an open that was not closed */
  UPLOAD_STARTS,
  UPLOADED,
  UPLOAD_FAILED,     /* nothing arrived, as far as we know: it stays in the queue */
  UPLOAD_LOST,       /* the cloud's file is another one by now */
  UPLOAD_IMPOSSIBLE, /* some of the sealed bytes cannot be had any more */
  REMOVE,
  RESTART, /* of the service, with the state that is on record; nothing is open */
};

/* What the event's plan depends on. */
struct Facts {
  bool last = false;         /* after it, no open is left */
  bool silent = false;       /* the open that ends may have written without a word */
  bool read_only = false;    /* the open that ends cannot say that it modified the file */
  bool others_write = false; /* opens that stay may write */
  bool is_short = false;     /* the local content is shorter than on record: not to be trusted */
  bool is_empty = false;     /* the local file has no bytes */
};

enum class Action {
  RECORD,      /* writes the state, and what of the content is new, into the database */
  RECORD_FULL, /* the same, safe against a loss of power; a seal is counted from here on */
  APPLY,       /* the change itself: marks, truncation */
  FLUSH,       /* the local file to the disk */
  COPY_ASIDE,  /* the local file into a new copy beside it, and that to the disk */
  DROP_ASIDE,  /* a copy that no seal is in any more */
  SPIN_OFF,    /* makes the torn content a sealed file of the conflict name, on record in full */
  DROP_TORN,   /* forgets a torn content without bytes */
  KEEP_TORN,   /* moves the torn local file to the kept ones, with a line in the log */
  KEEP_CHANGE, /* copies the sealed bytes to the kept ones, with a line in the log */
  BECOME_CONFLICT, /* the file takes the conflict name and must be new there, on record in full */
  ENQUEUE,         /* its change may go up */
  REST,            /* nothing but the state; the upload queue tries again by itself */
  UPLOAD,          /* begins */
  CANCEL_UPLOAD,   /* and waits for its end; then the event is planned anew */
  REMOVE_IN_CLOUD,
  FORGET, /* the local file is not needed any more */
};

struct Step {
  Action action;
  FileState after;
};
using Plan = std::vector<Step>;

Plan plan(FileState state, Event event, const Facts& facts);

}  // namespace tarnd

#endif
