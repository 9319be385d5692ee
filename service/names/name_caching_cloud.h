/*
 * A cloud whose names are asked for once in a while: it answers status and listings from a
 * NameCache for those who say that the answer may be old (CloudContext::may_be_old), and tells the
 * cache of all answers and of all that is changed through it.
 */
#ifndef SERVICE_NAME_CACHING_CLOUD_H
#define SERVICE_NAME_CACHING_CLOUD_H

#include <memory>

#include "names/name_cache.h"

namespace tarnd {

class NameCachingCloud : public Cloud {
 public:
  /* `fresh`: for how long an answer of the cloud is taken for true. `fold`: see NameCache. */
  NameCachingCloud(std::unique_ptr<Cloud> below, std::chrono::milliseconds fresh,
                   NameCache::Fold fold)
      : below_(std::move(below)), names_(fresh, fold) {}

  CloudCapabilities capabilities() const override { return below_->capabilities(); }
  CloudResult status(const CloudContext& context, const std::string& path,
                     CloudEntry* entry) override;
  CloudResult list(const CloudContext& context, const std::string& path,
                   const EntrySink& sink) override;
  CloudResult read(const CloudContext& context, const std::string& path, const std::string& version,
                   ByteRange range, const DataSink& sink) override {
    return below_->read(context, path, version, range, sink);
  }
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
  using Call = std::function<CloudResult()>;

  /* `made`: what the call tells of the path; null when nothing is there after it. */
  CloudResult change(const std::string& path, CloudEntry* made, const Call& call);

  const std::unique_ptr<Cloud> below_;
  NameCache names_;
};

}  // namespace tarnd

#endif
