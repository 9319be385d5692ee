/*
 * The threads that read contents of the cloud for the fetches of all files (file_fetches.h), a few
 * reads at a time.
 *
 * What somebody waits for goes before read-ahead, of whatever file. Files take turns. A quarter of
 * the threads is left free by read-ahead, and by any one file. Uploads have threads of their own
 * (upload_queue.h): neither direction keeps the other one waiting.
 *
 * Threads: any thread may call anything. One lock guards this object and the fetches of all files.
 * It is held for moments, never over a read or a call of a file.
 */
#ifndef SERVICE_TRANSFER_ENGINE_H
#define SERVICE_TRANSFER_ENGINE_H

#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "cloud/cloud.h"
#include "slim_lock.h"

namespace tarnd {

class FileFetches;

class TransferEngine {
 public:
  using Credentials = std::function<std::shared_ptr<const CloudCredentials>()>;

  /* `reads`: how many at a time, at least 1. The cloud outlives it; it outlives all fetches. */
  TransferEngine(Cloud& cloud, Credentials credentials, unsigned reads);
  ~TransferEngine() { stop(); }

  /* Ends all reads. Who waits for one, or comes later, is answered CANCELLED. */
  void stop();

 private:
  friend class FileFetches;
  using Lock = std::unique_lock<SlimLock>;

  void work();
  /* These want lock_ held. */
  FileFetches* next();
  void enqueue(FileFetches* file);

  Cloud& cloud_;
  const Credentials credentials_;
  const size_t places_; /* reads at a time */

  SlimLock lock_;                  /* guards the fields below, and those of all FileFetches */
  SlimCondition work_;             /* a file has something to read */
  SlimCondition arrived_;          /* bytes came, or will not come any more */
  std::list<FileFetches*> queue_;  /* files with something to read; the next one first */
  std::list<CancelFlag*> reading_; /* of the reads under way */
  bool stopping_ = false;
  std::vector<std::thread> threads_; /* fixed until stop() */
};

}  // namespace tarnd

#endif
