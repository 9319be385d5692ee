/* tarnd.exe as a process, and its protocol spoken by hand. */
#ifndef RAW_CLIENT_H
#define RAW_CLIENT_H

#include <winsock2.h>
/* after winsock2.h */
#include <afunix.h>
#include <windows.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "ox_errno.h"
#include "tnv_proto.h"
#include "uuid_text.h"

using Variables = std::map<std::string, std::string>;

/*
 * A running service. Its folders lie in `folder`: cloud, cache, sock; its counts in counts.txt. The
 * destructor ends it.
 */
class ServiceProcess {
 public:
  explicit ServiceProcess(std::string folder) : folder_(std::move(folder)) {}
  ~ServiceProcess() {
    if (process_ != nullptr) {
      TerminateProcess(process_, 99);
      wait();
    }
  }
  ServiceProcess(const ServiceProcess&) = delete;
  ServiceProcess& operator=(const ServiceProcess&) = delete;

  /*
   * Starts tarnd.exe, which stands beside the test program, and waits for its ready event. False
   * when it ended before.
   */
  bool start(Variables variables = {}) {
    const HANDLE ready = CreateEventA(nullptr, FALSE, FALSE, event_name().c_str());
    ResetEvent(ready);
    variables["TARND_COUNTS"] = folder_ + "\\counts.txt";
    for (const auto& [name, value] : variables) {
      SetEnvironmentVariableA(name.c_str(), value.c_str());
    }
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process = {};
    const bool made = CreateProcessA(nullptr, line().data(), nullptr, nullptr, FALSE,
                                     CREATE_NO_WINDOW, nullptr, nullptr, &startup, &process) != 0;
    for (const auto& [name, value] : variables) {
      SetEnvironmentVariableA(name.c_str(), nullptr);
    }
    CloseHandle(process.hThread);
    process_ = process.hProcess;
    pid_ = process.dwProcessId;
    const HANDLE either[] = {ready, process_};
    const bool started = made && WaitForMultipleObjects(2, either, FALSE, 30000) == WAIT_OBJECT_0;
    CloseHandle(ready);
    return started;
  }
  std::string socket_path() const { return folder_ + "\\sock\\tnvfs.sock"; }
  uint32_t pid() const { return pid_; }
  HANDLE handle() const { return process_; }
  std::string more_options; /* on the command line of the next start */
  /* Waits for its end: the exit code. */
  int wait() {
    DWORD code = 0;
    const bool ended = WaitForSingleObject(process_, 30000) == WAIT_OBJECT_0;
    GetExitCodeProcess(process_, &code);
    CloseHandle(process_);
    process_ = nullptr;
    return ended ? static_cast<int>(code) : -1;
  }
  /* "name value" lines of the counts file. */
  std::map<std::string, uint64_t> counts() const {
    std::ifstream file(folder_ + "\\counts.txt");
    std::map<std::string, uint64_t> counts;
    std::string name;
    for (uint64_t value; file >> name >> value;) {
      counts[name] = value;
    }
    return counts;
  }

 private:
  static std::string slashes(std::string path) {
    std::replace(path.begin(), path.end(), '\\', '/');
    return path;
  }
  std::string event_name() const {
    std::string name = slashes(socket_path());
    CharLowerA(name.data());
    return name;
  }
  std::string line() const {
    char program[MAX_PATH];
    GetModuleFileNameA(nullptr, program, sizeof program);
    return std::filesystem::path(program).parent_path().string() +
           "\\tarnd.exe --cfs https://acme.example.com --user me --cache \"" + folder_ +
           "\\cache\" --addr file:///" + slashes(folder_) +
           "/cloud --tn-devid t-dev --da-devid d-dev --logfile \"" + folder_ +
           "\\tarnd.log\" --vfs --sockdir \"" + folder_ + "\\sock\" " + more_options;
  }

  std::string folder_;
  HANDLE process_ = nullptr;
  uint32_t pid_ = 0;
};

struct RawAnswer {
  bool came = false; /* else the connection was closed */
  tnv_resp resp = {};
  cfs_id_t id = {}; /* of the request */
  std::vector<uint8_t> bulk;

  int error() const { return came ? static_cast<int>(resp.rhdr.rhdr_errno) : -1; }
};

/* How a file is opened. */
struct RawOpen {
  uint32_t share = 7;
  uint32_t client = 0; /* 0: this process */
};

/* What an open gave. */
struct RawFile {
  int error = -1;
  tnv_wopen_resp answer = {};
  cfs_id_t id = {}; /* of the open */
  int32_t fd = 0;
  std::vector<uint8_t> maps;

  HANDLE handle() const { return reinterpret_cast<HANDLE>(answer.wopen_resp_handle); }
};

class RawConnection {
 public:
  using Payload = decltype(tnv_msg::u);
  using Fill = std::function<void(Payload&)>;

  /* Connects the socket only. */
  explicit RawConnection(const ServiceProcess& service) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    service.socket_path().copy(address.sun_path, sizeof address.sun_path - 1);
    ::connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address);
    const DWORD patience_ms = 20000;
    setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&patience_ms),
               sizeof patience_ms);
  }
  ~RawConnection() { closesocket(socket_); }
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;

  bool send(const void* data, size_t size) {
    return ::send(socket_, static_cast<const char*>(data), static_cast<int>(size), 0) ==
           static_cast<int>(size);
  }
  /* Reads an answer with all that follows it. */
  RawAnswer receive() {
    RawAnswer answer;
    tnv_resp& resp = answer.resp;
    if (!read(&resp.rhdr, sizeof resp.rhdr) || resp.rhdr.rhdr_len > sizeof resp.u ||
        !read(&resp.u, resp.rhdr.rhdr_len)) {
      return {};
    }
    const uint32_t error = resp.rhdr.rhdr_errno;
    if (resp.rhdr.rhdr_opcode == TNV_OP_WIN_OPEN && (error == 0 || error == TNV_OPEN_EXISTED)) {
      answer.bulk.resize(2 * resp.u.wopen.wopen_resp_rmap_size);
    } else if (resp.rhdr.rhdr_opcode == TNV_OP_WIN_DENUM && error == 0) {
      answer.bulk.resize(resp.u.wdenum.wde_fi_len * sizeof(tnw_fileinfo));
    }
    answer.came = read(answer.bulk.data(), answer.bulk.size());
    return answer;
  }
  /* One request with what follows its fixed part. */
  RawAnswer ask(uint32_t opcode, const Fill& fill = {}, const std::string& trailing = {}) {
    tnv_msg message = {};
    message.hdr.hdr_opcode = opcode;
    message.hdr.hdr_id = tarnd::new_id();
    message.hdr.hdr_len = static_cast<ox_u32>(sizeof message + trailing.size());
    if (fill) {
      fill(message.u);
    }
    const bool sent = send(&message, sizeof message) &&
                      (trailing.empty() || send(trailing.data(), trailing.size()));
    RawAnswer answer = sent ? receive() : RawAnswer{};
    answer.id = message.hdr.hdr_id;
    return answer;
  }

  /* A request with texts behind it; its payload begins with their lengths. */
  RawAnswer texts(uint32_t opcode, const std::vector<std::string>& texts, uint32_t thread = 0) {
    const size_t nul = opcode <= TNV_OP_WIN_STAT ? 1 : 0; /* the others count no NULs */
    std::string trailing;
    const auto fill = [&](Payload& u) {
      u.wconn.wconmsg_pid = thread;
      auto* length = reinterpret_cast<ox_s32*>(u.bytes);
      for (const std::string& text : texts) {
        *length++ = static_cast<ox_s32>(text.size() + nul);
      }
    };
    for (const std::string& text : texts) {
      trailing += text + '\0';
    }
    return ask(opcode, fill, trailing);
  }
  RawAnswer connect(const std::string& share = "/") {
    return texts(TNV_OP_WIN_CONNECT, {share}, GetCurrentThreadId());
  }
  RawFile open(const std::string& path, const RawOpen& how = {}) {
    const int32_t fd = next_fd_++;
    const auto fill = [&](Payload& u) {
      u.wopen = {.wopen_newfd = fd,
                 .wopen_pathlen = static_cast<ox_s32>(path.size() + 1),
                 .wopen_origpid = 0,
                 .wopen_shmode = how.share,
                 .wopen_accmode = 7,
                 .wopen_cdisp = 3,
                 .wopen_flags = 0,
                 .wopen_clientid = how.client != 0 ? how.client : GetCurrentProcessId()};
    };
    const RawAnswer answer = ask(TNV_OP_WIN_OPEN, fill, path + '\0');
    return {answer.error(), answer.resp.u.wopen, answer.id, fd, answer.bulk};
  }

  /* CLOSE or CLEANUP. */
  int end(uint32_t opcode, const cfs_id_t& open, uint32_t tnflags = 0) {
    const auto fill = [&](Payload& u) {
      u.wclose.wclose_omsgid = open;
      u.wclose.wclose_tnflags = tnflags;
    };
    return ask(opcode, fill).error();
  }
  int close(const cfs_id_t& open, uint32_t tnflags = 0) {
    return end(TNV_OP_WIN_CLOSE, open, tnflags);
  }
  /* CACHE_REGION or DIRTY_REGION. */
  RawAnswer region(uint32_t opcode, const RawFile& file, uint64_t offset, uint64_t length) {
    const auto fill = [&](Payload& u) {
      if (opcode == TNV_OP_CACHE_REGION) {
        u.cache_region = {0, {}, offset, length, file.id, {}};
      } else {
        u.dirty_region = {offset, length, file.id, {}};
      }
    };
    return ask(opcode, fill);
  }
  int lock(const RawFile& file, int type, uint64_t offset, uint64_t length) {
    const auto fill = [&](Payload& u) {
      u.wbrl = {type, 1, file.fd, 0, offset, length, {}, file.answer.wopen_resp_fso.fso_handle};
    };
    return ask(TNV_OP_WIN_BRL, fill).error();
  }
  /* As the client changes a file: cached, reported, written. Without maps it only writes. */
  int change(const RawFile& file, uint32_t offset, const std::string& data) {
    const auto ask = [&](uint32_t operation) {
      return file.maps.empty() ? 0 : region(operation, file, offset, data.size()).error();
    };
    const int cached = ask(TNV_OP_CACHE_REGION);
    const int told = ask(TNV_OP_DIRTY_REGION);
    OVERLAPPED place = {};
    place.Offset = offset;
    const auto size = static_cast<DWORD>(data.size());
    const bool written = WriteFile(file.handle(), data.data(), size, nullptr, &place) != 0;
    return cached != 0 ? cached : told != 0 || written ? told : OX_EIO;
  }

 private:
  bool read(void* data, size_t size) {
    return size == 0 || recv(socket_, static_cast<char*>(data), static_cast<int>(size),
                             MSG_WAITALL) == static_cast<int>(size);
  }

  int32_t next_fd_ = 1;
  SOCKET socket_ = socket(AF_UNIX, SOCK_STREAM, 0);
};

#endif
