/*
 * A cached file: contents that must not replace the cloud's. They go up beside it, under the
 * conflict name; what cannot go up at all is kept on this machine.
 */
#include "files/cached_file.h"
#include "ox_errno.h"
#include "ox_logging.h"
#include "uuid_text.h"
#include "wide_text.h"

namespace tarnd {
namespace {

/* All kept files lie in one folder. */
std::string kept_name(const std::string& local) {
  return "kept\\" + local.substr(local.rfind('\\') + 1);
}

}  // namespace

/* What the file has without its local content: the change that was sealed before, or nothing. */
FileRecord CachedFile::rest_of(FileState after) const {
  FileRecord rest = record_;
  rest.state = after;
  rest.has_cut = false;
  if (after.change != Change::NONE) {
    rest.local = record_.sealed.file;
    rest.store = record_.sealed.store;
    rest.store.clear_dirty();
    rest.store.begin_seal();
    rest.size = record_.sealed.size;
  } else {
    rest.local = new_local_name();
  }
  return rest;
}

/* Nothing is open. */
void CachedFile::part_from_local(FileRecord rest) {
  const std::lock_guard guard(lock_);
  local_ = LocalFile(place_of(rest.local));
  filled_ = rest.state.change != Change::NONE;
  clean_size_ = rest.size;
  record_ = std::move(rest);
}

int CachedFile::spin_off(FileState after) {
  FileRecord torn = record_;
  torn.id = env_.store.new_id();
  torn.path = table_.conflict_path(record_.path);
  torn.is_new = true;
  torn.has_cut = false;
  torn.state = {Content::CLEAN, Change::LOCAL};
  LocalFile(place_of(torn.local)).size_on_disk(&torn.size);
  torn.sealed = {torn.local, torn.size, torn.store};
  torn.store.clear_dirty();
  FileRecord rest = rest_of(after);
  const bool stays = is_on_record(after);
  std::vector<const FileRecord*> saved = {&torn};
  std::vector<int64_t> gone;
  stays ? saved.push_back(&rest) : gone.push_back(rest.id);
  if (const int err = env_.store.save(saved, gone, Durability::POWER)) {
    return err;
  }
  OX_LOG(OX_ERROR_LEVEL, 0, "The writer of %s ended before it closed it; what it wrote goes to %s",
         record_.path.c_str(), torn.path.c_str());
  part_from_local(std::move(rest));
  table_.adopt(torn);
  return 0;
}

int CachedFile::drop_torn(FileState after) {
  FileRecord rest = rest_of(after);
  const int err = write_record(rest, Durability::PROCESS);
  if (err == 0) {
    LocalFile(place_of(record_.local)).remove();
    part_from_local(std::move(rest));
  }
  return err;
}

/* The file first: while the record says so, it is tried again at each start. */
int CachedFile::keep_torn(FileState after) {
  const std::wstring from = place_of(record_.local);
  const std::string kept = kept_name(record_.local);
  const bool there = GetFileAttributesW(from.c_str()) != INVALID_FILE_ATTRIBUTES;
  if (there && MoveFileExW(from.c_str(), place_of(kept).c_str(), MOVEFILE_WRITE_THROUGH) == 0) {
    return last_error();
  }
  OX_LOG(OX_ERROR_LEVEL, 0, "What was written to %s and not closed is incomplete; %s%s",
         record_.path.c_str(), there ? "it is " : "its file is gone", there ? kept.c_str() : "");
  FileRecord rest = rest_of(after);
  const int err = write_record(rest, Durability::PROCESS);
  if (err == 0) {
    part_from_local(std::move(rest));
  }
  return err;
}

int CachedFile::keep_change() {
  const std::string kept = kept_name(text_of_id(new_id()));
  const std::wstring from = place_of(record_.sealed.file);
  const bool there = GetFileAttributesW(from.c_str()) != INVALID_FILE_ATTRIBUTES;
  if (there && CopyFileW(from.c_str(), place_of(kept).c_str(), TRUE) == 0) {
    return last_error();
  }
  OX_LOG(OX_ERROR_LEVEL, 0,
         "A change of %s cannot go up, since the cloud's file is another one and this machine has "
         "only a part of it; %s%s",
         record_.path.c_str(), there ? "it is " : "its file is gone", there ? kept.c_str() : "");
  return 0;
}

int CachedFile::become_conflict(FileState after) {
  FileRecord next;
  {
    const std::lock_guard guard(lock_);
    next = record_;
  }
  const std::string before = record_.path;
  next.path = table_.conflict_path(before);
  next.is_new = true;
  next.moving_to.clear();
  next.sealed.sent.clear();
  next.state = after;
  if (const int err = write_record(next, Durability::POWER)) {
    return err;
  }
  OX_LOG(OX_ERROR_LEVEL, 0, "%s is another file in the cloud by now; ours goes to %s",
         before.c_str(), next.path.c_str());
  {
    const std::lock_guard guard(lock_);
    record_.path = next.path;
    record_.is_new = true;
    record_.moving_to.clear();
    record_.sealed.sent.clear();
    record_.state = after;
  }
  table_.took_path(*this, before);
  return 0;
}

}  // namespace tarnd
