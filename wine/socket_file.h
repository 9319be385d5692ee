/*
 * The file that stands for a listening AF_UNIX socket: a line of text that names a port of the
 * loopback interface, a random secret and the process that bound it. A kernel object named by the
 * secret exists for as long as the socket listens, so that a file left behind by a process that was
 * killed is known to be dead even when its port has a new owner.
 */
#ifndef SOCKET_FILE_H
#define SOCKET_FILE_H

#include <optional>
#include <string>

#include "system_ws2.h"

constexpr size_t SECRET_LENGTH = 32;

struct SocketFile {
  USHORT port; /* network byte order, as in a sockaddr_in */
  std::string secret;
  DWORD process;
};

/* A new secret, or an empty string. */
std::string new_secret();

/* Writes the file, which must not exist yet: 0 or a Windows Sockets error. */
int write_socket_file(const char* path, const SocketFile& file);

/* Reads the file; nothing if it is missing or is not a whole socket file. */
std::optional<SocketFile> read_socket_file(const char* path);

/* The sign that the owner of the secret listens: null on failure. Closing it takes it away. */
HANDLE raise_sign(const std::string& secret);
bool sign_stands(const std::string& secret);

#endif
