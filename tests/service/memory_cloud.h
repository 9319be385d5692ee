/* A cloud in memory, for tests: files only, each content with a version of its own. */
#ifndef MEMORY_CLOUD_H
#define MEMORY_CLOUD_H

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>

#include "cloud/cloud.h"
#include "ox_errno.h"

class MemoryCloud : public tarnd::Cloud {
 public:
  /* The content of a file; setting it is a change behind the cache. */
  std::string content_of(const std::string& path) {
    const std::lock_guard guard(lock_);
    return files_[path].content;
  }
  void set(const std::string& path, const std::string& content) {
    const std::lock_guard guard(lock_);
    files_[path] = {content, ++versions_};
  }

  /* While set, every write fails with it. */
  int write_error = 0;
  int writes = 0;
  int reads = 0;

  int list(const std::string&, std::vector<tarnd::CloudEntry>*) override { return OX_ENOSYS; }
  int status(const std::string& path, tarnd::CloudEntry* entry) override {
    const std::lock_guard guard(lock_);
    const auto it = files_.find(path);
    if (it == files_.end()) {
      return OX_ENOENT;
    }
    *entry = {.name = path, .path = path, .size = it->second.content.size()};
    std::memcpy(&entry->version, &it->second.version, sizeof it->second.version);
    path.copy(reinterpret_cast<char*>(entry->id.id), sizeof entry->id.id);
    return 0;
  }
  int read(const std::string& path, uint64_t offset, void* buffer, size_t size,
           size_t* got) override {
    const std::lock_guard guard(lock_);
    reads++;
    const std::string& content = files_[path].content;
    *got = offset < content.size() ? content.copy(static_cast<char*>(buffer), size, offset) : 0;
    return 0;
  }
  int write(const std::string& path, uint64_t size, const tarnd::ContentReader& content) override {
    writes++;
    if (write_error != 0) {
      return write_error;
    }
    std::string fresh(size, '\0');
    for (uint64_t offset = 0; offset < size;) {
      size_t got = 0;
      const int err = content(offset, fresh.data() + offset, fresh.size() - offset, &got);
      if (err != 0 || got == 0) {
        return err != 0 ? err : OX_EIO;
      }
      offset += got;
    }
    set(path, fresh);
    return 0;
  }
  int rename(const std::string& from, const std::string& to, bool) override {
    const std::string content = content_of(from);
    remove(from);
    set(to, content);
    return 0;
  }
  int remove(const std::string& path) override {
    const std::lock_guard guard(lock_);
    return files_.erase(path) != 0 ? 0 : OX_ENOENT;
  }
  int make_folder(const std::string&) override { return OX_ENOSYS; }

 private:
  struct File {
    std::string content;
    uint64_t version = 0;
  };
  std::mutex lock_;
  std::map<std::string, File> files_;
  uint64_t versions_ = 0;
};

#endif
