/*
 * A drive in plain memory: what the calls are to answer, and what the files are to hold.
 */
#ifndef PLAIN_DRIVE_H
#define PLAIN_DRIVE_H

#include <windows.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>

#include "real_drive.h"

/* Outlives its name while it is open. */
struct PlainFile {
  std::string bytes;
  bool lost = false; /* deleted when only mapped views were left: they may read anything */
};

/* An open lives in a slot of the caller's choice. Results are Windows codes. Calls for a slot want
 * an open in it. Not thread-safe. */
class PlainDrive {
 public:
  /* A file that came past the drive, over an older one. */
  void put(const std::string& name, const std::string& bytes) {
    files_[name] = std::make_shared<PlainFile>(PlainFile{bytes});
  }

  /* `last_error`: the thread's, after a success. */
  int open(size_t slot, const std::string& name, const OpenHow& how, ox_u32* last_error) {
    auto file = named(name);
    const bool existed = file != nullptr;
    const ox_u32 writes = empties(how.disposition) ? ox_u32{TNW_ACC_WRITE} : 0;
    if (existed && how.disposition == TNW_DISP_CREATE) {
      return ERROR_FILE_EXISTS;
    }
    if (!existed && !may_make(how.disposition)) {
      return ERROR_FILE_NOT_FOUND;
    }
    if (existed && !shares(file, how.access | writes, how.share)) {
      return ERROR_SHARING_VIOLATION;
    }
    if (!existed) {
      file = files_[name] = std::make_shared<PlainFile>();
    }
    if (empties(how.disposition)) {
      file->bytes.clear();
    }
    opens_[slot] = {file, how.access, how.share, false};
    *last_error = existed && may_make(how.disposition) ? ERROR_ALREADY_EXISTS : 0;
    return 0;
  }

  void cleanup(size_t slot) { opens_.at(slot).cleaned = true; }
  void close(size_t slot) { opens_.erase(slot); }
  /* `got`: what there is of it. */
  int read(size_t slot, size_t off, size_t len, std::string* got) const {
    const std::string& bytes = opens_.at(slot).file->bytes;
    *got = off < bytes.size() ? bytes.substr(off, len) : "";
    return off < bytes.size() ? 0 : ERROR_HANDLE_EOF;
  }

  void write(size_t slot, size_t off, const std::string& data) {
    std::string& bytes = opens_.at(slot).file->bytes;
    bytes.resize(std::max(bytes.size(), off + data.size()));
    bytes.replace(off, data.size(), data);
  }

  void resize(size_t slot, size_t size) { opens_.at(slot).file->bytes.resize(size); }

  int rename(const std::string& from, const std::string& to) {
    const int code = may_remove(from);
    if (code != 0 || from == to) {
      return code;
    }
    if (named(to)) {
      return ERROR_FILE_EXISTS;
    }
    files_[to] = files_[from];
    files_.erase(from);
    return 0;
  }

  int remove(const std::string& name) {
    const int code = may_remove(name);
    if (code != 0) {
      return code;
    }
    const auto file = named(name);
    file->lost = std::none_of(opens_.begin(), opens_.end(), [&](const auto& item) {
      return item.second.file == file && !item.second.cleaned;
    });
    files_.erase(name);
    return 0;
  }

  int may_remove(const std::string& name) const {
    const auto file = named(name);
    if (!file) {
      return ERROR_FILE_NOT_FOUND;
    }
    const bool kept = std::any_of(opens_.begin(), opens_.end(), [&](const auto& item) {
      const Open& open = item.second;
      return open.file == file && open.counts() && !(open.share & SHARES_DELETE);
    });
    return kept ? ERROR_SHARING_VIOLATION : 0;
  }

  /* Null when there is none. */
  std::shared_ptr<PlainFile> named(const std::string& name) const {
    const auto found = files_.find(name);
    return found == files_.end() ? nullptr : found->second;
  }

  std::shared_ptr<PlainFile> opened(size_t slot) const {
    const auto found = opens_.find(slot);
    return found == opens_.end() ? nullptr : found->second.file;
  }

  bool is_open(const std::string& name) const {
    const auto file = named(name);
    return std::any_of(opens_.begin(), opens_.end(),
                       [&](const auto& open) { return open.second.file == file; });
  }

  const std::map<std::string, std::shared_ptr<PlainFile>>& files() const { return files_; }

 private:
  static constexpr ox_u32 SHARES_DELETE = 4;

  /* The share bits that an access needs from the others. */
  static ox_u32 needed(ox_u32 access) {
    return ((access & TNW_ACC_READ) != 0 ? ox_u32{FILE_SHARE_READ} : 0) |
           ((access & ~ox_u32{TNW_ACC_READ}) != 0 ? ox_u32{FILE_SHARE_WRITE} : 0);
  }

  static bool empties(ox_u32 disposition) {
    return disposition == TNW_DISP_SUPERSEDE || disposition == TNW_DISP_OVERWRITE ||
           disposition == TNW_DISP_OVERWRITE_IF;
  }
  static bool may_make(ox_u32 disposition) {
    return disposition != TNW_DISP_OPEN && disposition != TNW_DISP_OVERWRITE;
  }

  struct Open {
    std::shared_ptr<PlainFile> file;
    ox_u32 access;
    ox_u32 share;
    bool cleaned;
    bool counts() const { return access != 0 && !cleaned; }
  };

  bool shares(const std::shared_ptr<PlainFile>& file, ox_u32 wants, ox_u32 share) const {
    return std::all_of(opens_.begin(), opens_.end(), [&](const auto& item) {
      const Open& other = item.second;
      const bool fits = !(needed(wants) & ~other.share) && !(needed(other.access) & ~share);
      return other.file != file || !other.counts() || wants == 0 || fits;
    });
  }

  std::map<std::string, std::shared_ptr<PlainFile>> files_;
  std::map<size_t, Open> opens_;
};

#endif
