#include "peer_drive.h"

#include <windows.h>

#include <filesystem>

#include "line_mask.h"

/* The log goes where LogCapture reads it only if that is opened before the first start. */
PeerDrive::PeerDrive() : record(start_record(folder, beside_test("stand_in_service.exe"))) {
  LogCapture opens_the_log;
  record.tnw_max_threads = 1;
}

PeerDrive::~PeerDrive() {
  if (drive != nullptr) {
    tnw_deinit_force(drive);
  }
}

void PeerDrive::listen() {
  const std::string path = socket_path(record);
  std::error_code failed; /* the start then fails, too */
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), failed);
  if (!peer && !failed && path.size() < 108) {
    peer = std::make_unique<ScriptedPeer>(script, path);
  }
}

void* PeerDrive::start() {
  listen();
  SetEnvironmentVariableA("STAND_IN_READY", event_name(socket_path(record)).c_str());
  drive = init_drive(&record, &error);
  return drive;
}

std::string PeerDrive::said(const LogCapture& log) const {
  static const Masks MASKS = {
      {std::regex("0x(0x)?[0-9A-Fa-f]{8,16}"), "0xADDRESS"},
      {std::regex("(messages? id )[0-9a-f-]{36}"), "$1ID"},
      {std::regex("(sockfd |pid |PID: |LockFile on fd )-?[0-9]+"), "$1N"},
      {std::regex("( fh |len:[0-9]+ in |cffl )[0-9A-Fa-f]{16}"), "$1ADDRESS"},
      {std::regex("(opcode |, len |cmd because |extra_args because )[0-9]+"), "$1N"},
      {std::regex("(_region|ftruncate|Uncached read)[(][0-9]+"), "$1(FD"},
      {std::regex("[0-9]+[.][0-9]+ seconds"), "N seconds"},
      {std::regex("d{20,}"), "d"},
      {std::regex("^[{]\"asctime\".*\"message\":\""), "CUT: "},
      {std::regex("ada_[0-9]+[.][0-9]+"), "ada_N"},
  };
  std::string lines;
  for (const std::string& line : log.brief_lines()) {
    lines += (lines.empty() ? "" : "\n") + without_names(masked(line, MASKS));
  }
  return lines;
}

std::string PeerDrive::without_names(std::string text) const {
  replace_all(text, record.tnw_binpath, "PROGRAM");
  replace_all(text, folder.path().string(), "FOLDER");
  replace_all(text, event_name(folder.path().string()), "folder");
  return text;
}

void* PeerDrive::open(const char* path, ox_u32 accmode, int* err) {
  void* slot = nullptr;
  return tnw_create(drive, &slot, path, accmode, 7, 1, 0, 4711, "writer.exe", err);
}

ox_u64 local_file(const std::string& path, const std::string& content, ox_u32 access,
                  ox_u32 flags) {
  write_file(path, content);
  HANDLE handle = CreateFileA(path.c_str(), access, 7, nullptr, OPEN_EXISTING, flags, nullptr);
  return reinterpret_cast<ox_u64>(handle);
}
