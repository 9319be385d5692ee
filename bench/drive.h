/*
 * A drive with the real service on a folder of real files.
 */
#ifndef DRIVE_H
#define DRIVE_H

#include <string>

#include "tnw_fd.h"

constexpr ox_u32 READ_AND_WRITE = TNW_ACC_READ | TNW_ACC_WRITE;

class Drive {
 public:
  /* The service of `user`, whose cloud is folder\cloud; everything else goes below folder\work.
   * Another drive id of the same user joins the service. */
  explicit Drive(const std::string& folder, const std::string& user = "ada", int drive_number = 0);
  /* Gives it back. The drive with the number 0 ends the service, and must be the last one. */
  ~Drive() { end(); }
  Drive(const Drive&) = delete;
  void end();

  void* handle() const { return handle_; }
  /* The path of a file in the cloud, past the drive. */
  std::string in_cloud(const std::string& name) const { return folder_ + "\\cloud\\" + name; }
  /* What the service has logged. */
  std::string service_log() const;

 private:
  std::string folder_;
  bool only_; /* ends all drives of its user with it */
  void* handle_ = nullptr;
};

/* An open file. */
class File {
 public:
  File(const Drive& drive, const std::string& path, ox_u32 disposition = TNW_DISP_OPEN,
       ox_u32 access = READ_AND_WRITE);
  ~File() { close(); }
  File(const File&) = delete;
  File(File&& other) noexcept : handle_(other.handle_) { other.handle_ = nullptr; }
  void close();

  void* handle() const { return handle_; }
  /* The handle of the local cache file. */
  void* local() const { return static_cast<tnvfd*>(handle_)->fdt_ofd; }

 private:
  void* handle_;
};

#endif
