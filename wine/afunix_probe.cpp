/* Whether sockets of the AF_UNIX family can be made here: exit status 0, or the error. */
#include <winsock2.h>

int main() {
  WSADATA data;
  if (const int error = WSAStartup(MAKEWORD(2, 2), &data)) {
    return error;
  }
  const SOCKET s = socket(AF_UNIX, SOCK_STREAM, 0);
  const int error = s == INVALID_SOCKET ? WSAGetLastError() : 0;
  WSACleanup();
  return error;
}
