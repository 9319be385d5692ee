#include "transfer/file_fetches.h"

#include <algorithm>

namespace tarnd {

FileFetches::FileFetches(TransferEngine& engine, FetchTarget& target, uint64_t grain)
    : engine_(engine), target_(target), grain_(grain) {}

bool FileFetches::is_running(ByteRange range) const {
  return std::any_of(running_.begin(), running_.end(), [&](const auto& other) {
    return range.offset < other->range.end() && other->range.offset < range.end();
  });
}

CloudResult FileFetches::fetch(ByteRange range, const CloudContext& context) {
  Lock lock(lock_);
  if (is_running(range)) {
    ended_.wait(lock, [&] { return !is_running(range); });
    return {};
  }
  auto running = std::make_shared<Running>();
  running->range = range;
  running_.push_back(running);
  lock.unlock();
  return run(running, context);
}

void FileFetches::read_ahead(ByteRange range, const CloudContext& context) {
  const Lock lock(lock_);
  if (is_running(range) || engine_.is_stopping()) {
    return;
  }
  auto running = std::make_shared<Running>();
  running->range = range;
  running_.push_back(running);
  engine_.run([this, running, context] { run(running, context); });
}

CloudResult FileFetches::run(const std::shared_ptr<Running>& running, CloudContext context) {
  context.cancel = &running->cancel;
  const CloudResult result =
      engine_.is_stopping() ? CloudResult::of(CloudCode::CANCELLED) : read(*running, context);
  const Lock lock(lock_);
  running_.remove(running);
  ended_.notify_all();
  return result;
}

/* Whole regions count as they come, so that a reader need not wait for the rest. */
CloudResult FileFetches::read(Running& running, const CloudContext& context) {
  const FetchTarget::Source source = target_.source();
  uint64_t next = running.range.offset;
  uint64_t told = next;
  const CloudResult result = engine_.cloud().read(
      context, source.path, source.version, running.range, [&](const char* data, size_t size) {
        const int err = running.cancel.raised() ? OX_EAGAIN : target_.write(next, data, size);
        next += err == 0 ? size : 0;
        const uint64_t whole = next == running.range.end() ? next : next / grain_ * grain_;
        if (err == 0 && whole > told) {
          target_.arrived({told, whole - told});
          told = whole;
        }
        return err;
      });
  return running.cancel.raised() && !result.ok() ? CloudResult::of(CloudCode::CANCELLED) : result;
}

void FileFetches::stop() {
  Lock lock(lock_);
  for (const auto& running : running_) {
    running->cancel.raise();
  }
  ended_.wait(lock, [&] { return running_.empty(); });
}

} /* namespace tarnd */
