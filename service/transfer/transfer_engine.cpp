#include "transfer/transfer_engine.h"

namespace tarnd {

TransferEngine::TransferEngine(Cloud& cloud, unsigned threads) : cloud_(cloud) {
  for (unsigned i = 0; i < threads; i++) {
    threads_.emplace_back([this] { work(); });
  }
}

TransferEngine::~TransferEngine() { stop(); }

void TransferEngine::run(Job job) {
  const std::lock_guard guard(lock_);
  jobs_.push_back(std::move(job));
  changed_.notify_one();
}

bool TransferEngine::is_stopping() {
  const std::lock_guard guard(lock_);
  return stopping_;
}

void TransferEngine::stop() {
  std::vector<std::thread> threads;
  {
    const std::lock_guard guard(lock_);
    stopping_ = true;
    threads.swap(threads_);
    changed_.notify_all();
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

void TransferEngine::work() {
  std::unique_lock lock(lock_);
  for (;;) {
    changed_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
    if (jobs_.empty()) {
      return;
    }
    const Job job = std::move(jobs_.front());
    jobs_.pop_front();
    lock.unlock();
    job();
    lock.lock();
  }
}

} /* namespace tarnd */
