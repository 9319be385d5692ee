/*
 * A gate that lets so many threads through.
 */
#ifndef GATE_H
#define GATE_H

#include <chrono>
#include <condition_variable>
#include <mutex>

/*
 * A semaphore whose wait gives up after a time that only a failing test needs. The runtime's own
 * semaphore loses wake-ups under Wine.
 */
class Gate {
 public:
  void post(int count = 1) {
    const std::lock_guard guard(lock_);
    free_ += count;
    opened_.notify_all();
  }
  bool wait(int count = 1) {
    std::unique_lock lock(lock_);
    const bool open =
        opened_.wait_for(lock, std::chrono::seconds(10), [&] { return free_ >= count; });
    free_ -= open ? count : 0;
    return open;
  }

 private:
  std::mutex lock_;
  std::condition_variable opened_;
  int free_ = 0;
};

#endif
