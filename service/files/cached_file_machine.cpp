/* A cached file: how its plans are carried out. */
#include <algorithm>

#include "files/cached_file.h"
#include "ox_errno.h"
#include "ox_logging.h"
#include "uuid_text.h"

namespace tarnd {
namespace {

constexpr size_t TRANSFER = size_t{1} << 20; /* bytes that are moved at once */

/* The local bytes of a content, into a file of the same size. */
int copy_content(const LocalFile& from, const LocalFile& to, const RegionStore& store,
                 uint64_t size) {
  std::vector<char> buffer(static_cast<size_t>(std::min<uint64_t>(TRANSFER, size)));
  int err = to.set_size(size);
  for (uint64_t offset = 0; err == 0 && offset < size;) {
    const Extent extent = store.at(offset, size);
    if (extent.source == Source::CLOUD) {
      offset = extent.end;
      continue;
    }
    size_t got = 0;
    const size_t want = static_cast<size_t>(std::min<uint64_t>(buffer.size(), extent.end - offset));
    err = from.read(offset, buffer.data(), want, &got);
    err = err == 0 && got < want ? OX_EIO : err;
    err = err != 0 ? err : to.write(offset, buffer.data(), want);
    offset += want;
  }
  return err != 0 ? err : to.flush();
}

}  // namespace

CachedFile::Turn::Turn(CachedFile& file) : file_(file) {
  Lock lock(file_.lock_);
  file_.moved_on_.wait(lock, [&] { return !file_.turn_taken_; });
  file_.turn_taken_ = true;
}

CachedFile::Turn::~Turn() {
  const std::lock_guard guard(file_.lock_);
  file_.turn_taken_ = false;
  file_.moved_on_.notify_all();
}

void CachedFile::Turn::end_upload() {
  file_.table_.cancel_upload(file_);
  Lock lock(file_.lock_);
  file_.turn_taken_ = false;
  file_.moved_on_.notify_all();
  file_.moved_on_.wait(
      lock, [&] { return !file_.turn_taken_ && !is_uploading(file_.record_.state.change); });
  file_.turn_taken_ = true;
}

/* A step that fails ends the plan; the state is that of the step before. */
int CachedFile::carry_out(Turn& turn, Event event, Work& work) {
  Plan steps = plan(record_.state, event, facts_of(work.leaving));
  while (!steps.empty() && steps.front().action == Action::CANCEL_UPLOAD) {
    turn.end_upload();
    steps = plan(record_.state, event, facts_of(work.leaving));
  }
  if (local_.is_open() && local_.size(&work.size) != 0) {
    return OX_EIO;
  }
  work.old_aside = is_aside(record_.state.change) ? record_.sealed.file : "";
  for (const Step& step : steps) {
    if (const int err = perform(step, event, work)) {
      OX_LOG(OX_ERROR_LEVEL, err, "Cannot take step %d of event %d for %s",
             static_cast<int>(step.action), static_cast<int>(event), record_.path.c_str());
      return err;
    }
  }
  return 0;
}

Facts CachedFile::facts_of(const FileOpen* leaving) const {
  Facts facts;
  const auto stays = [&](const FileOpen* open) { return open != leaving; };
  facts.last = std::none_of(opens_.begin(), opens_.end(), stays);
  facts.others_write = std::any_of(opens_.begin(), opens_.end(), [&](const FileOpen* open) {
    return stays(open) && (open->writable || open->may_write);
  });
  facts.silent = leaving != nullptr && leaving->may_write;
  facts.read_only = leaving != nullptr && !leaving->writable;
  if (facts.last) {
    uint64_t size = 0;
    const bool found = LocalFile(place_of(record_.local)).size_on_disk(&size) == 0;
    facts.is_short = !found || size < record_.size;
    facts.is_empty = found && size == 0;
  }
  return facts;
}

int CachedFile::perform(const Step& step, Event event, Work& work) {
  int err = 0;
  switch (step.action) {
    case Action::RECORD:
      return commit(step.after, Durability::PROCESS, event, work);
    case Action::RECORD_FULL:
      return commit(step.after, Durability::POWER, event, work);
    case Action::SPIN_OFF:
      return spin_off(step.after);
    case Action::DROP_TORN:
      return drop_torn(step.after);
    case Action::KEEP_TORN:
      return keep_torn(step.after);
    case Action::BECOME_CONFLICT:
      return become_conflict(step.after);
    case Action::APPLY:
      return apply(work);
    case Action::FLUSH:
      return flush();
    case Action::COPY_ASIDE:
      return copy_aside(event, work);
    case Action::DROP_ASIDE:
      LocalFile(place_of(work.old_aside)).remove();
      break;
    case Action::KEEP_CHANGE:
      err = keep_change();
      break;
    case Action::ENQUEUE:
      set_state(step.after);
      table_.enqueue(*this);
      work.enqueued = true;
      break;
    case Action::REMOVE_IN_CLOUD:
      return remove_in_cloud(work);
    case Action::FORGET:
      local_.remove();
      filled_ = false;
      break;
    case Action::UPLOAD:
    case Action::REST:
    case Action::CANCEL_UPLOAD:
      set_state(step.after);
      break;
  }
  return err;
}

void CachedFile::set_state(FileState after) {
  const std::lock_guard guard(lock_);
  record_.state = after;
}

/* On disk first; then here, where fetches may have added regions meanwhile. */
int CachedFile::commit(FileState after, Durability durability, Event event, Work& work) {
  int err = 0;
  if (work.regions_only && record_.state == after) {
    err = env_.store.add_dirty(record_.id, work.regions, work.size);
  } else {
    FileRecord next;
    {
      const std::lock_guard guard(lock_);
      next = record_;
    }
    edit(&next, after, event, work);
    err = write_record(next, durability);
  }
  if (err == 0) {
    const std::lock_guard guard(lock_);
    edit(&record_, after, event, work);
    clean_size_ = after.content == Content::CLEAN ? record_.size : clean_size_;
  }
  return err;
}

void CachedFile::edit(FileRecord* record, FileState after, Event event, const Work& work) const {
  switch (event) {
    case Event::CHANGE:
      record->sealed.file = work.aside.empty() ? record->sealed.file : work.aside;
      work.edit(*record);
      break;
    case Event::CLOSE:
    case Event::CLOSE_MODIFIED:
      seal(record, after, work);
      break;
    case Event::UPLOADED:
      work.edit(*record);
      break;
    default:
      break;
  }
  record->state = after;
}

/* A change that waits already becomes part of the new one. */
void CachedFile::seal(FileRecord* record, FileState after, const Work& work) const {
  SealedChange sealed;
  sealed.file = work.aside.empty() ? record->local : work.aside;
  sealed.size = work.size;
  sealed.store = record->store;
  if (record->state.change != Change::NONE) {
    sealed.sent = record->sealed.sent;
    for (const auto& [first, end] : record->sealed.store.dirty().runs()) {
      sealed.store.mark_dirty({first, end});
    }
  }
  const bool anywhere = std::any_of(opens_.begin(), opens_.end(),
                                    [](const FileOpen* open) { return open->writes_anywhere; });
  if (anywhere) {
    for (const auto& [first, end] : record->store.present().runs()) {
      sealed.store.mark_dirty({first, end});
    }
  }
  record->size = sealed.size;
  record->sealed = std::move(sealed);
  record->store.begin_seal();
  if (after.content == Content::CLEAN) {
    record->store.clear_dirty();
  }
}

int CachedFile::write_record(const FileRecord& record, Durability durability) {
  return is_on_record(record.state) ? env_.store.save({&record}, {}, durability)
                                    : env_.store.save({}, {record.id}, durability);
}

int CachedFile::flush() {
  if (local_.is_open()) {
    return local_.flush();
  }
  LocalFile file(place_of(record_.local));
  const int err = file.open_existing();
  return err != 0 ? err : file.flush();
}

/* Of what is sealed, before it is written; or of what is being sealed, while others may write. */
int CachedFile::copy_aside(Event event, Work& work) {
  const bool sealed = event == Event::CHANGE;
  const uint64_t size = sealed ? record_.sealed.size : work.size;
  RegionStore store{0};
  {
    const std::lock_guard guard(lock_);
    store = sealed ? record_.sealed.store : record_.store;
  }
  const std::string name = new_local_name();
  LocalFile copy(place_of(name));
  int err = copy.open();
  err = err != 0 ? err : copy_content(local_, copy, store, size);
  if (err == 0 && sealed && sending_ != nullptr) {
    err = sending_->move_to(copy.path());
  }
  if (err != 0) {
    copy.remove();
    return err;
  }
  work.aside = name;
  return 0;
}

int CachedFile::apply(const Work& work) { return work.apply != nullptr ? work.apply() : 0; }

int CachedFile::remove_in_cloud(const Work& work) {
  if (record_.is_new) {
    return 0;
  }
  CloudResult result = env_.cloud.remove(env_.context(), record_.path, work.version);
  if (result.code == CloudCode::CHANGED && record_.base.version != work.version) {
    /* An upload of ours ended after the name was looked up. */
    result = env_.cloud.remove(env_.context(), record_.path, record_.base.version);
  }
  return result.error;
}

}  // namespace tarnd
