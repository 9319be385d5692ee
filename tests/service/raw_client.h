// tarnd.exe as a process, and its protocol spoken by hand.
#ifndef RAW_CLIENT_H
#define RAW_CLIENT_H

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "tnv_proto.h"

// A running service. Its folders lie in `folder`: cloud, cache, sock; its counts in counts.txt. The
// destructor ends it.
class ServiceProcess {
 public:
  explicit ServiceProcess(std::string folder) : folder_(std::move(folder)) {}
  ~ServiceProcess() { Kill(); }
  ServiceProcess(const ServiceProcess&) = delete;
  ServiceProcess& operator=(const ServiceProcess&) = delete;

  // Starts tarnd.exe, which stands beside the test program, and waits for its ready event. False
  // when it ended before.
  bool Start(const std::string& more_options = "",
             const std::map<std::string, std::string>& variables = {});
  std::string socket_path() const { return folder_ + "\\sock\\tnvfs.sock"; }
  uint32_t pid() const { return pid_; }
  // As if it crashed.
  void Kill();
  // Waits for its end: the exit code.
  int Wait();
  // "name value" lines of the counts file.
  std::map<std::string, uint64_t> Counts() const;

 private:
  std::string folder_;
  void* process_ = nullptr;
  uint32_t pid_ = 0;
};

// One request being made.
struct RawRequest {
  explicit RawRequest(uint32_t opcode);
  // Appends a trailing text and its NUL.
  RawRequest& Text(const std::string& text);

  tnv_msg* operator->() { return reinterpret_cast<tnv_msg*>(bytes.data()); }

  std::vector<uint8_t> bytes;
};

struct RawAnswer {
  bool came = false;  // else the connection was closed
  tnv_resp resp = {};
  std::vector<uint8_t> bulk;

  int error() const { return came ? static_cast<int>(resp.rhdr.rhdr_errno) : -1; }
};

// How a file is opened.
struct RawOpen {
  uint32_t access = 7;
  uint32_t share = 7;
  uint32_t disposition = 3;
  uint32_t flags = 0;
};

// What an open gave.
struct RawFile {
  int error = -1;
  tnv_wopen_resp answer = {};
  cfs_id_t id = {};  // of the open
  int32_t fd = 0;
  std::vector<uint8_t> maps;

  void* handle() const { return reinterpret_cast<void*>(answer.wopen_resp_handle); }
};

class RawConnection {
 public:
  // Connects the socket only.
  explicit RawConnection(const ServiceProcess& service);
  ~RawConnection() { Close(); }
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;

  void Close();
  bool Send(const std::vector<uint8_t>& bytes);
  // Reads an answer with all that follows it.
  RawAnswer Receive();
  // Fills in hdr_len and an id.
  RawAnswer Ask(RawRequest request);

  RawAnswer Connect(const std::string& share = "/");
  RawFile Open(const std::string& path, const RawOpen& how = {});
  int Close(const RawFile& file, uint32_t tnflags = 0);
  int Cleanup(const RawFile& file);
  RawAnswer CacheRegion(const RawFile& file, uint64_t offset, uint64_t length);
  RawAnswer DirtyRegion(const RawFile& file, uint64_t offset, uint64_t length);
  int Lock(const RawFile& file, int type, uint64_t offset, uint64_t length, int pid = 1);
  int PathRequest(uint32_t opcode, const std::string& path);
  int Rename(const std::string& from, const std::string& to);
  int UpdateToken(const std::string& token);
  std::vector<tnw_fileinfo> List(const std::string& path);
  RawAnswer Stat(const std::string& path);

 private:
  bool Read(void* data, size_t size);

  uint64_t socket_;
  int32_t next_fd_ = 1;
};

#endif
