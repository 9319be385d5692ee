/* A cached file: how its sealed change goes to the cloud. */
#include "files/cached_file.h"
#include "ox_errno.h"
#include "ox_logging.h"

namespace tarnd {
namespace {

/* The cloud will not take this content, however often it is asked. */
bool is_definite(CloudCode code) {
  return code == CloudCode::REFUSED || code == CloudCode::NO_SPACE;
}

} /* namespace */

CloudResult CachedFile::upload(const CloudContext& context) {
  std::shared_ptr<SealedContent> content;
  CloudResult result;
  {
    Turn turn(*this);
    Work work;
    if (record_.state.change == Change::NONE || is_uploading(record_.state.change)) {
      return {};
    }
    content = std::make_shared<SealedContent>(env_.cloud, context, record_.base, record_.sealed);
    result.error = content->open(place_of(record_.sealed.file));
    sending_ = content;
    carry_out(turn, Event::UPLOAD_STARTS, work);
  }
  CloudEntry made;
  result = result.error != 0 ? CloudResult::refused(result.error) : send(*content, context, &made);
  const Event event = event_of(result, *content, context);
  Turn turn(*this);
  return end_of_upload(turn, event, result, made);
}

CloudResult CachedFile::end_of_upload(Turn& turn, Event event, CloudResult result,
                                      const CloudEntry& made) {
  Work work;
  work.edit = [&](FileRecord& record) {
    record.base = {record.path, made.version, made.size};
    record.is_new = false;
    record.store.rebase(record.sealed.size);
    record.sealed = {};
  };
  const uint64_t bytes = record_.sealed.size;
  if (carry_out(turn, event, work) != 0) {
    event = Event::UPLOAD_FAILED;
    carry_out(turn, event, work);
    result = CloudResult::busy(std::chrono::milliseconds(0));
  }
  if (event == Event::UPLOADED) {
    env_.counters.files_written_back++;
    env_.counters.bytes_written_back += bytes;
  } else if (event == Event::UPLOAD_FAILED && result.code != CloudCode::CANCELLED) {
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
  return !again                        ? CloudResult{}
         : event == Event::UPLOAD_LOST ? CloudResult::busy(std::chrono::milliseconds(0))
                                       : result;
}

/* Only what changed, where the cloud can; else the whole, composed of here and there. */
CloudResult CachedFile::send(SealedContent& content, const CloudContext& context,
                             CloudEntry* made) {
  const PutCondition condition = {record_.is_new ? "" : record_.base.version, true};
  if (!condition.version.empty() && env_.cloud.capabilities().patch) {
    content.compose(false);
    const CloudResult result = env_.cloud.patch(context, record_.path, condition, content, made);
    if (result.error != OX_ENOSYS) {
      return result;
    }
  }
  content.compose(true);
  return env_.cloud.put(context, record_.path, condition, content, made);
}

/* A new file that the cloud has no folder for is lost, too: its bytes are kept here. */
Event CachedFile::event_of(const CloudResult& result, const SealedContent& content,
                           const CloudContext& context) {
  const CloudCode code = result.code;
  if (result.ok()) {
    return Event::UPLOADED;
  }
  if (content.is_lost() || (code == CloudCode::NOT_FOUND && record_.is_new)) {
    return Event::UPLOAD_IMPOSSIBLE;
  }
  const bool other =
      code == CloudCode::EXISTS || code == CloudCode::CHANGED || code == CloudCode::NOT_FOUND;
  return other && !took_the_other_path(context) ? Event::UPLOAD_LOST : Event::UPLOAD_FAILED;
}

/* A service that was killed in a rename does not know whether it came about. */
bool CachedFile::took_the_other_path(const CloudContext& context) {
  CloudEntry entry;
  if (record_.moving_to.empty() || !env_.cloud.status(context, record_.moving_to, &entry).ok() ||
      entry.version != record_.base.version) {
    return false;
  }
  Turn turn(*this);
  const std::string before = record_.path;
  {
    const std::lock_guard guard(lock_);
    record_.path = record_.base.path = record_.moving_to;
    record_.moving_to.clear();
  }
  write_record(record_, Durability::PROCESS);
  table_.took_path(*this, before);
  return true;
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

} /* namespace tarnd */
