/*
 * The fetches of one cached file: each byte is under way once, whoever asks for it. Any thread.
 */
#ifndef SERVICE_FILE_FETCHES_H
#define SERVICE_FILE_FETCHES_H

#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <string>

#include "cloud/cloud.h"
#include "transfer/transfer_engine.h"

namespace tarnd {

/* Where fetched bytes go. Called without a lock of the fetches. */
class FetchTarget {
 public:
  struct Source {
    std::string path;
    std::string version;
  };
  virtual ~FetchTarget() = default;
  virtual Source source() = 0;
  virtual int write(uint64_t offset, const char* data, size_t size) = 0;
  /* All of the range was written. */
  virtual void arrived(ByteRange range) = 0;
};

class FileFetches {
 public:
  FileFetches(TransferEngine& engine, FetchTarget& target, uint64_t grain);

  /*
   * Blocks until the range was fetched, or what of it was under way has ended: the caller looks
   * again. CANCELLED after stop().
   */
  CloudResult fetch(ByteRange range, const CloudContext& context);
  /* Returns at once; what is under way already is left out. */
  void read_ahead(ByteRange range, const CloudContext& context);
  /* Ends what runs; nothing is written any more when it returns. */
  void stop();

 private:
  struct Running {
    ByteRange range;
    CancelFlag cancel;
  };
  using Lock = std::unique_lock<std::mutex>;

  bool is_running(ByteRange range) const;
  CloudResult run(const std::shared_ptr<Running>& running, CloudContext context);
  CloudResult read(Running& running, const CloudContext& context);

  TransferEngine& engine_;
  FetchTarget& target_;
  const uint64_t grain_;
  std::mutex lock_; /* guards running_ */
  std::condition_variable ended_;
  std::list<std::shared_ptr<Running>> running_;
};

} /* namespace tarnd */

#endif
