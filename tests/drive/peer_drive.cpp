#include "peer_drive.h"

#include <windows.h>

#include <algorithm>
#include <filesystem>

#include "log_capture.h"

tnv_wopen_resp open_answer() {
  tnv_wopen_resp opened = {};
  opened.wopen_resp_region_shift = 4;
  opened.wopen_resp_fso.fso_handle.id[0] = 1;
  return opened;
}

/* The log goes where LogCapture reads it only if that is opened before the first start. */
PeerDrive::PeerDrive() : record(start_record(folder, beside_test("stand_in_service.exe"))) {
  LogCapture opens_the_log;
}

PeerDrive::~PeerDrive() {
  if (drive != nullptr) {
    tnw_deinit_force(drive);
  }
}

void* PeerDrive::start() {
  const std::string path = socket_path(record);
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  if (!peer) {
    peer = std::make_unique<ScriptedPeer>(ScriptedPeer::answer_success, path);
  }
  std::string event = path;
  std::transform(event.begin(), event.end(), event.begin(), [](char c) {
    return c == '\\' ? '/' : c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  SetEnvironmentVariableA("STAND_IN_READY", event.c_str());
  drive = init_drive(&record, &error);
  return drive;
}

void PeerDrive::answer_opens(const tnv_wopen_resp& opened, const Bytes& maps, ox_u32 err) {
  peer->on_request([=](PeerConnection& conn) {
    if (conn.opcode() != TNV_OP_WIN_OPEN) {
      return conn.answer();
    }
    conn.answer(err, opened);
    conn.send(maps);
  });
}

void* PeerDrive::open(const char* path, ox_u32 accmode, int* err) {
  void* slot = nullptr;
  return tnw_create(drive, &slot, path, accmode, 7, 1, 0, 4711, "writer.exe", err);
}

ox_u64 local_file(const std::string& path, const std::string& content) {
  write_file(path, content);
  HANDLE handle = CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, 7, nullptr, OPEN_EXISTING,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
  return reinterpret_cast<ox_u64>(handle);
}
