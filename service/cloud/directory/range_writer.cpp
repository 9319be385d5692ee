#include "cloud/directory/range_writer.h"

#include <algorithm>
#include <functional>
#include <future>
#include <mutex>
#include <span>
#include <system_error>
#include <vector>

#include "cloud/directory/directory_item.h"
#include "slim_lock.h"

namespace tarnd {
namespace {

constexpr size_t WRITTEN_AT_ONCE = size_t{1} << 20;
/* From this length on two threads write a range: one reads while the other one writes. */
constexpr uint64_t WRITTEN_BY_TWO = uint64_t{8} << 20;

/* The pieces of a range, which threads take from front to back. */
class Pieces {
 public:
  struct Piece {
    uint64_t offset = 0;
    size_t size = 0; /* 0: there is no more */
  };

  Pieces(const CloudContext& context, Snapshot& content, ByteRange range)
      : context_(context), content_(content), range_(range) {}

  /* Reads the next piece. After a failure, of this or of a write, there is no more. */
  CloudResult read_next(std::span<char> buffer, Piece* piece) {
    const std::lock_guard guard(lock_);
    const size_t size = std::min<uint64_t>(buffer.size(), range_.length);
    *piece = {};
    if (size == 0) {
      return {};
    }
    CloudResult result = check(context_);
    if (result.ok()) {
      const int err = content_.read(range_.offset, buffer.data(), size);
      result = err != 0 ? CloudResult::refused(err) : CloudResult{};
    }
    *piece = {range_.offset, result.ok() ? size : 0};
    range_ = result.ok() ? ByteRange{range_.offset + size, range_.length - size} : ByteRange{};
    return result;
  }
  void stop() {
    const std::lock_guard guard(lock_);
    range_ = {};
  }

 private:
  SlimLock lock_; /* one thread at a time reads the content */
  const CloudContext& context_;
  Snapshot& content_;
  ByteRange range_; /* what nobody has taken yet; guarded by lock_ */
};

CloudResult write_piece(HANDLE file, uint64_t offset, std::span<const char> piece) {
  OVERLAPPED position = overlapped_at(offset);
  DWORD written = 0;
  if (WriteFile(file, piece.data(), static_cast<DWORD>(piece.size()), &written, &position) == 0) {
    return last_result();
  }
  return written == piece.size() ? CloudResult{} : CloudResult::of(CloudCode::NO_SPACE);
}

CloudResult write_pieces(HANDLE file, Pieces& pieces, size_t at_once) {
  std::vector<char> buffer(at_once);
  for (;;) {
    Pieces::Piece piece;
    CloudResult result = pieces.read_next(buffer, &piece);
    if (piece.size == 0) {
      return result;
    }
    result = write_piece(file, piece.offset, std::span(buffer).first(piece.size));
    if (!result.ok()) {
      pieces.stop();
      return result;
    }
  }
}

/* Runs it on another thread, too, where the system has one to give: the first failure of both. */
CloudResult run_twice(const std::function<CloudResult()>& work) {
  std::future<CloudResult> other;
  try {
    other = std::async(std::launch::async, work);
  } catch (const std::system_error&) {
    return work();
  }
  const CloudResult mine = work();
  const CloudResult theirs = other.get();
  return mine.ok() ? theirs : mine;
}

}  // namespace

CloudResult write_range(HANDLE file, const CloudContext& context, Snapshot& content,
                        ByteRange range) {
  Pieces pieces(context, content, range);
  const size_t at_once = std::min<uint64_t>(WRITTEN_AT_ONCE, range.length);
  const auto work = [&] { return write_pieces(file, pieces, at_once); };
  return range.length < WRITTEN_BY_TWO ? work() : run_twice(work);
}

}  // namespace tarnd
