#include "remote_file.h"

#include <windows.h>

#include <utility>

namespace tnwsh {
namespace {

constexpr ox_u32 SHARE_READ = FILE_SHARE_READ;
constexpr ox_u32 SHARE_BOTH = FILE_SHARE_READ | FILE_SHARE_WRITE;

struct OpenMode {
  ox_u32 access;
  ox_u32 share;
  ox_u32 disposition;
  const char* failure;
  Answers answers;
};

/* Indexed by RemoteFile::Mode. */
constexpr OpenMode MODES[] = {
    {TNW_ACC_READ, SHARE_READ, TNW_DISP_OPEN, "cannot open", PATH_ANSWERS},
    {TNW_ACC_READ, SHARE_BOTH, TNW_DISP_OPEN, "cannot open", PATH_ANSWERS},
    {TNW_ACC_READ | TNW_ACC_WRITE, SHARE_READ, TNW_DISP_OPEN, "cannot open for writing",
     WRITE_ANSWERS},
    {TNW_ACC_WRITE, SHARE_READ, TNW_DISP_OVERWRITE_IF, "cannot create", WRITE_ANSWERS},
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
  handle_ =
      tnw_create(drive.session_.handle(), &slot->second.context, path.c_str(), open.access,
                 open.share, open.disposition, TNW_OPT_FILE, process_id(), PROCESS_NAME, &err);
  if (handle_ != nullptr) {
    slot->second.opens++;
    return;
  }
  if (slot->second.context == nullptr) {
    drive.slots_.erase(slot);
  }
  throw drive_failure(path, open.failure, err, open.answers);
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
  size_t count = 0;
  if (const int err = read_at(handle_, offset, buffer, size, &count)) {
    throw drive_failure(path_, "cannot read", err, READ_ANSWERS);
  }
  return count;
}

void RemoteFile::write(uint64_t offset, const void* data, size_t size) {
  if (const int err = write_at(handle_, offset, data, size)) {
    throw drive_failure(path_, "cannot write", err, WRITE_ANSWERS);
  }
}

/* The call takes the size in two halves. */
void RemoteFile::set_size(uint64_t size) {
  const int err =
      tnw_setfilesize(handle_, static_cast<ox_u32>(size), static_cast<ox_u32>(size >> 32), nullptr);
  drive_.check_answer(path_, "cannot set the size", err, WRITE_ANSWERS);
}

void RemoteFile::lock(const FileRange& range, bool exclusive) {
  const int err = tnw_lockfile(handle_, exclusive ? TNW_LOCK_EXCLUSIVE : 0, range.offset, 0,
                               range.length, 0, process_id());
  drive_.check_answer(path_, "cannot be locked", err, LOCK_ANSWERS);
}

void RemoteFile::unlock(const FileRange& range) {
  const int err = tnw_unlockfile(handle_, range.offset, 0, range.length, 0, process_id());
  drive_.check_answer(path_, "cannot be unlocked", err, UNLOCK_ANSWERS);
}

void RemoteFile::close() {
  if (const int err = try_close(); err != 0) {
    throw drive_failure(path_, "cannot be brought to the cloud", err, WRITE_ANSWERS);
  }
}

}  // namespace tnwsh
