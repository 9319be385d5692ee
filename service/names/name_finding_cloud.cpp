#include "names/name_finding_cloud.h"

#include "names/folded_path.h"
#include "names/share_path.h"
#include "names/short_name.h"

namespace tarnd {
namespace {

std::string last_name(const std::string& path) { return path.substr(path.rfind('/') + 1); }

}  // namespace

CloudCapabilities NameFindingCloud::capabilities() const {
  CloudCapabilities can = below_->capabilities();
  can.case_insensitive = true;
  return can;
}

/* ------------------------------------------------------------------ a path's own spelling */

/* Whether the cloud may have the item under another path. */
bool NameFindingCloud::may_differ(const std::string& path) const {
  return !path.empty() && (!below_->capabilities().case_insensitive || has_short_name(path));
}

/* The call again, with the names that the cloud has, when there is nothing as the path says. */
CloudResult NameFindingCloud::with_own_path(const CloudContext& context, const std::string& path,
                                            const Call& call) {
  const CloudResult result = call(path);
  if (result.code != CloudCode::NOT_FOUND || !may_differ(path)) {
    return result;
  }
  std::string own;
  const CloudResult found = own_path(context, path, &own);
  const bool is_below_file = found.code == CloudCode::REFUSED && found.error == OX_ENOTDIR;
  if (!found.ok()) {
    return is_below_file ? result : found;
  }
  return own == path ? result : call(own);
}

/* The path as the cloud has it. A last name that is not there stays as it is. */
CloudResult NameFindingCloud::own_path(const CloudContext& context, const std::string& path,
                                       std::string* own) {
  std::string folder = parent_path(path);
  CloudResult result = find_in(context, folder, last_name(path), own);
  if (result.code != CloudCode::NOT_FOUND || folder.empty()) {
    return result;
  }
  const std::string asked = folder;
  result = own_path(context, asked, &folder);
  if (!result.ok() || folder == asked) {
    return result.ok() ? CloudResult::of(CloudCode::NOT_FOUND) : result;
  }
  return find_in(context, folder, last_name(path), own);
}

CloudResult NameFindingCloud::find_in(const CloudContext& context, const std::string& folder,
                                      const std::string& name, std::string* own) {
  CloudContext remembered = context;
  remembered.may_be_old = true;
  const std::string wanted = fold_(name);
  *own = join_path(folder, name);
  return below_->list(remembered, folder, [&](const CloudEntry& entry) {
    const bool found = fold_(shown_(entry.name)) == wanted;
    *own = found ? join_path(folder, entry.name) : *own;
    return !found || entry.name == name;
  });
}

/* ------------------------------------------------------------------ the calls */

CloudResult NameFindingCloud::status(const CloudContext& context, const std::string& path,
                                     CloudEntry* entry) {
  const CloudResult result = with_own_path(
      context, path, [&](const std::string& own) { return below_->status(context, own, entry); });
  entry->name = shown_(entry->name);
  return result;
}

CloudResult NameFindingCloud::list(const CloudContext& context, const std::string& path,
                                   const EntrySink& sink) {
  const auto show = [&](CloudEntry&& entry) {
    if (entry.name.size() > MAX_NAME_BYTES) {
      entry.name = shown_(entry.name);
    }
    return sink(std::move(entry));
  };
  return with_own_path(context, path,
                       [&](const std::string& own) { return below_->list(context, own, show); });
}

CloudResult NameFindingCloud::rename(const CloudContext& context, const std::string& from,
                                     const std::string& to, const RenameConditions& conditions,
                                     CloudEntry* made) {
  std::string target = to;
  if (may_differ(to)) {
    std::string own;
    const CloudResult found = own_path(context, to, &own);
    if (!found.ok()) {
      return found;
    }
    const bool only_its_case = fold_(own) == fold_(from);
    target = only_its_case ? join_path(parent_path(own), last_name(to)) : own;
  }
  return with_own_path(context, from, [&](const std::string& own) {
    return below_->rename(context, own, target, conditions, made);
  });
}

CloudResult NameFindingCloud::remove(const CloudContext& context, const std::string& path,
                                     const std::string& version) {
  return with_own_path(
      context, path, [&](const std::string& own) { return below_->remove(context, own, version); });
}

CloudResult NameFindingCloud::make_folder(const CloudContext& context, const std::string& path,
                                          CloudEntry* made) {
  return with_own_path(context, path, [&](const std::string& own) {
    return below_->make_folder(context, own, made);
  });
}

}  // namespace tarnd
