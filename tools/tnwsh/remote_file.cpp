#include "remote_file.h"

#include <windows.h>

#include <utility>

#include "answers.h"
#include "text.h"

namespace tnwsh {
namespace {

/* Native dispositions and create options of tnw_create, and the flag of tnw_lockfile. */
constexpr ox_u32 kOpen = 1;
constexpr ox_u32 kOverwriteIf = 5;
constexpr ox_u32 kFileOnly = 0x40;
constexpr ox_u32 kAccessRead = 1;
constexpr ox_u32 kAccessWrite = 2;
constexpr ox_u32 kShareRead = 1;
constexpr ox_u32 kShareWrite = 2;
constexpr ox_u32 kExclusive = 0x2;

struct OpenMode {
  ox_u32 access;
  ox_u32 share;
  ox_u32 disposition;
  const char* failure;
  Answers answers;
};

/* By RemoteFile::Mode. */
constexpr OpenMode kModes[] = {
    {kAccessRead, kShareRead, kOpen, "cannot open", kPathAnswers},
    {kAccessRead, kShareRead | kShareWrite, kOpen, "cannot open", kPathAnswers},
    {kAccessRead | kAccessWrite, kShareRead, kOpen, "cannot open for writing", kWriteAnswers},
    {kAccessWrite, kShareRead, kOverwriteIf, "cannot create", kWriteAnswers},
};

int ProcessId() { return static_cast<int>(GetCurrentProcessId()); }

}  // namespace

std::string RangeText(const FileRange& range) {
  return Counted(range.length, "byte") + " at " + GroupedDigits(range.offset);
}

RemoteFile::RemoteFile(Drive& drive, const std::string& path, Mode mode)
    : drive_(drive), path_(path) {
  const OpenMode& open = kModes[static_cast<size_t>(mode)];
  const auto slot = drive.slots_.try_emplace(PathKey(path)).first;
  int err = 0;
  handle_ = tnw_create(drive.handle_, &slot->second.context, path.c_str(), open.access, open.share,
                       open.disposition, kFileOnly, ProcessId(), kProcessName, &err);
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
    TryClose();
  }
}

int RemoteFile::TryClose() {
  const int cleaned = tnw_cleanup_file(handle_);
  const int closed = tnw_close(std::exchange(handle_, nullptr), nullptr);
  if (closed != 0) {
    return closed;
  }
  const auto slot = drive_.slots_.find(PathKey(path_));
  if (--slot->second.opens == 0) {
    drive_.slots_.erase(slot);
  }
  return cleaned;
}

size_t RemoteFile::Read(uint64_t offset, void* buffer, size_t size) {
  ox_s64 count = 0;
  const int err = tnw_read(handle_, buffer, size, static_cast<ox_off>(offset), &count, nullptr);
  if (err == static_cast<int>(kEndOfFile)) {
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

void RemoteFile::Write(uint64_t offset, const void* data, size_t size) {
  ox_s64 count = 0;
  const int err = tnw_write(handle_, const_cast<void*>(data), size, static_cast<ox_off>(offset),
                            &count, nullptr);
  if (err != 0 || count != static_cast<ox_s64>(size)) {
    throw Failure(path_, "cannot write", err != 0 ? static_cast<uint32_t>(err) : ERROR_DISK_FULL);
  }
}

/* In halves, as the call takes it. */
void RemoteFile::SetSize(uint64_t size) {
  const int err =
      tnw_setfilesize(handle_, static_cast<ox_u32>(size), static_cast<ox_u32>(size >> 32), nullptr);
  drive_.CheckAnswer(path_, "cannot set the size", err, kWriteAnswers);
}

void RemoteFile::Lock(const FileRange& range, bool exclusive) {
  const int err = tnw_lockfile(handle_, exclusive ? kExclusive : 0, range.offset, 0, range.length,
                               0, ProcessId());
  drive_.CheckAnswer(path_, "cannot be locked", err, kLockAnswers);
}

void RemoteFile::Unlock(const FileRange& range) {
  const int err = tnw_unlockfile(handle_, range.offset, 0, range.length, 0, ProcessId());
  drive_.CheckAnswer(path_, "cannot be unlocked", err, kUnlockAnswers);
}

void RemoteFile::Close() {
  if (const int err = TryClose()) {
    throw Failure(path_, "cannot be brought to the cloud", static_cast<uint32_t>(err));
  }
}

}  // namespace tnwsh
