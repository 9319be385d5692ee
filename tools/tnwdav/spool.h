/*
 * A content that is being received: in memory while it is small, then in a file that goes with the
 * object. Only a whole content gets into the drive, so that a client that breaks off loses nothing.
 */
#ifndef TNWDAV_SPOOL_H
#define TNWDAV_SPOOL_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace tnwdav {

class Spool {
 public:
  /* `folder`: for the file, UTF-8; it is there. */
  explicit Spool(std::string folder) : folder_(std::move(folder)) {}
  ~Spool();
  Spool(const Spool&) = delete;
  Spool& operator=(const Spool&) = delete;

  /* These throw a DriveError with the code of the local disk. */
  void add(const char* data, size_t size);
  /* Hands the content out from its beginning, in pieces. */
  void read(const std::function<void(uint64_t offset, const char* data, size_t size)>& sink);
  uint64_t size() const { return size_; }

 private:
  void write_out();

  const std::string folder_;
  std::string memory_; /* what is not in the file yet */
  void* file_ = nullptr;
  uint64_t size_ = 0;
};

}  // namespace tnwdav

#endif
