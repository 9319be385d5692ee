#include "transfer/transfer_engine.h"

#include <algorithm>
#include <utility>

#include "transfer/file_fetches.h"

namespace tarnd {
namespace {

/* What read-ahead, and any one file, may have of the places: a quarter is left for others. */
size_t most_of(size_t places) {
  const size_t left = std::max<size_t>(places / 4, 1);
  return std::max<size_t>(places - left, 1);
}

}  // namespace

TransferEngine::TransferEngine(Cloud& cloud, Credentials credentials, unsigned reads)
    : cloud_(cloud), credentials_(std::move(credentials)), places_(std::max(reads, 1u)) {
  for (size_t i = 0; i < places_; i++) {
    threads_.emplace_back([this] { work(); });
  }
}

void TransferEngine::stop() {
  std::vector<std::thread> threads;
  {
    const std::lock_guard guard(lock_);
    stopping_ = true;
    for (CancelFlag* flag : reading_) {
      flag->raise();
    }
    threads.swap(threads_);
    work_.notify_all();
    arrived_.notify_all();
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

void TransferEngine::enqueue(FileFetches* file) {
  if (std::find(queue_.begin(), queue_.end(), file) == queue_.end()) {
    queue_.push_back(file);
  }
  work_.notify_one();
}

/* Takes the file out of the queue; it comes back at the end if it has more. */
FileFetches* TransferEngine::next() {
  for (const bool ahead : {false, true}) {
    const bool has_place = reading_.size() < (ahead ? most_of(places_) : places_);
    const auto next = std::find_if(queue_.begin(), queue_.end(), [&](const FileFetches* file) {
      return has_place && file->wants(ahead) && file->reads_.size() < most_of(places_);
    });
    if (next != queue_.end()) {
      FileFetches* file = *next;
      queue_.erase(next);
      return file;
    }
  }
  return nullptr;
}

void TransferEngine::work() {
  Lock lock(lock_);
  for (;;) {
    FileFetches* file = nullptr;
    work_.wait(lock, [&] { return stopping_ || (file = next()) != nullptr; });
    if (stopping_) {
      return;
    }
    file->serve(&lock);
  }
}

}  // namespace tarnd
