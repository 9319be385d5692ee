/*
 * The uploads that wait, by a key: each runs soon, and again after growing pauses for as long as it
 * ends with something that may pass. What is to go up is on record elsewhere; this is the order.
 * Any thread.
 */
#ifndef SERVICE_UPLOAD_QUEUE_H
#define SERVICE_UPLOAD_QUEUE_H

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "cloud/cloud.h"
#include "slim_lock.h"

namespace tarnd {

class UploadQueue {
 public:
  using Upload = std::function<CloudResult(uint64_t key, const CloudContext& context)>;
  using Clock = std::chrono::steady_clock;
  using Credentials = std::function<std::shared_ptr<const CloudCredentials>()>;

  UploadQueue(Upload upload, Credentials credentials, unsigned threads);
  ~UploadQueue();

  /* Runs it soon; one that runs already, once more. */
  void add(uint64_t key);
  /* Ends it soon, and takes it out of the queue. */
  void cancel(uint64_t key);
  /* All pauses are over. */
  void kick();
  /* Goes on until all is up or the time is over, then stops. */
  void finish(std::chrono::milliseconds time);
  void stop();

 private:
  struct Item {
    Clock::time_point due;
    std::chrono::milliseconds pause{0};
    std::shared_ptr<CancelFlag> running; /* null while it waits */
    bool again = false;                  /* added while it ran */
  };
  using Lock = std::unique_lock<SlimLock>;

  void work();
  bool next(Lock& lock, uint64_t* key);
  void ended(uint64_t key, const CloudResult& result);

  const Upload upload_;
  const Credentials credentials_;
  SlimLock lock_;       /* guards the fields below */
  SlimCondition work_;  /* something is due, or may be: one thread looks, or all do */
  SlimCondition ended_; /* an item has gone */
  std::map<uint64_t, Item> items_;
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace tarnd

#endif
