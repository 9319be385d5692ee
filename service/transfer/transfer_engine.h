/*
 * Runs transfers that nobody waits for, several at a time. What somebody waits for runs on the
 * thread that waits. Any thread.
 */
#ifndef SERVICE_TRANSFER_ENGINE_H
#define SERVICE_TRANSFER_ENGINE_H

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "cloud/cloud.h"

namespace tarnd {

class TransferEngine {
 public:
  using Job = std::function<void()>;

  TransferEngine(Cloud& cloud, unsigned threads);
  ~TransferEngine();

  Cloud& cloud() const { return cloud_; }
  void run(Job job);
  bool is_stopping();
  /* What waits runs out, and should look at is_stopping(); returns when nothing runs. */
  void stop();

 private:
  void work();

  Cloud& cloud_;
  std::mutex lock_; /* guards the fields below */
  std::condition_variable changed_;
  std::deque<Job> jobs_;
  bool stopping_ = false;
  std::vector<std::thread> threads_; /* fixed until stop() */
};

} /* namespace tarnd */

#endif
