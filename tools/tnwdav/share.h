/*
 * The drive that is served, by the library's public calls. When its service has ended, the next
 * call starts it anew.
 *
 * Threads: any number; a restart waits for the calls that are under way.
 */
#ifndef TNWDAV_SHARE_H
#define TNWDAV_SHARE_H

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <stdexcept>
#include <string>

#include "tnw.h"
#include "tools/drive/drive_session.h"

namespace tnwdav {

/* A call of the drive failed with this Windows code. */
class DriveError : public std::runtime_error {
 public:
  DriveError(const std::string& path, const char* what, int code);
  int code() const { return code_; }

 private:
  int code_;
};

struct Item {
  std::string name;
  bool folder = false;
  bool read_only = false;
  uint64_t size = 0;
  uint64_t created = 0; /* a Windows file time, like the next one */
  uint64_t modified = 0;
};

enum class OpenMode {
  READ,    /* others may do what they like */
  REPLACE, /* empties the file, or makes it; others may read */
  CREATE,  /* makes the file; fails with ERROR_FILE_EXISTS where something is */
};

class OpenFile;

class Share {
 public:
  /* Starts the service; throws what DriveSession throws. */
  explicit Share(tools::DriveOptions options);
  Share(const Share&) = delete;
  Share& operator=(const Share&) = delete;

  /* All of these throw a DriveError. Nothing: there is nothing at the path. */
  std::optional<Item> find(const std::string& path);
  void list(const std::string& folder, const std::function<void(const Item& item)>& sink);
  void make_folder(const std::string& path);
  /* Replaces nothing: ERROR_FILE_EXISTS. */
  void rename(const std::string& from, const std::string& to);
  /* A file or an empty folder. */
  void remove(const std::string& path);

 private:
  friend class OpenFile;

  /* The library's context of a file, which all its opens share. */
  struct Slot {
    void* context = nullptr;
    int opens = 0;
    bool closing = false; /* the last close runs: no open may use the context */
  };

  /* Keeps the drive from being restarted, and starts it first when it has to be. */
  std::shared_lock<std::shared_mutex> use();
  void restart(uint64_t broken);
  void forget_slots();
  /*
   * Throws for a code. Without one it makes sure that there was an answer at all, since most calls
   * read as success on a broken connection.
   */
  void check(const std::string& path, const char* what, int err);
  [[noreturn]] void fail(const std::string& path, const char* what, int err);

  const tools::DriveOptions options_;
  /* Shared by the calls; a restart, during which no call can run, has it alone. Guards the next
   * two. */
  std::shared_mutex life_;
  std::unique_ptr<tools::DriveSession> session_;
  uint64_t generation_ = 0;           /* of the session */
  std::atomic<uint64_t> broken_{0};   /* the last generation that was seen broken */
  std::mutex slots_lock_;             /* guards the next one; taken after life_ */
  std::map<std::string, Slot> slots_; /* by path_key */
  std::condition_variable slot_closed_;
};

/* An open file. One thread at a time. */
class OpenFile {
 public:
  /* Throws a DriveError, as the other calls do. */
  OpenFile(Share& share, const std::string& path, OpenMode mode);
  ~OpenFile();
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;

  size_t read(uint64_t offset, void* buffer, size_t size); /* 0 at the end of the file */
  void write(uint64_t offset, const void* data, size_t size);
  /* Locks all that the service can lock, the first 4 GiB, until the close. */
  void lock(bool exclusive);
  /* What was written is with the service once this has returned. */
  void close();

 private:
  void take_slot(ox_u32 access, ox_u32 share_mode, ox_u32 disposition);
  /* True when this was the last open of the file, and the context may not be used until `end`. */
  bool begin_close();
  void end_close(bool last, bool closed);
  int try_close();

  Share& share_;
  const std::string path_;
  const std::string key_;
  uint64_t generation_ = 0;
  void* handle_ = nullptr;
};

}  // namespace tnwdav

#endif
