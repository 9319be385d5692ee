/*
 * Buffers for pieces of contents. They are kept, since memory that is new to the process costs the
 * system more than the bytes that go through it; and they are small enough for a processor's cache,
 * where the bytes are found again when they are written. Any thread.
 */
#ifndef SERVICE_PIECE_BUFFERS_H
#define SERVICE_PIECE_BUFFERS_H

#include <algorithm>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

namespace tarnd {

class PieceBuffers {
  using Buffer = std::unique_ptr<char[]>;

 public:
  static constexpr uint64_t PIECE = uint64_t{1} << 20; /* bytes of one */

  /* One buffer, for its lifetime. */
  class Loan {
   public:
    explicit Loan(PieceBuffers& owner) : owner_(owner), buffer_(owner.take()) {}
    ~Loan() { owner_.give_back(std::move(buffer_)); }
    Loan(const Loan&) = delete;
    Loan& operator=(const Loan&) = delete;

    /* So much of it, at most. */
    std::span<char> first(uint64_t bytes) const {
      return {buffer_.get(), static_cast<size_t>(std::min(PIECE, bytes))};
    }

   private:
    PieceBuffers& owner_;
    Buffer buffer_;
  };

 private:
  static constexpr size_t MOST_KEPT = 8;

  Buffer take() {
    const std::lock_guard guard(lock_);
    if (kept_.empty()) {
      return std::make_unique_for_overwrite<char[]>(PIECE);
    }
    Buffer buffer = std::move(kept_.back());
    kept_.pop_back();
    return buffer;
  }
  void give_back(Buffer buffer) {
    const std::lock_guard guard(lock_);
    if (kept_.size() < MOST_KEPT) {
      kept_.push_back(std::move(buffer));
    }
  }

  std::mutex lock_;
  std::vector<Buffer> kept_; /* guarded by lock_ */
};

}  // namespace tarnd

#endif
