/*
 * The thread pool against Boost.Asio's: the time of a job that does next to nothing.
 */
#include <atomic>
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>

#include "ox_tpool.h"
#include "parts.h"

namespace {

constexpr int WORKERS = 4, BATCH = 1000;

/* Counts the jobs of one batch down. The last one wakes the producer. */
class Batch {
 public:
  void begin() { left_ = BATCH; }
  void end_job() {
    if (--left_ == 0) {
      left_.notify_one();
    }
  }
  void wait() {
    for (int left = left_; left != 0; left = left_) {
      left_.wait(left);
    }
  }

 private:
  std::atomic<int> left_ = 0;
};

void* end_job(void* batch, void* /*stats*/, void* /*priv*/) {
  static_cast<Batch*>(batch)->end_job();
  return nullptr;
}

/* Each pass is a job; `post` queues one. */
template <class Post>
Work batches(Post post) {
  return [post](benchmark::State& state) {
    Batch batch;
    while (state.KeepRunningBatch(BATCH)) {
      batch.begin();
      for (int i = 0; i < BATCH; i++) {
        post(batch);
      }
      batch.wait();
    }
  };
}

}  // namespace

void pool_rows(Bench& bench) {
  ox_tpool_t* ours = ox_tpool_create_external("bench", nullptr, nullptr, 0, 0, WORKERS, WORKERS);
  boost::asio::thread_pool peer(WORKERS);
  const Work our_work =
      batches([&](Batch& batch) { ox_queue_work(ours, nullptr, end_job, &batch); });
  const Work peer_work =
      batches([&](Batch& batch) { boost::asio::post(peer, [&batch] { batch.end_job(); }); });
  bench.pair("pool, a job, 1 producer", our_work, peer_work);
  bench.pair("pool, a job, 4 producers", our_work, peer_work, 4);
  ox_destroy_tpool(ours, OX_TPOOL_FL_DRAIN);
}
