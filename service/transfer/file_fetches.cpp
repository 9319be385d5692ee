#include "transfer/file_fetches.h"

#include <algorithm>

namespace tarnd {
namespace {

constexpr Run EVERYTHING{0, UINT64_MAX};

Run run_of(ByteRange range) { return {range.offset, range.end()}; }

bool overlap(Run run, const std::vector<ByteRange>& ranges) {
  return std::any_of(ranges.begin(), ranges.end(), [&](const ByteRange& range) {
    return run.first < range.end() && range.offset < run.end;
  });
}

}  // namespace

FileFetches::FileFetches(TransferEngine& engine, FetchTarget& target, uint64_t grain)
    : engine_(engine), target_(target), grain_(grain) {}

/* ------------------------------------------------------------------ what is wanted */

CloudResult FileFetches::fetch(const std::vector<ByteRange>& ranges, ByteRange ahead,
                               TimePoint deadline) {
  TransferEngine::Lock lock(engine_.lock_);
  Waiter waiter = {ranges, reads_begun_, {}};
  want_all(ranges);
  want(ahead, &ahead_);
  const auto place = waiters_.insert(waiters_.end(), &waiter);
  const bool in_time = engine_.arrived_.wait_until(lock, deadline, [&] {
    return engine_.stopping_ || !waiter.result.ok() || !is_pending(ranges);
  });
  waiters_.erase(place);
  if (!in_time) {
    give_up(ranges);
    return CloudResult::of(CloudCode::OFFLINE);
  }
  return engine_.stopping_ ? CloudResult::of(CloudCode::CANCELLED) : waiter.result;
}

/* What a read is about to bring is not wanted once more. */
void FileFetches::want(ByteRange range, RegionSet* wanted) {
  RegionSet fresh;
  fresh.add(run_of(range));
  for (const Read* read : reads_) {
    fresh.remove(read->left);
  }
  for (const auto& [first, end] : fresh.runs()) {
    wanted->add({first, end});
    engine_.enqueue(this);
  }
}

void FileFetches::want_all(const std::vector<ByteRange>& ranges) {
  for (const ByteRange& range : ranges) {
    want(range, &wanted_);
  }
}

bool FileFetches::is_pending(const std::vector<ByteRange>& ranges) const {
  return std::any_of(reads_.begin(), reads_.end(),
                     [&](const Read* read) { return overlap(read->left, ranges); }) ||
         std::any_of(ranges.begin(), ranges.end(), [&](const ByteRange& range) {
           return !wanted_.next_present(run_of(range)).empty();
         });
}

void FileFetches::give_up(const std::vector<ByteRange>& ranges) {
  for (const ByteRange& range : ranges) {
    wanted_.remove(run_of(range));
  }
  for (const Waiter* waiter : waiters_) {
    want_all(waiter->ranges);
  }
  for (Read* read : reads_) {
    const bool of_others = std::any_of(waiters_.begin(), waiters_.end(), [&](const Waiter* waiter) {
      return overlap(read->left, waiter->ranges);
    });
    if (overlap(read->left, ranges) && !of_others) {
      read->cancel.raise();
    }
  }
}

void FileFetches::stop() {
  TransferEngine::Lock lock(engine_.lock_);
  wanted_.clear();
  ahead_.clear();
  engine_.queue_.remove(this);
  for (Waiter* waiter : waiters_) {
    waiter->result = CloudResult::of(CloudCode::CANCELLED);
  }
  for (Read* read : reads_) {
    read->cancel.raise();
  }
  engine_.arrived_.notify_all();
  engine_.arrived_.wait(lock, [this] { return reads_.empty(); });
}

/* ------------------------------------------------------------------ reading */

/* The next bytes to read: what is wanted first, with the read-ahead that follows it directly. */
Run FileFetches::take_run() {
  Run run = (wanted_.empty() ? ahead_ : wanted_).next_present(EVERYTHING);
  const uint64_t longest = run.first + std::max(LONGEST_READ / grain_ * grain_, grain_);
  run.end = std::min(run.end, longest);
  const Run after = ahead_.next_present({run.end, longest});
  run.end = after.first == run.end ? std::max(run.end, after.end) : run.end;
  wanted_.remove(run);
  ahead_.remove(run);
  return run;
}

/* One read, begun and ended with the lock held. */
void FileFetches::serve(TransferEngine::Lock* lock) {
  Read read = {++reads_begun_, take_run(), {}};
  reads_.push_back(&read);
  engine_.reading_.push_back(&read.cancel);
  if (wants(false) || wants(true)) {
    engine_.enqueue(this);
  }
  lock->unlock();
  const CloudResult result = read_missing(read);
  lock->lock();
  engine_.reading_.remove(&read.cancel);
  reads_.remove(&read);
  end(read, result);
}

/*
 * A failure counts for those who asked before the read began. Who came later has it begun anew: it
 * may have been given up, or gone wrong for a path that the file does not have any more.
 */
void FileFetches::end(const Read& read, const CloudResult& result) {
  for (Waiter* waiter : waiters_) {
    if (result.ok() || !waiter->result.ok() || !overlap(read.left, waiter->ranges)) {
      continue;
    }
    if (waiter->since < read.number) {
      waiter->result = result;
    } else {
      want_all(waiter->ranges);
    }
  }
  engine_.arrived_.notify_all();
}

CloudResult FileFetches::read_missing(Read& read) {
  CloudContext context;
  context.cancel = &read.cancel;
  context.credentials = engine_.credentials_();
  const FetchTarget::Source source = target_.source();
  const uint64_t end = read.left.end;
  for (const ByteRange& range : target_.missing({read.left.first, end - read.left.first})) {
    settle(read, range.offset); /* what lies before it is local */
    uint64_t next = range.offset;
    const CloudResult result = engine_.cloud_.read(
        context, source.path, source.version, range, [&](const char* data, size_t size) {
          const int err = take(read, range, next, data, size);
          next += size;
          return err;
        });
    if (!result.ok()) {
      return result;
    }
  }
  settle(read, end);
  return {};
}

int FileFetches::take(Read& read, ByteRange range, uint64_t offset, const char* data, size_t size) {
  const uint64_t end = offset + size;
  const uint64_t whole = end == range.end() ? end : end / grain_ * grain_;
  if (const int err = target_.write(offset, data, size)) {
    return err;
  }
  if (whole > read.left.first) {
    target_.arrived({read.left.first, whole - read.left.first});
    settle(read, whole);
  }
  return 0;
}

void FileFetches::settle(Read& read, uint64_t end) {
  const std::lock_guard guard(engine_.lock_);
  read.left.first = end;
  engine_.arrived_.notify_all();
}

}  // namespace tarnd
