#include "names/name_cache.h"

#include <algorithm>

#include "names/folded_path.h"

namespace tarnd {
namespace {

std::string last_name(const std::string& path) { return path.substr(path.rfind('/') + 1); }

/* '0' comes directly after '/', so nothing else lies between these. */
template <typename Map>
void erase_below(Map* map, const std::string& key) {
  const auto end = key.empty() ? map->end() : map->lower_bound(key + '0');
  map->erase(key.empty() ? map->upper_bound(key) : map->lower_bound(key + '/'), end);
}

}  // namespace

const NameCache::KnownListing* NameCache::known_listing(const std::string& path) const {
  const auto known = listings_.find(fold_(path));
  const bool usable =
      known != listings_.end() && known->second.path == path && Clock::now() < known->second.until;
  return usable ? &known->second : nullptr;
}

std::optional<std::vector<CloudEntry>> NameCache::listing(const std::string& path) const {
  const Guard guard(lock_);
  const KnownListing* known = known_listing(path);
  if (known == nullptr) {
    return std::nullopt;
  }
  std::vector<CloudEntry> entries;
  for (const auto& [key, entry] : known->entries) {
    entries.push_back(entry);
  }
  return entries;
}

std::optional<CloudCode> NameCache::status(const std::string& path, CloudEntry* entry) const {
  const Guard guard(lock_);
  const auto known = statuses_.find(fold_(path));
  if (known != statuses_.end() && known->second.path == path &&
      Clock::now() < known->second.until) {
    *entry = known->second.entry.value_or(CloudEntry{});
    return known->second.entry ? CloudCode::OK : CloudCode::NOT_FOUND;
  }
  const KnownListing* folder = path.empty() ? nullptr : known_listing(parent_path(path));
  if (folder == nullptr) {
    return std::nullopt;
  }
  const std::string name = last_name(path);
  const auto [first, last] = folder->entries.equal_range(fold_(name));
  const auto same =
      std::find_if(first, last, [&](const auto& item) { return item.second.name == name; });
  if (same == last) { /* of another spelling the cloud must tell whether it is the same */
    return first == last ? std::optional(CloudCode::NOT_FOUND) : std::nullopt;
  }
  *entry = same->second;
  return CloudCode::OK;
}

/* All but the listing of the folder above. */
void NameCache::forget(const std::string& key) {
  statuses_.erase(key);
  erase_below(&statuses_, key);
  listings_.erase(key);
  erase_below(&listings_, key);
  for (Look* look : looks_) {
    look->outdated_ = look->outdated_ || look->key_ == key || is_below(look->key_, key) ||
                      (look->listing_ && look->key_ == parent_path(key));
  }
}

void NameCache::make_room(size_t names) {
  names_ += names;
  if (names_ > MOST_NAMES) {
    statuses_.clear();
    listings_.clear();
    names_ = names;
  }
}

/* Puts it into the listing of the folder above: false when that is not known. */
bool NameCache::learn(const std::string& path, const CloudEntry* now) {
  const auto known = listings_.find(fold_(parent_path(path)));
  if (known == listings_.end() || known->second.path != parent_path(path) ||
      (now != nullptr && now->path != path)) {
    return false;
  }
  auto& entries = known->second.entries;
  const std::string name = last_name(path);
  const std::string key = fold_(name);
  const auto [first, last] = entries.equal_range(key);
  const auto same = std::find_if(first, last, [&](const auto& e) { return e.second.name == name; });
  if (same != last) {
    entries.erase(same);
  }
  if (now != nullptr) {
    entries.emplace(key, *now);
  }
  return true;
}

/* ------------------------------------------------------------------ changes of ours */

NameCache::Change::Change(NameCache& cache, const std::string& path)
    : cache_(cache), path_(path), key_(cache.fold_(path)) {
  const Guard guard(cache_.lock_);
  for (Change* other : cache_.changes_) {
    if (other->key_ == key_ || is_below(other->key_, key_) || is_below(key_, other->key_)) {
      overlaps_ = other->overlaps_ = true;
    }
  }
  cache_.changes_.push_back(this);
}

NameCache::Change::~Change() {
  const Guard guard(cache_.lock_);
  cache_.forget(key_);
  if (!worked_ || overlaps_ || !cache_.learn(path_, now_ ? &*now_ : nullptr)) {
    cache_.listings_.erase(parent_path(key_));
  }
  cache_.changes_.remove(this);
}

/* ------------------------------------------------------------------ questions to the cloud */

NameCache::Look::Look(NameCache& cache, const std::string& path, bool listing)
    : cache_(cache), path_(path), key_(cache.fold_(path)), listing_(listing) {
  const Guard guard(cache_.lock_);
  cache_.looks_.push_back(this);
}

NameCache::Look::~Look() {
  const Guard guard(cache_.lock_);
  cache_.looks_.remove(this);
}

void NameCache::Look::keep_status(const CloudEntry* entry) {
  const Guard guard(cache_.lock_);
  if (outdated_) {
    return;
  }
  cache_.make_room(1);
  cache_.statuses_[key_] = {path_, entry == nullptr ? std::nullopt : std::optional(*entry),
                            Clock::now() + cache_.fresh_};
}

/* It is younger than what was known of the single names. */
void NameCache::Look::keep_listing(const std::vector<CloudEntry>& entries) {
  KnownListing known = {path_, {}, Clock::now() + cache_.fresh_};
  for (const CloudEntry& entry : entries) {
    known.entries.emplace(cache_.fold_(entry.name), entry);
  }
  const Guard guard(cache_.lock_);
  if (outdated_) {
    return;
  }
  cache_.make_room(entries.size() + 1);
  erase_below(&cache_.statuses_, key_);
  cache_.listings_[key_] = std::move(known);
}

}  // namespace tarnd
