/*
 * A drive with the real service on a folder of real files.
 */
#ifndef DRIVE_H
#define DRIVE_H

#include <deque>
#include <string>
#include <utility>

#include "bench.h"
#include "tnw_fd.h"

constexpr ox_u32 READ_AND_WRITE = TNW_ACC_READ | TNW_ACC_WRITE;

class Drive {
 public:
  /* The service of `user`, whose cloud is folder\cloud; everything else goes below folder\work.
   * Another drive id of the same user joins the service. */
  explicit Drive(const std::string& folder, const std::string& user = "ada", int drive_number = 0);
  /* The drive with the number 0 ends the service, and must be the last one. */
  ~Drive();
  Drive(const Drive&) = delete;

  void* handle() const { return handle_; }
  /* The path of a file in the cloud, past the drive. */
  std::string in_cloud(const std::string& name) const { return folder_ + "\\cloud\\" + name; }
  /* Whatever they do must succeed. */
  void look_up(const std::string& path) const;
  void remove(const std::string& path) const;
  /* Lists a folder with so many entries: the seconds of tnw_findfirst, which fetches the whole
   * listing, and of the walk after it. */
  std::pair<double, double> list(const std::string& path, size_t entries) const;

 private:
  std::string folder_;
  bool only_; /* ends all drives of its user with it */
  void* handle_;
};

/* An open file. Whatever is done with it must succeed. */
class File {
 public:
  File(const Drive& drive, const std::string& path, ox_u32 disposition = TNW_DISP_OPEN,
       ox_u32 access = READ_AND_WRITE);
  ~File();
  File(const File&) = delete;

  void read(void* buffer, size_t size, ox_u64 off = 0) const {
    ox_s64 count = 0;
    must(tnw_read(handle_, buffer, size, static_cast<ox_off>(off), &count, nullptr) == 0,
         "tnw_read");
  }
  void write(const void* buffer, size_t size, ox_u64 off = 0) const {
    ox_s64 count = 0;
    void* bytes = const_cast<void*>(buffer);
    must(tnw_write(handle_, bytes, size, static_cast<ox_off>(off), &count, nullptr) == 0,
         "tnw_write");
  }
  /* The bare call on the local cache file. */
  void transfer_bare(bool writes, void* buffer, size_t size, ox_u64 off) const;
  void* handle() const { return handle_; }

 private:
  void* handle_;
};

/* So many opens of one file or folder, to read. */
std::deque<File> open_often(const Drive& drive, const std::string& path, int count);
/* The same of the system. */
void list_system(const std::string& folder, size_t entries);

#endif
