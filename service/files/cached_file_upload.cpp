/* A cached file: how its sealed change goes to the cloud. */
#include <algorithm>
#include <numeric>

#include "files/cached_file.h"
#include "names/folded_path.h"
#include "ox_errno.h"
#include "ox_logging.h"

namespace tarnd {
namespace {

/* Before an upload is tried again whose end could not be recorded: the disk may be full. */
constexpr std::chrono::milliseconds STEP_PAUSE{1000};

/* The cloud will not take this content, however often it is asked. */
bool is_definite(CloudCode code) {
  return code == CloudCode::REFUSED || code == CloudCode::NO_SPACE;
}

/*
 * A patch of most of a content costs more than the whole: the cloud copies it first. When some of
 * the bytes are not here, it still costs less than to fetch them.
 */
bool saves_by_patch(const Snapshot& content) {
  const auto length_of = [](const std::vector<ByteRange>& ranges) {
    return std::accumulate(ranges.begin(), ranges.end(), uint64_t{0},
                           [](uint64_t sum, const ByteRange& range) { return sum + range.length; });
  };
  return length_of(content.changed()) < content.size() / 2 ||
         length_of(content.held()) < content.size();
}

}  // namespace

CloudResult CachedFile::upload(const CloudContext& context) {
  std::shared_ptr<SealedContent> content;
  CloudResult result = begin_upload(context, &content);
  if (content == nullptr) {
    return result;
  }
  CloudEntry made;
  result = result.ok() ? send(*content, context, &made) : result;
  Event event = event_of(result, *content);
  const bool is_other = event == Event::UPLOAD_LOST || event == Event::UPLOAD_IMPOSSIBLE;
  SentContents sent = content->sent();
  if (result.code == CloudCode::UNKNOWN_OUTCOME && content->was_read()) {
    note_sent(*content, &sent);
  } else if (is_other && find_sent(context, sent, &made)) {
    event = Event::UPLOAD_FAILED;
    result = {};
    sent.clear();
  }
  Turn turn(*this);
  if (keep_sent(std::move(sent), made) != 0 && event == Event::UPLOAD_FAILED) {
    result = CloudResult::busy(STEP_PAUSE);
  }
  return end_of_upload(turn, event, result, made);
}

/* Without a content there is nothing to send, or not now. */
CloudResult CachedFile::begin_upload(const CloudContext& context,
                                     std::shared_ptr<SealedContent>* content) {
  Turn turn(*this);
  Work work;
  if (record_.state.change == Change::NONE || is_uploading(record_.state.change)) {
    return {};
  }
  if (const CloudResult result = settle_move(context); !result.ok()) {
    OX_LOG(OX_ERROR_LEVEL, result.error, "Cannot look where %s is in the cloud (%s)",
           record_.path.c_str(), name_of(result.code));
    return result;
  }
  *content = std::make_shared<SealedContent>(env_.cloud, context, record_.base, record_.sealed);
  const int err = (*content)->open(place_of(record_.sealed.file));
  sending_ = *content;
  carry_out(turn, Event::UPLOAD_STARTS, work);
  return err != 0 ? CloudResult::refused(err) : CloudResult{};
}

/* The file may be saved again before the cloud can be asked whether this content arrived. */
void CachedFile::note_sent(SealedContent& content, SentContents* sent) {
  SentContent description;
  content.compose(false);
  if (describe_sent(content, &description) == 0 &&
      std::find(sent->begin(), sent->end(), description) == sent->end()) {
    sent->push_back(std::move(description));
  }
}

/* Whether the cloud's file is one that we sent, and not another client's. */
bool CachedFile::find_sent(const CloudContext& context, const SentContents& sent,
                           CloudEntry* found) {
  bool is_same = false;
  if (sent.empty() || !env_.cloud.status(context, record_.path, found).ok()) {
    return false;
  }
  for (size_t i = 0; i < sent.size() && !is_same; i++) {
    is_sent_content(env_.cloud, context, *found, sent[i], &is_same);
  }
  return is_same;
}

/* With the turn. What arrived is what the change is based on from now on. */
int CachedFile::keep_sent(SentContents sent, const CloudEntry& found) {
  if (sent == record_.sealed.sent) {
    return 0;
  }
  FileRecord next;
  {
    const std::lock_guard guard(lock_);
    next = record_;
  }
  if (sent.empty()) {
    OX_LOG(OX_INFO_LEVEL, 0, "An earlier change of %s has arrived in the cloud after all",
           next.path.c_str());
    next.base = {next.path, found.version, found.size, found.modified};
    next.is_new = false;
  }
  next.sealed.sent = std::move(sent);
  if (const int err = write_record(next, Durability::PROCESS)) {
    return err;
  }
  const std::lock_guard guard(lock_);
  if (next.sealed.sent.empty()) {
    entry_ = found;
    fillings_++;
  }
  record_.base = next.base;
  record_.is_new = next.is_new;
  record_.sealed.sent = std::move(next.sealed.sent);
  return 0;
}

/* A failure with an OK result: it is to be tried again at once, with another base. */
CloudResult CachedFile::end_of_upload(Turn& turn, Event event, CloudResult result,
                                      const CloudEntry& made) {
  Work work;
  work.edit = [&](FileRecord& record) {
    record.base = {record.path, made.version, made.size, made.modified};
    record.is_new = false;
    record.store.rebase(record.sealed.size);
    record.sealed = {};
  };
  const uint64_t bytes = record_.sealed.size;
  if (carry_out(turn, event, work) != 0) {
    event = Event::UPLOAD_FAILED;
    carry_out(turn, event, work);
    result = CloudResult::busy(STEP_PAUSE);
  }
  if (event == Event::UPLOADED) {
    env_.counters.files_written_back++;
    env_.counters.bytes_written_back += bytes;
  } else if (event == Event::UPLOAD_FAILED && !result.ok() && result.code != CloudCode::CANCELLED) {
    OX_LOG(OX_ERROR_LEVEL, result.error, "Cannot write %s to the cloud (%s)", record_.path.c_str(),
           name_of(result.code));
  }
  const std::lock_guard guard(lock_);
  if (event == Event::UPLOADED) {
    entry_ = made;
    fillings_++;
  }
  sending_.reset();
  attempts_++;
  last_attempt_ = result;
  moved_on_.notify_all();
  const bool again = event == Event::UPLOAD_LOST || event == Event::UPLOAD_FAILED;
  return !again ? CloudResult{}
         : event == Event::UPLOAD_LOST || result.ok()
             ? CloudResult::busy(std::chrono::milliseconds(0))
             : result;
}

/* Only what changed, where that saves; else the whole, composed of here and there. */
CloudResult CachedFile::send(SealedContent& content, const CloudContext& context,
                             CloudEntry* made) {
  const PutCondition condition = {record_.is_new ? "" : record_.base.version, true};
  content.compose(false);
  if (!condition.version.empty() && env_.cloud.capabilities().patch && saves_by_patch(content)) {
    const CloudResult result = env_.cloud.patch(context, record_.path, condition, content, made);
    if (result.error != OX_ENOSYS) {
      return result;
    }
  }
  content.compose(true);
  return env_.cloud.put(context, record_.path, condition, content, made);
}

/* A new file that the cloud has no folder for is lost, too: its bytes are kept here. */
Event CachedFile::event_of(const CloudResult& result, const SealedContent& content) {
  const CloudCode code = result.code;
  if (result.ok()) {
    return Event::UPLOADED;
  }
  if (content.is_lost() || (code == CloudCode::NOT_FOUND && record_.is_new)) {
    return Event::UPLOAD_IMPOSSIBLE;
  }
  const bool other =
      code == CloudCode::EXISTS || code == CloudCode::CHANGED || code == CloudCode::NOT_FOUND;
  return other ? Event::UPLOAD_LOST : Event::UPLOAD_FAILED;
}

/*
 * A service that was killed in a rename, or had no answer, does not know whether it came about. The
 * base is where its version is, or else where its size and time are: a rename may change the
 * version.
 */
CloudResult CachedFile::find_base(const CloudContext& context, FileRecord* record) {
  CloudEntry entry;
  CloudResult result = env_.cloud.status(context, record->base.path, &entry);
  if (result.code == CloudCode::NOT_FOUND || entry.version != record->base.version) {
    result = env_.cloud.status(context, record->moving_to, &entry);
    if (result.ok() && !entry.folder && entry.size == record->base.size &&
        entry.modified == record->base.modified) {
      record->path = record->path == record->base.path ? record->moving_to : record->path;
      record->base = {record->moving_to, entry.version, entry.size, entry.modified};
    }
  }
  return result;
}

/* A file that is not in the cloud has followed its folder, when that has the new name only. */
CloudResult CachedFile::find_folder(const CloudContext& context, FileRecord* record) {
  const std::string folder = parent_path(record->moving_to);
  CloudEntry entry;
  CloudResult result = env_.cloud.status(context, parent_path(record->path), &entry);
  if (result.code == CloudCode::NOT_FOUND) {
    result = env_.cloud.status(context, folder, &entry);
    if (result.ok()) {
      record->path = join_path(folder, record->path.substr(record->path.rfind('/') + 1));
    }
  }
  return result;
}

/* With the turn. */
CloudResult CachedFile::settle_move(const CloudContext& context) {
  if (record_.moving_to.empty()) {
    return {};
  }
  FileRecord next = record_;
  CloudResult result;
  if (!next.base.version.empty()) {
    result = find_base(context, &next);
  }
  if (next.is_new && (result.ok() || result.code == CloudCode::NOT_FOUND)) {
    result = find_folder(context, &next);
  }
  if (!result.ok() && result.code != CloudCode::NOT_FOUND) {
    return result;
  }
  next.moving_to.clear();
  write_record(next, Durability::PROCESS);
  const std::string before = record_.path;
  {
    const std::lock_guard guard(lock_);
    record_.path = next.path;
    record_.base = next.base;
    record_.moving_to.clear();
  }
  if (next.path != before) {
    table_.took_path(*this, before);
  }
  return {};
}

/* 0 also when it takes longer: it goes on, and the change is safe. */
int CachedFile::wait_for_upload(uint64_t attempts) {
  Lock lock(lock_);
  moved_on_.wait_for(lock, env_.write_back_wait,
                     [&] { return record_.state.change == Change::NONE || attempts_ != attempts; });
  const bool refused = record_.state.change != Change::NONE && attempts_ != attempts &&
                       is_definite(last_attempt_.code);
  return refused ? last_attempt_.error : 0;
}

}  // namespace tarnd
