/*
 * The bytes of a sealed change on their way to the cloud: those of a local file that nobody writes,
 * and, for what was never fetched, those of the cloud's content that the change is based on.
 */
#ifndef SERVICE_SEALED_CONTENT_H
#define SERVICE_SEALED_CONTENT_H

#include <atomic>
#include <mutex>
#include <string>

#include "cloud/cloud.h"
#include "files/local_file.h"
#include "slim_lock.h"
#include "state/state_store.h"

namespace tarnd {

/* Fixed after creation, but for the file (its own lock), is_lost, was_read and composes. */
class SealedContent final : public Snapshot {
 public:
  SealedContent(Cloud& cloud, CloudContext context, CloudBase base, SealedChange change);

  int open(const std::wstring& path);
  /* The same bytes are in another file now. */
  int move_to(const std::wstring& path);
  /* Whether the bytes that are not local are read from the cloud, or left out of held(). */
  void compose(bool composes) { composes_ = composes; }
  /* Whether bytes are gone: the local file is too short, or the cloud has another content. */
  bool is_lost() const { return is_lost_; }
  /* Whether the last byte that goes up was read: before that, nothing can have arrived. */
  bool was_read() const { return was_read_; }
  /* As the change has them. */
  const std::vector<SentContent>& sent() const { return change_.sent; }

  uint64_t size() const override { return change_.size; }
  int read(uint64_t offset, void* buffer, size_t size) override;
  std::vector<ByteRange> held() const override;
  std::vector<ByteRange> changed() const override;

 private:
  int read_local(uint64_t offset, char* buffer, size_t size);
  int read_cloud(uint64_t offset, char* buffer, size_t size);

  Cloud& cloud_;
  const CloudContext context_;
  const CloudBase base_;
  const SealedChange change_;
  SlimLock lock_; /* guards file_ */
  LocalFile file_{L""};
  bool composes_ = true;
  std::atomic<bool> is_lost_ = false;
  const uint64_t changed_end_;
  std::atomic<bool> was_read_;
};

}  // namespace tarnd

#endif
