/* A cloud in memory, for tests: files and folders, each content with a version of its own. */
#ifndef MEMORY_CLOUD_H
#define MEMORY_CLOUD_H

#include <algorithm>
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "cloud/cloud.h"
#include "cloud/cloud_counts.h"

/* A content in memory; with `changed` empty, all of it may differ from the base. */
class TextSnapshot : public tarnd::Snapshot {
 public:
  explicit TextSnapshot(std::string content, std::vector<tarnd::ByteRange> changed = {})
      : content_(std::move(content)), changed_(std::move(changed)) {}

  uint64_t size() const override { return content_.size(); }
  std::vector<tarnd::ByteRange> held() const override { return changed(); }
  std::vector<tarnd::ByteRange> changed() const override {
    if (changed_.empty() && !content_.empty()) {
      return {{0, content_.size()}};
    }
    return changed_;
  }
  int read(uint64_t offset, void* buffer, size_t size) override {
    const bool inside = offset <= content_.size() && size <= content_.size() - offset;
    if (!inside || content_.copy(static_cast<char*>(buffer), size, offset) != size) {
      return OX_EINVAL;
    }
    return offset + size > fails_behind ? error : 0;
  }

  int error = 0;
  uint64_t fails_behind = 0; /* a read of bytes behind this offset gives the error */

 private:
  const std::string content_;
  const std::vector<tarnd::ByteRange> changed_;
};

/* Contents are handed out in pieces of `piece` bytes. Threads: any, but for the settings. */
class MemoryCloud : public tarnd::Cloud {
  using Result = tarnd::CloudResult;
  using Context = tarnd::CloudContext;
  using Entry = tarnd::CloudEntry;
  using Path = std::string;

 public:
  size_t piece = 256 * 1024;
  tarnd::CloudCapabilities can = {.patch = true};
  tarnd::CloudCounts counts;
  /* Runs before each call, without a lock; a failure is the call's answer. */
  std::function<Result(tarnd::CloudCall call, const Path& path)> before;
  /* Runs after each upload that arrived; a failure is the upload's answer. */
  std::function<Result()> after;

  /* The content of a file, or "none"; setting it is a change by another client. */
  std::string content(const Path& path) {
    const std::lock_guard guard(lock_);
    const auto it = items_.find(path);
    return it == items_.end() ? "none" : it->second.content;
  }
  std::string set(const Path& path, const std::string& content) {
    const std::lock_guard guard(lock_);
    return (items_[path] = {false, content, ++versions_}).text();
  }
  size_t files() {
    const std::lock_guard guard(lock_);
    return items_.size();
  }

  tarnd::CloudCapabilities capabilities() const override { return can; }

  Result status(const Context& context, const Path& path, Entry* entry) override {
    return guarded(context, tarnd::CloudCall::STATUS, path, [&] { return entry_of(path, entry); });
  }

  Result list(const Context& context, const Path& path, const tarnd::EntrySink& sink) override {
    std::vector<Entry> entries;
    const Result result = guarded(context, tarnd::CloudCall::LIST, path, [&]() -> Result {
      Entry folder;
      if (Result found = entry_of(path, &folder); !found.ok() || !folder.folder) {
        return found.ok() ? Result::refused(OX_ENOTDIR) : found;
      }
      for (const auto& [name, item] : items_) {
        if (parent_of(name) == path) {
          entry_of(name, &entries.emplace_back());
        }
      }
      return {};
    });
    std::all_of(std::make_move_iterator(entries.begin()), std::make_move_iterator(entries.end()),
                sink);
    return result;
  }

  Result read(const Context& context, const Path& path, const std::string& version,
              tarnd::ByteRange range, const tarnd::DataSink& sink) override {
    Result result = guarded(context, tarnd::CloudCall::READ, path, [] { return Result{}; });
    while (result.ok() && !range.empty()) {
      std::string part;
      result = guarded_quietly(context, [&]() -> Result {
        const auto it = items_.find(path);
        if (it == items_.end() || it->second.folder) {
          return it == items_.end() ? none() : Result::refused(OX_EISDIR);
        }
        if (it->second.text() != version) {
          return Result::of(tarnd::CloudCode::CHANGED);
        }
        if (range.end() > it->second.content.size()) {
          return Result::refused(OX_EINVAL);
        }
        part = it->second.content.substr(range.offset, std::min<uint64_t>(piece, range.length));
        return {};
      });
      if (const int err = result.ok() ? sink(part.data(), part.size()) : 0) {
        result = Result::refused(err);
      }
      range = {range.offset + part.size(), range.length - part.size()};
    }
    return result;
  }

  Result put(const Context& context, const Path& path, const tarnd::PutCondition& condition,
             tarnd::Snapshot& content, Entry* made) override {
    std::string fresh(content.size(), '\0');
    return replace(context, tarnd::CloudCall::PUT, path, condition, content, &fresh, made);
  }

  Result patch(const Context& context, const Path& path, const tarnd::PutCondition& condition,
               tarnd::Snapshot& content, Entry* made) override {
    std::string fresh = this->content(path);
    fresh.resize(content.size());
    return replace(context, tarnd::CloudCall::PATCH, path, condition, content, &fresh, made);
  }

  Result rename(const Context& context, const Path& from, const Path& to,
                const tarnd::RenameConditions& conditions, Entry* made) override {
    return guarded(context, tarnd::CloudCall::RENAME, from, [&]() -> Result {
      if (to.starts_with(from + '/')) {
        return Result::refused(OX_EINVAL);
      }
      Result may = expect(from, conditions.source_version, false);
      may = may.ok() && from != to ? expect_target(to, conditions.target_version) : may;
      if (!may.ok()) {
        return may;
      }
      std::map<Path, Item> moved;
      for (auto it = items_.begin(); it != items_.end();) {
        const bool moves = it->first == from || it->first.starts_with(from + '/');
        if (moves) {
          it->second.renames += from != to ? 1 : 0;
          moved[to + it->first.substr(from.size())] = it->second;
        }
        it = moves ? items_.erase(it) : std::next(it);
      }
      for (const auto& [path, item] : moved) {
        items_[path] = item;
      }
      return entry_of(to, made);
    });
  }

  Result remove(const Context& context, const Path& path, const std::string& version) override {
    return guarded(context, tarnd::CloudCall::REMOVE, path, [&]() -> Result {
      if (Result may = expect(path, version, false); !may.ok()) {
        return may;
      }
      const auto below = items_.lower_bound(path + '/');
      if (below != items_.end() && below->first.starts_with(path + '/')) {
        return Result::refused(OX_ENOTEMPTY);
      }
      items_.erase(path);
      return {};
    });
  }

  Result make_folder(const Context& context, const Path& path, Entry* made) override {
    return guarded(context, tarnd::CloudCall::MAKE_FOLDER, path, [&]() -> Result {
      if (Result may = expect_target(path, ""); !may.ok()) {
        return may;
      }
      items_[path] = {true, "", 0};
      return entry_of(path, made);
    });
  }

 private:
  struct Item {
    bool folder = false;
    std::string content;
    uint64_t version = 0;
    uint64_t renames = 0; /* part of the version, as on a directory */

    std::string text() const {
      return folder ? "" : "v" + std::to_string(version) + '.' + std::to_string(renames);
    }
  };

  static Result none() { return Result::of(tarnd::CloudCode::NOT_FOUND); }
  static Path parent_of(const Path& path) {
    const size_t slash = path.rfind('/');
    return slash == Path::npos ? (path.empty() ? "?" : "") : path.substr(0, slash);
  }

  template <typename Work>
  Result guarded_quietly(const Context& context, const Work& work) {
    const Result may = tarnd::check(context);
    const std::lock_guard guard(lock_);
    return may.ok() ? work() : may;
  }
  template <typename Work>
  Result guarded(const Context& context, tarnd::CloudCall call, const Path& path,
                 const Work& work) {
    counts.count(call);
    const Result may = before ? before(call, path) : Result{};
    return may.ok() ? guarded_quietly(context, work) : may;
  }

  /* These want lock_ held. */
  Result entry_of(const Path& path, Entry* entry) {
    const auto it = items_.find(path);
    if (it == items_.end() && !path.empty()) {
      return none();
    }
    const Item item = path.empty() ? Item{true, "", 0} : it->second;
    *entry = {.name = path.substr(path.rfind('/') + 1), .path = path, .folder = item.folder};
    entry->size = item.content.size();
    entry->version = item.text();
    entry->modified = item.version + 1; /* a rename keeps it */
    path.copy(reinterpret_cast<char*>(entry->id.id), sizeof entry->id.id);
    return {};
  }
  Result expect(const Path& path, const std::string& version, bool content) {
    const auto it = items_.find(path);
    if (it == items_.end()) {
      return none();
    }
    if (content && it->second.folder) {
      return Result::refused(OX_EISDIR);
    }
    const bool same = version.empty() || it->second.text() == version;
    return same ? Result{} : Result::of(tarnd::CloudCode::CHANGED);
  }
  Result expect_target(const Path& path, const std::string& version) {
    Entry folder;
    const Result above = entry_of(parent_of(path), &folder);
    if (!above.ok() || !folder.folder) {
      return above.ok() ? Result::refused(OX_ENOTDIR) : above;
    }
    if (!version.empty()) {
      return expect(path, version, true);
    }
    return items_.contains(path) ? Result::of(tarnd::CloudCode::EXISTS) : Result{};
  }

  /* As a cloud does it: all is read first, then the condition is looked at and the content shown.
   */
  Result replace(const Context& context, tarnd::CloudCall call, const Path& path,
                 const tarnd::PutCondition& condition, tarnd::Snapshot& content, std::string* fresh,
                 Entry* made) {
    const Result may = guarded(context, call, path, [] { return Result{}; });
    if (!may.ok()) {
      return may;
    }
    for (const tarnd::ByteRange& range : content.changed()) {
      for (uint64_t at = range.offset; at < range.end(); at += piece) {
        const size_t size = std::min<uint64_t>(piece, range.end() - at);
        if (const int err = content.read(at, fresh->data() + at, size)) {
          return Result::refused(err);
        }
      }
    }
    const Result result = guarded_quietly(context, [&]() -> Result {
      if (Result fits = expect_target(path, condition.version); !fits.ok()) {
        return fits;
      }
      items_[path] = {false, *fresh, ++versions_};
      return entry_of(path, made);
    });
    return result.ok() && after ? after() : result;
  }

  std::mutex lock_;
  std::map<Path, Item> items_;
  uint64_t versions_ = 0;
};

#endif
