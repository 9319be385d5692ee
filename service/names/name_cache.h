/*
 * What is known of names without asking the cloud: status, also of what is not there, and listings,
 * each for a time.
 *
 * What we change ourselves is seen at once, and what the cloud was asked before such a change and
 * answers after it is not taken in. What others change is seen when the time is over.
 *
 * Threads: any thread may call anything.
 */
#ifndef SERVICE_NAME_CACHE_H
#define SERVICE_NAME_CACHE_H

#include <chrono>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "cloud/cloud.h"

namespace tarnd {

class NameCache {
  using Guard = std::lock_guard<std::mutex>;
  using Clock = std::chrono::steady_clock;

 public:
  using Fold = std::string (*)(const std::string& path);
  static constexpr size_t MOST_NAMES = 50'000; /* kept in all; then it begins anew */

  /*
   * `fold` makes one text of all cases of a path, by which names are forgotten. Answers go by the
   * path as it was asked: another spelling may be another item, and is not known.
   */
  NameCache(std::chrono::milliseconds fresh, Fold fold) : fresh_(fresh), fold_(fold) {}

  /* OK with the entry, NOT_FOUND, or nothing when it is not known. */
  std::optional<CloudCode> status(const std::string& path, CloudEntry* entry) const;
  std::optional<std::vector<CloudEntry>> listing(const std::string& path) const;

  /* A question to the cloud, from before it is asked until it is answered. */
  class Look {
   public:
    Look(NameCache& cache, const std::string& path, bool listing);
    Look(const Look&) = delete;
    Look& operator=(const Look&) = delete;
    ~Look();

    /* The answer; `entry` is null for NOT_FOUND. */
    void keep_status(const CloudEntry* entry);
    void keep_listing(const std::vector<CloudEntry>& entries);

   private:
    friend class NameCache;

    NameCache& cache_;
    const std::string path_;
    const std::string key_;
    const bool listing_;
    bool outdated_ = false; /* guarded by the cache's lock */
  };

  /*
   * A change of ours, from before the cloud is asked for it until it has answered. Then something
   * else is at the path, or may be, and at all paths below it.
   */
  class Change {
   public:
    Change(NameCache& cache, const std::string& path);
    Change(const Change&) = delete;
    Change& operator=(const Change&) = delete;
    ~Change();

    /* This is at the path now, or nothing. The listing of the folder above learns it. */
    void worked(const std::optional<CloudEntry>& now) {
      worked_ = true;
      now_ = now;
    }

   private:
    friend class NameCache;

    NameCache& cache_;
    const std::string path_;
    const std::string key_;
    bool worked_ = false;
    std::optional<CloudEntry> now_;
    bool overlaps_ = false; /* another change; guarded by the cache's lock */
  };

 private:
  struct KnownStatus {
    std::string path; /* as it was asked */
    std::optional<CloudEntry> entry;
    Clock::time_point until;
  };
  struct KnownListing {
    std::string path;
    std::multimap<std::string, CloudEntry> entries; /* by their names' keys */
    Clock::time_point until;
  };

  /* These want lock_ held. */
  const KnownListing* known_listing(const std::string& path) const;
  void make_room(size_t names);
  void forget(const std::string& key);
  bool learn(const std::string& path, const CloudEntry* now);

  const std::chrono::milliseconds fresh_;
  const Fold fold_;

  mutable std::mutex lock_;                      /* guards the fields below */
  std::map<std::string, KnownStatus> statuses_;  /* by key */
  std::map<std::string, KnownListing> listings_; /* by key */
  std::list<Look*> looks_;
  std::list<Change*> changes_;
  size_t names_ = 0; /* kept since it began anew */
};

}  // namespace tarnd

#endif
