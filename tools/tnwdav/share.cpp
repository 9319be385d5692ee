#include "share.h"

#include <windows.h>

#include <utility>

#include "tools/common/failure.h"
#include "tools/common/text.h"
#include "tools/drive/drive_file.h"
#include "tools/drive/drive_path.h"

namespace tnwdav {
namespace {

/* The name under which the service knows this program. */
constexpr char PROCESS_NAME[] = "tnwdav";

constexpr ox_u32 SHARE_ALL = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

struct NativeMode {
  ox_u32 access;
  ox_u32 share;
  ox_u32 disposition;
};

/* Indexed by OpenMode. */
constexpr NativeMode MODES[] = {{TNW_ACC_READ, SHARE_ALL, TNW_DISP_OPEN},
                                {TNW_ACC_WRITE, FILE_SHARE_READ, TNW_DISP_OVERWRITE_IF},
                                {TNW_ACC_WRITE, FILE_SHARE_READ, TNW_DISP_CREATE}};

int process_id() { return static_cast<int>(GetCurrentProcessId()); }

Item item_of(const tnw_fileinfo& info) {
  return {.name = tools::field_text(info.fi_name),
          .folder = (info.fi_attr & FILE_ATTRIBUTE_DIRECTORY) != 0,
          .read_only = (info.fi_attr & FILE_ATTRIBUTE_READONLY) != 0,
          .size = info.fi_size,
          .created = info.fi_ctime,
          .modified = info.fi_mtime};
}

/* When the answer never came, the call reports success and leaves the record empty. */
int look_up(void* drive, const std::string& path, tnw_fileinfo* info) {
  *info = {};
  const int err = tnw_getfileinfo(drive, path.c_str(), info, PROCESS_NAME);
  return err == 0 && info->fi_id[0] == '\0' ? TNW_ERROR_NO_SERVICE : err;
}

}  // namespace

DriveError::DriveError(const std::string& path, const char* what, int code)
    : std::runtime_error(tools::Failure(path, what, static_cast<uint32_t>(code)).what()),
      code_(code) {}

Share::Share(tools::DriveOptions options)
    : options_(std::move(options)),
      session_(std::make_unique<tools::DriveSession>(options_)),
      generation_(1) {}

std::shared_lock<std::shared_mutex> Share::use() {
  while (true) {
    std::shared_lock lock(life_);
    if (session_ != nullptr && generation_ != broken_) {
      return lock;
    }
    const uint64_t broken = generation_;
    lock.unlock();
    restart(broken);
  }
}

/* The handles of the old session answer 1467 from now on, and its contexts are freed. */
void Share::restart(uint64_t broken) {
  const std::unique_lock lock(life_);
  if (generation_ != broken) {
    return; /* another call was first */
  }
  session_.reset();
  generation_++;
  forget_slots();
  try {
    session_ = std::make_unique<tools::DriveSession>(options_);
  } catch (const tools::Failure& failure) {
    throw DriveError("/", "the cache service has ended and did not start again",
                     static_cast<int>(failure.code()));
  }
}

void Share::forget_slots() {
  const std::lock_guard lock(slots_lock_);
  slots_.clear();
  slot_closed_.notify_all();
}

void Share::fail(const std::string& path, const char* what, int err) {
  if (err == TNW_ERROR_NO_SERVICE) {
    broken_ = generation_;
  }
  throw DriveError(path, what, err);
}

void Share::check(const std::string& path, const char* what, int err) {
  tnw_fileinfo top;
  if (err == 0 && look_up(session_->handle(), "/", &top) == TNW_ERROR_NO_SERVICE) {
    err = TNW_ERROR_NO_SERVICE;
  }
  if (err != 0) {
    fail(path, what, err);
  }
}

std::optional<Item> Share::find(const std::string& path) {
  const auto used = use();
  tnw_fileinfo info;
  const int err = look_up(session_->handle(), path, &info);
  if (err == ERROR_FILE_NOT_FOUND || err == ERROR_PATH_NOT_FOUND || err == ERROR_DIRECTORY) {
    return std::nullopt;
  }
  if (err != 0) {
    fail(path, "cannot look it up", err);
  }
  return item_of(info);
}

void Share::list(const std::string& folder, const std::function<void(const Item& item)>& sink) {
  const auto used = use();
  tnw_fileinfo info;
  int err = 0;
  void* listing = tnw_findfirst(session_->handle(), folder.c_str(), &info, PROCESS_NAME, &err);
  if (listing == nullptr) {
    fail(folder, "cannot list", err);
  }
  const std::unique_ptr<void, int (*)(void*)> closer(listing, tnw_findclose);
  for (; err == 0; err = tnw_findnext(listing, &info)) {
    sink(item_of(info));
  }
  if (err != ERROR_NO_MORE_FILES) {
    fail(folder, "cannot list", err);
  }
}

void Share::make_folder(const std::string& path) {
  const auto used = use();
  int err = 0;
  void* folder = tnw_create(session_->handle(), nullptr, path.c_str(), TNW_ACC_ATTRIBUTES, 0,
                            TNW_DISP_CREATE, TNW_OPT_FOLDER, process_id(), PROCESS_NAME, &err);
  if (folder != nullptr) {
    tnw_cleanup_file(folder);
    err = tnw_close(folder, nullptr);
  }
  check(path, "cannot make the folder", err);
}

void Share::rename(const std::string& from, const std::string& to) {
  const auto used = use();
  check(from, "cannot be renamed",
        tnw_rename(session_->handle(), from.c_str(), to.c_str(), PROCESS_NAME));
}

void Share::remove(const std::string& path) {
  const auto used = use();
  check(path, "cannot be deleted", tnw_delete(session_->handle(), path.c_str(), PROCESS_NAME));
}

OpenFile::OpenFile(Share& share, const std::string& path, OpenMode mode)
    : share_(share), path_(path), key_(tools::path_key(path)) {
  const auto used = share_.use();
  const NativeMode& native = MODES[static_cast<size_t>(mode)];
  generation_ = share_.generation_;
  take_slot(native.access, native.share, native.disposition);
}

OpenFile::~OpenFile() {
  if (handle_ != nullptr) {
    const std::shared_lock used(share_.life_);
    try_close();
  }
}

/* The context's address stays the same while the file is open: a map does not move its nodes. */
void OpenFile::take_slot(ox_u32 access, ox_u32 share_mode, ox_u32 disposition) {
  std::unique_lock lock(share_.slots_lock_);
  share_.slot_closed_.wait(lock, [this] {
    const auto found = share_.slots_.find(key_);
    return found == share_.slots_.end() || !found->second.closing;
  });
  Share::Slot& slot = share_.slots_[key_];
  slot.opens++;
  lock.unlock();
  int err = 0;
  handle_ = tnw_create(share_.session_->handle(), &slot.context, path_.c_str(), access, share_mode,
                       disposition, TNW_OPT_FILE, process_id(), PROCESS_NAME, &err);
  if (handle_ == nullptr) {
    lock.lock();
    if (--slot.opens == 0) {
      share_.slots_.erase(key_);
    }
    lock.unlock();
    share_.fail(path_, "cannot open", err);
  }
}

bool OpenFile::begin_close() {
  const std::lock_guard lock(share_.slots_lock_);
  Share::Slot& slot = share_.slots_[key_];
  slot.closing = slot.opens == 1;
  return slot.closing;
}

void OpenFile::end_close(bool last, bool closed) {
  const std::lock_guard lock(share_.slots_lock_);
  Share::Slot& slot = share_.slots_[key_];
  slot.closing = false;
  slot.opens -= closed ? 1 : 0;
  if (last && closed) {
    share_.slots_.erase(key_);
  }
  share_.slot_closed_.notify_all();
}

/* A file of an earlier session went with it. */
int OpenFile::try_close() {
  void* handle = std::exchange(handle_, nullptr);
  if (generation_ != share_.generation_) {
    return TNW_ERROR_NO_SERVICE;
  }
  const int cleaned = tnw_cleanup_file(handle);
  const bool last = begin_close();
  const int err = tnw_close(handle, nullptr);
  end_close(last, err == 0);
  return err != 0 ? err : cleaned;
}

size_t OpenFile::read(uint64_t offset, void* buffer, size_t size) {
  const std::shared_lock used(share_.life_);
  size_t count = 0;
  if (const int err = tools::read_at(handle_, offset, buffer, size, &count)) {
    share_.fail(path_, "cannot read", err);
  }
  return count;
}

void OpenFile::write(uint64_t offset, const void* data, size_t size) {
  const std::shared_lock used(share_.life_);
  if (const int err = tools::write_at(handle_, offset, data, size)) {
    share_.fail(path_, "cannot write", err);
  }
}

void OpenFile::lock(bool exclusive) {
  const std::shared_lock used(share_.life_);
  share_.check(
      path_, "cannot be locked",
      tnw_lockfile(handle_, exclusive ? TNW_LOCK_EXCLUSIVE : 0, 0, 0, MAXDWORD, 0, process_id()));
}

void OpenFile::close() {
  const std::shared_lock used(share_.life_);
  share_.check(path_, "cannot be brought to the cloud", try_close());
}

}  // namespace tnwdav
