#include "files/cached_files.h"

#include "names/folded_path.h"

namespace tarnd {

CachedFiles::File CachedFiles::find(const std::string& key) const {
  const auto it = by_path_.find(key);
  return it == by_path_.end() ? nullptr : it->second.file;
}

CachedFiles::File CachedFiles::of_id(int64_t id) const {
  const auto it = by_id_.find(id);
  return it == by_id_.end() ? nullptr : find(it->second);
}

std::vector<CachedFiles::File> CachedFiles::all() const {
  std::vector<File> files;
  files.reserve(size());
  for (const auto& [key, entry] : by_path_) {
    files.push_back(entry.file);
  }
  return files;
}

/* What lies deeper is passed over, folder by folder. */
std::vector<CachedFiles::Keyed> CachedFiles::children(const std::string& folder) const {
  std::vector<Keyed> found;
  const size_t lead = folder.empty() ? 0 : folder.size() + 1;
  auto it = by_path_.lower_bound(join_path(folder, ""));
  while (it != by_path_.end() && is_below(it->first, folder)) {
    const size_t slash = it->first.find('/', lead);
    if (slash == std::string::npos) {
      found.emplace_back(it->first, it->second.file);
      ++it;
    } else {
      constexpr char AFTER_SLASH = '/' + 1;
      it = by_path_.lower_bound(it->first.substr(0, slash) + AFTER_SLASH);
    }
  }
  return found;
}

std::vector<CachedFiles::Keyed> CachedFiles::below(const std::string& folder) const {
  std::vector<Keyed> found;
  for (auto it = by_path_.lower_bound(join_path(folder, ""));
       it != by_path_.end() && is_below(it->first, folder); ++it) {
    found.emplace_back(it->first, it->second.file);
  }
  return found;
}

void CachedFiles::put(const std::string& key, File file) {
  erase(key);
  by_id_[file->id()] = key;
  by_use_[++ticks_] = key;
  by_path_[key] = {std::move(file), ticks_};
}

void CachedFiles::touch(const std::string& key) {
  const auto it = by_path_.find(key);
  if (it != by_path_.end()) {
    by_use_.erase(it->second.used);
    it->second.used = ++ticks_;
    by_use_[ticks_] = key;
  }
}

void CachedFiles::forget(Entries::iterator entry) {
  by_use_.erase(entry->second.used);
  by_id_.erase(entry->second.file->id());
  by_path_.erase(entry);
}

void CachedFiles::erase(const std::string& key) {
  const auto it = by_path_.find(key);
  if (it != by_path_.end()) {
    forget(it);
  }
}

void CachedFiles::move(const std::string& from, const std::string& to) {
  const File file = find(from);
  erase(from);
  if (file != nullptr && !to.empty()) {
    put(to, file);
  }
}

std::vector<CachedFiles::File> CachedFiles::take_oldest(
    const std::function<bool()>& wanted, const std::function<bool(const File& file)>& goes) {
  std::vector<File> taken;
  for (auto it = by_use_.begin(); it != by_use_.end() && wanted();) {
    const auto entry = by_path_.find(it++->second);
    if (goes(entry->second.file)) {
      taken.push_back(entry->second.file);
      forget(entry);
    }
  }
  return taken;
}

}  // namespace tarnd
