/*
 * A cloud whose items are found by what Windows may call them: by their names in any case, also
 * over a cloud that tells cases apart, and by the short names of those that are too long to be
 * shown (short_name.h). What a path names exactly is taken first. Where the cloud has nothing, the
 * folders on the way are listed, and the first item that has this name to Windows is taken; the
 * listings may be remembered ones (name_caching_cloud.h). A rename never ends on a name that
 * another item has in another case. Contents are read and replaced by the paths that status and
 * listings told.
 *
 * A name that another client of the cloud makes at the same moment can still become such a twin. A
 * listing shows both.
 */
#ifndef SERVICE_NAME_FINDING_CLOUD_H
#define SERVICE_NAME_FINDING_CLOUD_H

#include <functional>
#include <memory>

#include "cloud/cloud.h"

namespace tarnd {

/* Threads: any number. */
class NameFindingCloud : public Cloud {
 public:
  using NameOf = std::string (*)(const std::string& name);

  /* `fold` makes one text of all cases of a name; `shown` is the name that is shown for another. */
  NameFindingCloud(std::unique_ptr<Cloud> below, NameOf fold, NameOf shown)
      : below_(std::move(below)), fold_(fold), shown_(shown) {}

  CloudCapabilities capabilities() const override;
  CloudResult status(const CloudContext& context, const std::string& path,
                     CloudEntry* entry) override;
  CloudResult list(const CloudContext& context, const std::string& path,
                   const EntrySink& sink) override;
  CloudResult read(const CloudContext& context, const std::string& path, const std::string& version,
                   ByteRange range, const DataSink& sink) override {
    return below_->read(context, path, version, range, sink);
  }
  CloudResult put(const CloudContext& context, const std::string& path,
                  const PutCondition& condition, Snapshot& content, CloudEntry* made) override {
    return below_->put(context, path, condition, content, made);
  }
  CloudResult patch(const CloudContext& context, const std::string& path,
                    const PutCondition& condition, Snapshot& content, CloudEntry* made) override {
    return below_->patch(context, path, condition, content, made);
  }
  CloudResult rename(const CloudContext& context, const std::string& from, const std::string& to,
                     const RenameConditions& conditions, CloudEntry* made) override;
  CloudResult remove(const CloudContext& context, const std::string& path,
                     const std::string& version) override;
  CloudResult make_folder(const CloudContext& context, const std::string& path,
                          CloudEntry* made) override;

 private:
  using Call = std::function<CloudResult(const std::string& path)>;

  bool may_differ(const std::string& path) const;
  CloudResult with_own_path(const CloudContext& context, const std::string& path, const Call& call);
  CloudResult own_path(const CloudContext& context, const std::string& path, std::string* own);
  CloudResult find_in(const CloudContext& context, const std::string& folder,
                      const std::string& name, std::string* own);

  const std::unique_ptr<Cloud> below_;
  const NameOf fold_;
  const NameOf shown_;
};

}  // namespace tarnd

#endif
