#define _CRT_RAND_S
#include "socket_file.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

const char FORMAT[] = "af_unix 1 port %hu secret %32[0-9a-f] process %lu";

int bind_error(DWORD error) {
  switch (error) {
    case ERROR_FILE_EXISTS:
    case ERROR_ALREADY_EXISTS:
      return WSAEADDRINUSE;
    case ERROR_ACCESS_DENIED:
      return WSAEACCES;
    default:
      return WSAENETDOWN;
  }
}

std::string sign_name(const std::string& secret) { return "af_unix-" + secret; }

}  // namespace

std::string new_secret() {
  std::string secret;
  while (secret.size() < SECRET_LENGTH) {
    unsigned value = 0;
    char text[9];
    if (rand_s(&value) != 0) {
      return {};
    }
    snprintf(text, sizeof(text), "%08x", value);
    secret += text;
  }
  return secret;
}

int write_socket_file(const char* path, const SocketFile& file) {
  HANDLE h = CreateFileA(path, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                         CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) {
    return bind_error(GetLastError());
  }
  char text[100];
  const int length = snprintf(text, sizeof(text), "af_unix 1 port %hu secret %s process %lu\n",
                              file.port, file.secret.c_str(), file.process);
  DWORD written = 0;
  const BOOL done = WriteFile(h, text, static_cast<DWORD>(length), &written, nullptr);
  CloseHandle(h);
  if (done != 0) {
    return 0;
  }
  DeleteFileA(path);
  return WSAENOBUFS;
}

std::optional<SocketFile> read_socket_file(const char* path) {
  HANDLE h = CreateFileA(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                         nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) {
    return {};
  }
  char text[100] = {};
  DWORD length = 0;
  const BOOL done = ReadFile(h, text, sizeof(text) - 1, &length, nullptr);
  CloseHandle(h);
  USHORT port = 0;
  char secret[SECRET_LENGTH + 1] = {};
  DWORD process = 0;
  if (done == 0 || sscanf(text, FORMAT, &port, secret, &process) != 3 ||
      strlen(secret) != SECRET_LENGTH) {
    return {};
  }
  return SocketFile{port, secret, process};
}

HANDLE raise_sign(const std::string& secret) {
  return CreateEventA(nullptr, TRUE, FALSE, sign_name(secret).c_str());
}

bool sign_stands(const std::string& secret) {
  HANDLE sign = OpenEventA(SYNCHRONIZE, FALSE, sign_name(secret).c_str());
  if (sign != nullptr) {
    CloseHandle(sign);
  }
  return sign != nullptr;
}
