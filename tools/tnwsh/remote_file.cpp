#include "remote_file.h"

#include <windows.h>

#include <utility>

#include "answers.h"
#include "text.h"

namespace tnwsh {
namespace {

/* Native dispositions and create options of tnw_create, and the flag of tnw_lockfile. */
constexpr ox_u32 OPEN = 1;
constexpr ox_u32 OVERWRITE_IF = 5;
constexpr ox_u32 FILE_ONLY = 0x40;
constexpr ox_u32 ACCESS_READ = 1;
constexpr ox_u32 ACCESS_WRITE = 2;
constexpr ox_u32 SHARE_READ = 1;
constexpr ox_u32 SHARE_WRITE = 2;
constexpr ox_u32 EXCLUSIVE = 0x2;

struct OpenMode {
  ox_u32 access;
  ox_u32 share;
  ox_u32 disposition;
  const char* failure;
  Answers answers;
};

/* By RemoteFile::Mode. */
constexpr OpenMode MODES[] = {
    {ACCESS_READ, SHARE_READ, OPEN, "cannot open", PATH_ANSWERS},
    {ACCESS_READ, SHARE_READ | SHARE_WRITE, OPEN, "cannot open", PATH_ANSWERS},
    {ACCESS_READ | ACCESS_WRITE, SHARE_READ, OPEN, "cannot open for writing", WRITE_ANSWERS},
    {ACCESS_WRITE, SHARE_READ, OVERWRITE_IF, "cannot create", WRITE_ANSWERS},
};

int process_id() { return static_cast<int>(GetCurrentProcessId()); }

}  // namespace

std::string range_text(const FileRange& range) {
  return counted(range.length, "byte") + " at " + grouped_digits(range.offset);
}

RemoteFile::RemoteFile(Drive& drive, const std::string& path, Mode mode)
    : drive_(drive), path_(path) {
  const OpenMode& open = MODES[static_cast<size_t>(mode)];
  const auto slot = drive.slots_.try_emplace(path_key(path)).first;
  int err = 0;
  handle_ = tnw_create(drive.handle_, &slot->second.context, path.c_str(), open.access, open.share,
                       open.disposition, FILE_ONLY, process_id(), PROCESS_NAME, &err);
  if (handle_ != nullptr) {
    slot->second.opens++;
    return;
  }
  if (slot->second.context == nullptr) {
    drive.slots_.erase(slot);
  }
  throw Failure(path, open.failure, static_cast<uint32_t>(err), open.answers);
}

RemoteFile::~RemoteFile() {
  if (handle_ != nullptr) {
    try_close();
  }
}

int RemoteFile::try_close() {
  const int cleaned = tnw_cleanup_file(handle_);
  const int closed = tnw_close(std::exchange(handle_, nullptr), nullptr);
  if (closed != 0) {
    return closed;
  }
  const auto slot = drive_.slots_.find(path_key(path_));
  if (--slot->second.opens == 0) {
    drive_.slots_.erase(slot);
  }
  return cleaned;
}

size_t RemoteFile::read(uint64_t offset, void* buffer, size_t size) {
  ox_s64 count = 0;
  const int err = tnw_read(handle_, buffer, size, static_cast<ox_off>(offset), &count, nullptr);
  if (err == static_cast<int>(END_OF_FILE)) {
    return 0;
  }
  if (err == 0 && count == 0) { /* the service could not fetch the region, and says no more */
    throw Failure(path_, "cannot read", ERROR_READ_FAULT);
  }
  if (err != 0) {
    throw Failure(path_, "cannot read", static_cast<uint32_t>(err));
  }
  return static_cast<size_t>(count);
}

void RemoteFile::write(uint64_t offset, const void* data, size_t size) {
  ox_s64 count = 0;
  const int err = tnw_write(handle_, const_cast<void*>(data), size, static_cast<ox_off>(offset),
                            &count, nullptr);
  if (err != 0 || count != static_cast<ox_s64>(size)) {
    throw Failure(path_, "cannot write", err != 0 ? static_cast<uint32_t>(err) : ERROR_DISK_FULL);
  }
}

/* In halves, as the call takes it. */
void RemoteFile::set_size(uint64_t size) {
  const int err =
      tnw_setfilesize(handle_, static_cast<ox_u32>(size), static_cast<ox_u32>(size >> 32), nullptr);
  drive_.check_answer(path_, "cannot set the size", err, WRITE_ANSWERS);
}

void RemoteFile::lock(const FileRange& range, bool exclusive) {
  const int err = tnw_lockfile(handle_, exclusive ? EXCLUSIVE : 0, range.offset, 0, range.length, 0,
                               process_id());
  drive_.check_answer(path_, "cannot be locked", err, LOCK_ANSWERS);
}

void RemoteFile::unlock(const FileRange& range) {
  const int err = tnw_unlockfile(handle_, range.offset, 0, range.length, 0, process_id());
  drive_.check_answer(path_, "cannot be unlocked", err, UNLOCK_ANSWERS);
}

void RemoteFile::close() {
  if (const int err = try_close()) {
    throw Failure(path_, "cannot be brought to the cloud", static_cast<uint32_t>(err));
  }
}

}  // namespace tnwsh
