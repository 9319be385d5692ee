#include "raw_client.h"

#include <winsock2.h>
// after winsock2.h
#include <afunix.h>
#include <windows.h>

#include <algorithm>
#include <fstream>

#include "uuid_text.h"

namespace {

std::string FolderOfProgram() {
  char path[MAX_PATH];
  GetModuleFileNameA(nullptr, path, sizeof path);
  const std::string text = path;
  return text.substr(0, text.find_last_of('\\'));
}

// The address of a folder on this machine.
std::string AddressOf(std::string folder) {
  std::replace(folder.begin(), folder.end(), '\\', '/');
  return "file:///" + folder;
}

std::string EventName(std::string path) {
  std::replace(path.begin(), path.end(), '\\', '/');
  std::transform(path.begin(), path.end(), path.begin(),
                 [](char c) { return static_cast<char>(tolower(c)); });
  return path;
}

}  // namespace

bool ServiceProcess::Start(const std::string& more_options,
                           const std::map<std::string, std::string>& variables) {
  std::string line = FolderOfProgram() + "\\tarnd.exe --cfs https://acme.example.com --user me" +
                     " --cache \"" + folder_ + "\\cache\" --addr " +
                     AddressOf(folder_ + "\\cloud") +
                     " --confaddr http://conf --tn-devid t-dev --da-devid d-dev --access-token " +
                     " --logfile \"" + folder_ + "\\tarnd.log\" --vfs --sockdir \"" + folder_ +
                     "\\sock\" " + more_options;
  const HANDLE ready = CreateEventA(nullptr, FALSE, FALSE, EventName(socket_path()).c_str());
  ResetEvent(ready);
  SetEnvironmentVariableA("TARND_COUNTS", (folder_ + "\\counts.txt").c_str());
  for (const auto& [name, value] : variables) {
    SetEnvironmentVariableA(name.c_str(), value.c_str());
  }
  STARTUPINFOA startup = {};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process = {};
  const bool made = CreateProcessA(nullptr, line.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW,
                                   nullptr, nullptr, &startup, &process);
  for (const auto& [name, value] : variables) {
    SetEnvironmentVariableA(name.c_str(), nullptr);
  }
  if (made) {
    CloseHandle(process.hThread);
    process_ = process.hProcess;
    pid_ = process.dwProcessId;
  }
  const HANDLE either[] = {ready, process_};
  const bool started = made && WaitForMultipleObjects(2, either, FALSE, 30000) == WAIT_OBJECT_0;
  CloseHandle(ready);
  return started;
}

void ServiceProcess::Kill() {
  if (process_ != nullptr) {
    TerminateProcess(process_, 99);
    Wait();
  }
}

int ServiceProcess::Wait() {
  DWORD code = 0;
  const bool ended = WaitForSingleObject(process_, 30000) == WAIT_OBJECT_0;
  GetExitCodeProcess(process_, &code);
  CloseHandle(process_);
  process_ = nullptr;
  return ended ? static_cast<int>(code) : -1;
}

std::map<std::string, uint64_t> ServiceProcess::Counts() const {
  std::ifstream file(folder_ + "\\counts.txt");
  std::map<std::string, uint64_t> counts;
  std::string name;
  for (uint64_t value; file >> name >> value;) {
    counts[name] = value;
  }
  return counts;
}

RawRequest::RawRequest(uint32_t opcode) : bytes(TNV_MSG_FIXED) {
  (*this)->hdr.hdr_opcode = opcode;
  (*this)->hdr.hdr_id = tarnd::NewId();
}

RawRequest& RawRequest::Text(const std::string& text) {
  bytes.insert(bytes.end(), text.begin(), text.end());
  bytes.push_back(0);
  return *this;
}

RawConnection::RawConnection(const ServiceProcess& service) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  service.socket_path().copy(address.sun_path, sizeof address.sun_path - 1);
  socket_ = socket(AF_UNIX, SOCK_STREAM, 0);
  if (connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    Close();
  }
  const DWORD patience_ms = 20000;
  setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&patience_ms),
             sizeof patience_ms);
}

void RawConnection::Close() {
  if (socket_ != INVALID_SOCKET) {
    closesocket(socket_);
  }
  socket_ = INVALID_SOCKET;
}

bool RawConnection::Send(const std::vector<uint8_t>& bytes) {
  const int size = static_cast<int>(bytes.size());
  return send(socket_, reinterpret_cast<const char*>(bytes.data()), size, 0) == size;
}

bool RawConnection::Read(void* data, size_t size) {
  for (size_t done = 0; done < size;) {
    const int got =
        recv(socket_, static_cast<char*>(data) + done, static_cast<int>(size - done), 0);
    if (got <= 0) {
      return false;
    }
    done += static_cast<size_t>(got);
  }
  return true;
}

RawAnswer RawConnection::Receive() {
  RawAnswer answer;
  tnv_resp& resp = answer.resp;
  if (!Read(&resp.rhdr, sizeof resp.rhdr) || resp.rhdr.rhdr_len > sizeof resp.u ||
      !Read(&resp.u, resp.rhdr.rhdr_len)) {
    return {};
  }
  const uint32_t error = resp.rhdr.rhdr_errno;
  if (resp.rhdr.rhdr_opcode == TNV_OP_WIN_OPEN && (error == 0 || error == TNV_OPEN_EXISTED)) {
    answer.bulk.resize(2 * resp.u.wopen.wopen_resp_rmap_size);
  } else if (resp.rhdr.rhdr_opcode == TNV_OP_WIN_DENUM && error == 0) {
    answer.bulk.resize(resp.u.wdenum.wde_fi_len * sizeof(tnw_fileinfo));
  }
  answer.came = Read(answer.bulk.data(), answer.bulk.size());
  return answer;
}

RawAnswer RawConnection::Ask(RawRequest request) {
  request->hdr.hdr_len = static_cast<ox_u32>(request.bytes.size());
  return Send(request.bytes) ? Receive() : RawAnswer{};
}

RawAnswer RawConnection::Connect(const std::string& share) {
  RawRequest request(TNV_OP_WIN_CONNECT);
  request.Text(share);
  request->u.wconn.wconmsg_share_path_len = static_cast<ox_s32>(share.size() + 1);
  request->u.wconn.wconmsg_pid = GetCurrentThreadId();
  return Ask(request);
}

RawFile RawConnection::Open(const std::string& path, const RawOpen& how) {
  RawRequest request(TNV_OP_WIN_OPEN);
  request.Text(path);
  tnv_wopen_msg& open = request->u.wopen;
  open.wopen_newfd = next_fd_++;
  open.wopen_pathlen = static_cast<ox_s32>(path.size() + 1);
  open.wopen_accmode = how.access;
  open.wopen_shmode = how.share;
  open.wopen_cdisp = how.disposition;
  open.wopen_flags = how.flags;
  open.wopen_clientid = GetCurrentProcessId();
  const RawAnswer answer = Ask(request);
  return {answer.error(), answer.resp.u.wopen, request->hdr.hdr_id, open.wopen_newfd, answer.bulk};
}

int RawConnection::Close(const RawFile& file, uint32_t tnflags) {
  RawRequest request(TNV_OP_WIN_CLOSE);
  request->u.wclose.wclose_omsgid = file.id;
  request->u.wclose.wclose_tnflags = tnflags;
  return Ask(request).error();
}

int RawConnection::Cleanup(const RawFile& file) {
  RawRequest request(TNV_OP_WIN_CLEANUP);
  request->u.wcleanup.wcl_omsgid = file.id;
  return Ask(request).error();
}

RawAnswer RawConnection::CacheRegion(const RawFile& file, uint64_t offset, uint64_t length) {
  RawRequest request(TNV_OP_CACHE_REGION);
  request->u.cache_region.cache_read_off = offset;
  request->u.cache_region.cache_read_len = length;
  request->u.cache_region.cache_read_omsgid = file.id;
  return Ask(request);
}

RawAnswer RawConnection::DirtyRegion(const RawFile& file, uint64_t offset, uint64_t length) {
  RawRequest request(TNV_OP_DIRTY_REGION);
  request->u.dirty_region.cache_write_off = offset;
  request->u.dirty_region.cache_write_len = length;
  request->u.dirty_region.cache_write_omsgid = file.id;
  return Ask(request);
}

int RawConnection::Lock(const RawFile& file, int type, uint64_t offset, uint64_t length, int pid) {
  RawRequest request(TNV_OP_WIN_BRL);
  tnv_wbrl_msg& lock = request->u.wbrl;
  lock.wbrl_type = type;
  lock.wbrl_pid = pid;
  lock.wbrl_fd = file.fd;
  lock.wbrl_off = offset;
  lock.wbrl_len = length;
  lock.wbrl_gid = file.answer.wopen_resp_fso.fso_handle;
  return Ask(request).error();
}

int RawConnection::PathRequest(uint32_t opcode, const std::string& path) {
  RawRequest request(opcode);
  request.Text(path);
  request->u.wdelete.wdelete_msg_plen = static_cast<ox_s32>(path.size());
  const RawAnswer answer = Ask(request);
  const bool refused = opcode == TNV_OP_WIN_CANDELETE && answer.error() == 0 &&
                       answer.resp.u.wcandel.wcandel_check == 0;
  return refused ? -2 : answer.error();
}

int RawConnection::Rename(const std::string& from, const std::string& to) {
  RawRequest request(TNV_OP_WIN_RENAME);
  request.Text(from).Text(to);
  request->u.wrename.wrename_msg_slen = static_cast<ox_s32>(from.size());
  request->u.wrename.wrename_msg_dlen = static_cast<ox_s32>(to.size());
  return Ask(request).error();
}

int RawConnection::UpdateToken(const std::string& token) {
  RawRequest request(TNV_OP_UPDATETOKEN);
  request.Text(token);
  request->u.updatetoken.ut_len = static_cast<ox_s32>(token.size());
  return Ask(request).error();
}

std::vector<tnw_fileinfo> RawConnection::List(const std::string& path) {
  RawRequest request(TNV_OP_WIN_DENUM);
  request.Text(path);
  request->u.wdenum.wde_pathlen = static_cast<ox_s32>(path.size() + 1);
  const RawAnswer answer = Ask(request);
  std::vector<tnw_fileinfo> infos(answer.bulk.size() / sizeof(tnw_fileinfo));
  if (!infos.empty()) {
    std::memcpy(infos.data(), answer.bulk.data(), answer.bulk.size());
  }
  RawFile listing;
  listing.id = request->hdr.hdr_id;
  return answer.error() == 0 && Close(listing) == 0 ? infos : std::vector<tnw_fileinfo>{};
}

RawAnswer RawConnection::Stat(const std::string& path) {
  RawRequest request(TNV_OP_WIN_STAT);
  request.Text(path);
  request->u.wstat.wstat_path_len = static_cast<ox_s32>(path.size() + 1);
  return Ask(request);
}
