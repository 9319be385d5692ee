#include "names/name_caching_cloud.h"

#include <algorithm>
#include <iterator>

namespace tarnd {

CloudResult NameCachingCloud::status(const CloudContext& context, const std::string& path,
                                     CloudEntry* entry) {
  if (const auto known = context.may_be_old ? names_.status(path, entry) : std::nullopt) {
    return CloudResult::of(*known);
  }
  NameCache::Look look(names_, path, false);
  const CloudResult result = below_->status(context, path, entry);
  if (result.ok() || result.code == CloudCode::NOT_FOUND) {
    look.keep_status(result.ok() ? entry : nullptr);
  }
  return result;
}

CloudResult NameCachingCloud::list(const CloudContext& context, const std::string& path,
                                   const EntrySink& sink) {
  if (auto known = context.may_be_old ? names_.listing(path) : std::nullopt) {
    std::all_of(std::make_move_iterator(known->begin()), std::make_move_iterator(known->end()),
                sink);
    return {};
  }
  NameCache::Look look(names_, path, true);
  std::vector<CloudEntry> entries;
  size_t count = 0;
  bool whole = true;
  const CloudResult result = below_->list(context, path, [&](CloudEntry&& entry) {
    if (entries.size() < NameCache::MOST_NAMES) {
      entries.push_back(entry);
    }
    count++;
    whole = sink(std::move(entry));
    return whole;
  });
  if (result.ok() && whole && count == entries.size()) { /* a larger one is not remembered */
    look.keep_listing(entries);
  }
  return result;
}

CloudResult NameCachingCloud::change(const std::string& path, CloudEntry* made, const Call& call) {
  NameCache::Change change(names_, path);
  const CloudResult result = call();
  if (result.ok()) {
    change.worked(made != nullptr ? std::optional(*made) : std::nullopt);
  }
  return result;
}

CloudResult NameCachingCloud::put(const CloudContext& context, const std::string& path,
                                  const PutCondition& condition, Snapshot& content,
                                  CloudEntry* made) {
  return change(path, made, [&] { return below_->put(context, path, condition, content, made); });
}

CloudResult NameCachingCloud::patch(const CloudContext& context, const std::string& path,
                                    const PutCondition& condition, Snapshot& content,
                                    CloudEntry* made) {
  return change(path, made, [&] { return below_->patch(context, path, condition, content, made); });
}

CloudResult NameCachingCloud::rename(const CloudContext& context, const std::string& from,
                                     const std::string& to, const RenameConditions& conditions,
                                     CloudEntry* made) {
  return change(from, nullptr, [&] {
    return change(to, made, [&] { return below_->rename(context, from, to, conditions, made); });
  });
}

CloudResult NameCachingCloud::remove(const CloudContext& context, const std::string& path,
                                     const std::string& version) {
  return change(path, nullptr, [&] { return below_->remove(context, path, version); });
}

CloudResult NameCachingCloud::make_folder(const CloudContext& context, const std::string& path,
                                          CloudEntry* made) {
  return change(path, made, [&] { return below_->make_folder(context, path, made); });
}

}  // namespace tarnd
