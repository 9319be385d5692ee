/*
 * A drive with the real service on a folder of real files, and files opened on it as a drive
 * application does.
 */
#ifndef REAL_DRIVE_H
#define REAL_DRIVE_H

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "drive_files.h"

constexpr ox_u32 ACC_BOTH = TNW_ACC_READ | TNW_ACC_WRITE;
constexpr ox_u32 SHARE_ALL = 7; /* FILE_SHARE_READ, FILE_SHARE_WRITE and FILE_SHARE_DELETE */

/* Regions are small, so that small files have many. */
constexpr ox_u64 REGION = 4096;

/* Not thread-safe but for what DriveFile does with it. */
class RealDrive {
 public:
  /*
   * An empty cloud; nothing runs yet. It is a folder of this server of web_servers ("RCLONE"); an
   * empty text means the one that TNW_CLOUD names, or a plain folder.
   */
  explicit RealDrive(const std::string& server = "");
  /* Stops the service. */
  ~RealDrive();

  /* Starts the service and connects; false when that fails. */
  bool start();
  /* Gives the drive back, at once or as a drive application does; waits until the service's process
   * has ended. Returns what the library did, or -2 when the service goes on. */
  int stop();
  int stop_gently();
  /* The service's process; null before the first start. */
  void* service() const { return service_; }
  /* Ends the service's process as the task manager would. */
  void kill_service();
  /* What the last service that was stopped has counted: requests of an operation and the like. */
  ox_u64 count(const std::string& name) const;

  /* A file in the cloud, past the drive. Names are UTF-8 with any slashes. */
  std::filesystem::path in_cloud(const std::string& name) const;
  void put(const std::string& name, const std::string& content) const;
  std::string get(const std::string& name) const;
  /* The names of a file's conflict copies in the cloud. */
  std::vector<std::string> beside(const std::string& name) const;

  /* A listing: the names with their entries; the code that ended it (18 at the end). */
  std::map<std::string, tnw_fileinfo> list(const std::string& path, int* code = nullptr);

  TestFolder folder;

 private:
  const std::string server_; /* empty: a plain folder */

 public:
  std::filesystem::path cloud; /* the cloud's folder */
  tnw_tninit record;
  void* drive = nullptr;
  int error = -1; /* what tnw_init gave */

 private:
  int wait_for_service(int result);

  void* service_ = nullptr; /* the service's process */
};

/* How a file is opened. */
struct OpenHow {
  ox_u32 disposition = TNW_DISP_OPEN;
  ox_u32 access = ACC_BOTH;
  ox_u32 share = SHARE_ALL;
  ox_u32 flags = 0;
};

/* An open file. One thread at a time may close it. */
class DriveFile {
 public:
  DriveFile(RealDrive& drive, const std::string& path, OpenHow how = {});
  /* One more open of the same file, by `path` where it was renamed. */
  DriveFile(const DriveFile& other, OpenHow how, const std::string& path = "");
  ~DriveFile() { close(); }
  DriveFile& operator=(const DriveFile&) = delete;

  int error() const { return error_; }              /* what the open gave */
  ox_u32 last_error() const { return last_error_; } /* and the thread's last error after it */
  void* handle() const { return handle_; }

  /* What a read gave, empty when it failed; `code` (may be null) its result. */
  std::string read(ox_u64 off, ox_u64 len, int* code = nullptr) const;
  /* 0 when all of it was written. */
  int write(ox_u64 off, const std::string& data) const;
  /* The whole content, read in pieces up to the end. */
  std::string read_all() const;
  /* 0 when it is not open. */
  int close();

 private:
  /* The file as the drive application knows it: the context's slot, emptied after the last close.
     Opens and closes of one file are kept apart, so that none meets a context that goes. */
  struct Slot {
    std::mutex lock;
    void* context = nullptr;
    int opens = 0;
  };

  void open(OpenHow how);

  RealDrive& drive_;
  std::string path_;
  std::shared_ptr<Slot> slot_;
  void* handle_ = nullptr;
  int error_ = -1;
  ox_u32 last_error_ = 0;
};

/* Bytes that look random, the same for the same seed. */
std::string noise(size_t size, unsigned seed);

#endif
