/*
 * Reads the answer of a PROPFIND as it comes: each item is handed out once all of it is there, and
 * forgotten, so that a listing of any length takes little memory.
 */
#ifndef SERVICE_MULTISTATUS_H
#define SERVICE_MULTISTATUS_H

#include <cstdint>
#include <functional>
#include <string>

namespace tarnd {

/* What a server tells of one item. What it does not know is empty or 0. */
struct DavItem {
  std::string href;
  bool folder = false;
  uint64_t size = 0;
  std::string tag;
  std::string modified; /* as the server wrote it */
  uint64_t modified_time = 0;
  uint64_t created_time = 0; /* that of the change when the server has none */
};

/* The body of a PROPFIND that asks for just these. */
extern const char* const PROPFIND_BODY;

class MultistatusReader {
 public:
  /* False ends the reading. */
  using Sink = std::function<bool(const DavItem& item)>;

  explicit MultistatusReader(Sink sink) : sink_(std::move(sink)) {}

  /* False when the sink has had enough, or when it is no such answer: broken() tells. */
  bool feed(const char* data, size_t size);
  bool broken() const { return broken_; }
  /* The end of the answer was there. */
  bool complete() const { return complete_; }

 private:
  bool take_root();
  bool take_items();
  bool hand_out(const std::string& element);
  bool fail();

  const Sink sink_;
  std::string text_; /* what came and is not handed out yet */
  std::string root_; /* the start tag of the whole, which declares namespaces */
  std::string prefix_;
  bool complete_ = false;
  bool broken_ = false;
};

}  // namespace tarnd

#endif
