/*
 * The one place where calls of the cloud are tried again: a wrapper around any cloud.
 *
 *   - BUSY and OFFLINE are waited out, with growing pauses, a few times and within the deadline. A
 *     pause that the cloud asks for is kept, unless it is longer than the policy's longest: then
 *     the caller is told at once and may come back later.
 *   - A read goes on where it broke off, under the same version.
 *   - A listing that is tried again leaves out the names that it gave already.
 *   - After UNKNOWN_OUTCOME it looks before it does anything: when what the caller wanted is there,
 *     the call is OK; when all is as it was before, it is tried again; anything else is what the
 *     caller gets. A content counts as arrived when every byte that the snapshot holds is the same
 *     at the path, whoever wrote it. UNKNOWN_OUTCOME is answered only when there was no looking, or
 *     nothing had arrived by the last try.
 *
 * It also counts the calls and tells of progress, so clouds do neither.
 */
#ifndef SERVICE_CLOUD_RETRY_H
#define SERVICE_CLOUD_RETRY_H

#include <memory>

#include "cloud/cloud.h"
#include "cloud/cloud_counts.h"

namespace tarnd {

struct RetryPolicy {
  unsigned tries = 5; /* of one call; a read's start anew with every byte that came */
  std::chrono::milliseconds first_pause{100}; /* doubled with every try */
  std::chrono::milliseconds longest_pause{5000};
};

class RetryingCloud : public Cloud {
 public:
  /* `counts` outlives the cloud. */
  RetryingCloud(std::unique_ptr<Cloud> below, CloudCounts* counts, RetryPolicy policy = {});

  CloudCapabilities capabilities() const override { return below_->capabilities(); }
  CloudResult status(const CloudContext& context, const std::string& path,
                     CloudEntry* entry) override;
  CloudResult list(const CloudContext& context, const std::string& path,
                   const EntrySink& sink) override;
  CloudResult read(const CloudContext& context, const std::string& path, const std::string& version,
                   ByteRange range, const DataSink& sink) override;
  CloudResult put(const CloudContext& context, const std::string& path,
                  const PutCondition& condition, Snapshot& content, CloudEntry* made) override;
  CloudResult patch(const CloudContext& context, const std::string& path,
                    const PutCondition& condition, Snapshot& content, CloudEntry* made) override;
  CloudResult rename(const CloudContext& context, const std::string& from, const std::string& to,
                     const RenameConditions& conditions, CloudEntry* made) override;
  CloudResult remove(const CloudContext& context, const std::string& path,
                     const std::string& version) override;
  CloudResult make_folder(const CloudContext& context, const std::string& path,
                          CloudEntry* made) override;

 private:
  /* What a look at the cloud shows after an unknown outcome. */
  enum class Found { ARRIVED, AS_BEFORE, OTHER };
  using Call = std::function<CloudResult()>;
  using Look = std::function<CloudResult(Found* found)>;

  CloudResult repeat(const CloudContext& context, CloudCall kind, const Call& call);
  CloudResult attempt(const CloudContext& context, CloudCall kind, const Call& call);
  /* `unknown`: an earlier try may have arrived. */
  CloudResult settle(const CloudContext& context, CloudCall kind, bool unknown, const Call& call,
                     const Look& look);
  CloudResult upload(const CloudContext& context, CloudCall kind, const std::string& path,
                     const PutCondition& condition, Snapshot& content, CloudEntry* made);
  CloudResult look_for_content(const CloudContext& context, const std::string& path,
                               const PutCondition& condition, Snapshot& content, CloudEntry* made,
                               Found* found);
  CloudResult look_for_rename(const CloudContext& context, const std::string& from,
                              const std::string& to, const RenameConditions& conditions,
                              CloudEntry* made, Found* found);
  CloudResult same_content(const CloudContext& context, const CloudEntry& entry, Snapshot& content,
                           bool* same);

  const std::unique_ptr<Cloud> below_;
  CloudCounts& counts_;
  const RetryPolicy policy_;
};

}  // namespace tarnd

#endif
