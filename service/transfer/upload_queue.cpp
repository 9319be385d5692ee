#include "transfer/upload_queue.h"

#include <algorithm>

namespace tarnd {
namespace {

constexpr std::chrono::milliseconds FIRST_PAUSE{500};
constexpr std::chrono::milliseconds LONGEST_PAUSE{60000};

}  // namespace

UploadQueue::UploadQueue(Upload upload, Credentials credentials, unsigned threads)
    : upload_(std::move(upload)), credentials_(std::move(credentials)) {
  for (unsigned i = 0; i < threads; i++) {
    threads_.emplace_back([this] { work(); });
  }
}

UploadQueue::~UploadQueue() { stop(); }

void UploadQueue::add(uint64_t key) {
  const std::lock_guard guard(lock_);
  Item& item = items_[key];
  item.again = item.running != nullptr;
  item.due = Clock::now();
  item.pause = std::chrono::milliseconds(0);
  work_.notify_one();
}

void UploadQueue::cancel(uint64_t key) {
  const std::lock_guard guard(lock_);
  const auto it = items_.find(key);
  if (it == items_.end()) {
    return;
  }
  it->second.again = false;
  if (it->second.running != nullptr) {
    it->second.running->raise();
  } else {
    items_.erase(it);
  }
}

void UploadQueue::kick() {
  const std::lock_guard guard(lock_);
  for (auto& [key, item] : items_) {
    item.due = Clock::now();
  }
  work_.notify_all();
}

void UploadQueue::finish(std::chrono::milliseconds time) {
  {
    Lock lock(lock_);
    for (auto& [key, item] : items_) {
      item.due = Clock::now();
    }
    work_.notify_all();
    ended_.wait_for(lock, time, [this] { return items_.empty(); });
  }
  stop();
}

void UploadQueue::stop() {
  std::vector<std::thread> threads;
  {
    const std::lock_guard guard(lock_);
    stopping_ = true;
    threads.swap(threads_);
    for (auto& [key, item] : items_) {
      if (item.running != nullptr) {
        item.running->raise();
      }
    }
    work_.notify_all();
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

/*
 * The one that is due longest; waits for one. Who takes one wakes another thread, which waits for
 * the next one in its place.
 */
bool UploadQueue::next(Lock& lock, uint64_t* key) {
  while (!stopping_) {
    auto first = items_.end();
    for (auto it = items_.begin(); it != items_.end(); ++it) {
      if (it->second.running == nullptr &&
          (first == items_.end() || it->second.due < first->second.due)) {
        first = it;
      }
    }
    if (first != items_.end() && first->second.due <= Clock::now()) {
      *key = first->first;
      if (items_.size() > 1) {
        work_.notify_one();
      }
      return true;
    }
    if (first == items_.end()) {
      work_.wait(lock);
    } else {
      work_.wait_until(lock, first->second.due);
    }
  }
  return false;
}

void UploadQueue::work() {
  Lock lock(lock_);
  for (uint64_t key = 0; next(lock, &key);) {
    const auto cancel = std::make_shared<CancelFlag>();
    items_[key].running = cancel;
    lock.unlock();
    CloudContext context;
    context.cancel = cancel.get();
    context.credentials = credentials_();
    const CloudResult result = upload_(key, context);
    lock.lock();
    ended(key, result);
  }
}

void UploadQueue::ended(uint64_t key, const CloudResult& result) {
  Item& item = items_[key];
  const bool cancelled = item.running->raised();
  item.running.reset();
  if (item.again) {
    item.again = false;
  } else if (result.ok() || cancelled) {
    items_.erase(key);
  } else {
    item.pause = std::clamp(2 * item.pause, FIRST_PAUSE, LONGEST_PAUSE);
    const bool at_once = result.code == CloudCode::BUSY && result.pause.count() == 0;
    item.due = Clock::now() + (at_once ? result.pause : std::max(item.pause, result.pause));
  }
  ended_.notify_all();
}

}  // namespace tarnd
