/*
 * What is fetched of one file: who waits for which bytes, and what is read of the cloud for them.
 *
 * Bytes that several want are fetched once. Neighbouring bytes are fetched with one ranged read,
 * whoever wants them, and large ranges with several reads at a time. Each read streams into the
 * local file: who waits for its first bytes does not wait for its last ones.
 *
 * Threads: any thread may call anything, but without a lock that the target takes in its calls.
 */
#ifndef SERVICE_FILE_FETCHES_H
#define SERVICE_FILE_FETCHES_H

#include <list>
#include <string>
#include <vector>

#include "cloud/cloud.h"
#include "files/region_set.h"
#include "transfer/transfer_engine.h"

namespace tarnd {

/*
 * The file that the bytes are for. It is called without a lock, on the engine's threads, and not
 * any more once stop() has returned. No byte is written by two reads at a time.
 */
class FetchTarget {
 public:
  struct Source {
    std::string path;
    std::string version;
  };
  virtual ~FetchTarget() = default;
  /* Asked at the start of each read, like missing(). */
  virtual Source source() = 0;
  /*
   * The bytes of a range that must still come from the cloud, in their order. What became local
   * since it was asked for, and may have been written since, is not written over.
   */
  virtual std::vector<ByteRange> missing(ByteRange range) = 0;
  /* Takes bytes into the local file: 0, or an error number that ends the read. */
  virtual int write(uint64_t offset, const char* data, size_t size) = 0;
  /* All of the range was written: whole grains, or up to the end of what is missing. */
  virtual void arrived(ByteRange range) = 0;
};

class FileFetches {
 public:
  static constexpr uint64_t LONGEST_READ = uint64_t{4} << 20; /* bytes */
  using TimePoint = std::chrono::steady_clock::time_point;

  /* Both outlive it. `grain`: the size of a region; all ranges begin at one. */
  FileFetches(TransferEngine& engine, FetchTarget& target, uint64_t grain);
  ~FileFetches() { stop(); }
  FileFetches(const FileFetches&) = delete;
  FileFetches& operator=(const FileFetches&) = delete;

  /*
   * Waits until nothing of the ranges is wanted or under way any more; without ranges it returns at
   * once. `ahead` is fetched when nothing more urgent is to do, and its failure is nobody's.
   * Otherwise the result is that of a read that failed before it had what the caller waits for;
   * OFFLINE at the deadline, after which what nobody else waits for is not fetched any more; or
   * CANCELLED after a stop().
   */
  CloudResult fetch(const std::vector<ByteRange>& ranges, ByteRange ahead, TimePoint deadline);
  /*
   * Drops all that is wanted: whoever waits is answered CANCELLED, and when it returns nothing
   * calls the target any more. Later calls begin anew.
   */
  void stop();

 private:
  friend class TransferEngine;
  /* A caller of fetch(), on its stack. */
  struct Waiter {
    const std::vector<ByteRange>& ranges;
    const uint64_t since; /* the reads begun before it came */
    CloudResult result;
  };
  /* One ranged read, on its thread's stack. */
  struct Read {
    const uint64_t number;
    Run left; /* the bytes that have not come yet; changes under the engine's lock */
    CancelFlag cancel;
  };

  /* On the engine's threads. */
  void serve(TransferEngine::Lock* lock);
  CloudResult read_missing(Read& read);
  int take(Read& read, ByteRange range, uint64_t offset, const char* data, size_t size);
  void settle(Read& read, uint64_t end);

  /* These want the engine's lock held. */
  bool wants(bool ahead) const { return !(ahead ? ahead_ : wanted_).empty(); }
  void want(ByteRange range, RegionSet* wanted);
  void want_all(const std::vector<ByteRange>& ranges);
  Run take_run();
  bool is_pending(const std::vector<ByteRange>& ranges) const;
  void give_up(const std::vector<ByteRange>& ranges);
  void end(const Read& read, const CloudResult& result);

  TransferEngine& engine_;
  FetchTarget& target_;
  const uint64_t grain_;

  /* Guarded by the engine's lock. */
  RegionSet wanted_; /* bytes that somebody waits for and no read fetches yet */
  RegionSet ahead_;  /* the same of read-ahead */
  std::list<Waiter*> waiters_;
  std::list<Read*> reads_;
  uint64_t reads_begun_ = 0;
};

}  // namespace tarnd

#endif
