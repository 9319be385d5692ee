/*
 * A ws2_32.dll for a Wine without AF_UNIX: the system's, with AF_UNIX stream sockets added. The
 * functions here are those that AF_UNIX touches; all others are jumps (jumps.S.in, ws2_32.def).
 */
#include "system_ws2.h"
#include "unix_sockets.h"

System system_ws2;

namespace {

struct Slot {
  const char* name;
  FARPROC address;
};

/* What an export leads to that this version of Wine does not have. */
INT_PTR missing() {
  RaiseException(ERROR_PROC_NOT_FOUND, EXCEPTION_NONCONTINUABLE, 0, nullptr);
  return 0;
}

HMODULE load_system_ws2() {
  WCHAR path[MAX_PATH] = {};
  if (GetSystemDirectoryW(path, MAX_PATH - 12) == 0) {
    return nullptr;
  }
  return LoadLibraryW(lstrcatW(path, L"\\ws2_32.dll"));
}

template <typename Function>
bool find(HMODULE module, const char* name, Function* function) {
  *function = reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module, name)));
  return *function != nullptr;
}

bool fill_system(HMODULE m) {
  System& ws2 = system_ws2;
  return find(m, "accept", &ws2.accept) && find(m, "bind", &ws2.bind) &&
         find(m, "closesocket", &ws2.closesocket) && find(m, "connect", &ws2.connect) &&
         find(m, "getpeername", &ws2.getpeername) && find(m, "getsockname", &ws2.getsockname) &&
         find(m, "getsockopt", &ws2.getsockopt) && find(m, "listen", &ws2.listen) &&
         find(m, "recv", &ws2.recv) && find(m, "send", &ws2.send) &&
         find(m, "setsockopt", &ws2.setsockopt) && find(m, "WSAAccept", &ws2.WSAAccept) &&
         find(m, "WSAConnect", &ws2.WSAConnect) && find(m, "WSAIoctl", &ws2.WSAIoctl) &&
         find(m, "WSAPoll", &ws2.WSAPoll) && find(m, "WSASocketA", &ws2.WSASocketA) &&
         find(m, "WSASocketW", &ws2.WSASocketW) && find(m, "socket", &ws2.socket);
}

/* A stream socket without a protocol of its own: what AF_UNIX has. */
bool refused(int type, int protocol) {
  if (type != SOCK_STREAM) {
    SetLastError(WSAESOCKTNOSUPPORT);
  } else if (protocol != 0) {
    SetLastError(WSAEPROTONOSUPPORT);
  } else {
    return false;
  }
  return true;
}

SOCKET not_unix(SOCKET s) {
  forget_unix(s);
  return s;
}

}  // namespace

extern "C" {

extern Slot slots_begin[];
extern Slot slots_end[];

static void fill_slots(HMODULE module) {
  for (Slot* slot = slots_begin; slot != slots_end; slot++) {
    slot->address = GetProcAddress(module, slot->name);
    if (slot->address == nullptr) {
      slot->address = missing;
    }
  }
}

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, void*) {
  if (reason != DLL_PROCESS_ATTACH) {
    return TRUE;
  }
  DisableThreadLibraryCalls(instance);
  HMODULE module = load_system_ws2();
  if (module == nullptr || module == instance || !fill_system(module)) {
    return FALSE;
  }
  fill_slots(module);
  return TRUE;
}

SOCKET WSAAPI shim_socket(int family, int type, int protocol) {
  if (family != AF_UNIX) {
    return not_unix(system_ws2.socket(family, type, protocol));
  }
  if (refused(type, protocol)) {
    return INVALID_SOCKET;
  }
  return adopt_unix(system_ws2.socket(AF_INET, type, IPPROTO_TCP));
}

SOCKET WSAAPI shim_WSASocketA(int family, int type, int protocol, LPWSAPROTOCOL_INFOA info,
                              GROUP group, DWORD flags) {
  if (family != AF_UNIX) {
    return not_unix(system_ws2.WSASocketA(family, type, protocol, info, group, flags));
  }
  if (refused(type, protocol)) {
    return INVALID_SOCKET;
  }
  return adopt_unix(system_ws2.WSASocketA(AF_INET, type, IPPROTO_TCP, nullptr, group, flags));
}

SOCKET WSAAPI shim_WSASocketW(int family, int type, int protocol, LPWSAPROTOCOL_INFOW info,
                              GROUP group, DWORD flags) {
  if (family != AF_UNIX) {
    return not_unix(system_ws2.WSASocketW(family, type, protocol, info, group, flags));
  }
  if (refused(type, protocol)) {
    return INVALID_SOCKET;
  }
  return adopt_unix(system_ws2.WSASocketW(AF_INET, type, IPPROTO_TCP, nullptr, group, flags));
}

int WSAAPI shim_bind(SOCKET s, const sockaddr* address, int length) {
  return is_unix(s) ? bind_unix(s, address, length) : system_ws2.bind(s, address, length);
}

int WSAAPI shim_listen(SOCKET s, int backlog) {
  return is_unix(s) ? listen_unix(s) : system_ws2.listen(s, backlog);
}

int WSAAPI shim_connect(SOCKET s, const sockaddr* address, int length) {
  return is_unix(s) ? connect_unix(s, address, length) : system_ws2.connect(s, address, length);
}

int WSAAPI shim_WSAConnect(SOCKET s, const sockaddr* address, int length, LPWSABUF caller,
                           LPWSABUF callee, LPQOS sqos, LPQOS gqos) {
  if (is_unix(s)) {
    return connect_unix(s, address, length);
  }
  return system_ws2.WSAConnect(s, address, length, caller, callee, sqos, gqos);
}

SOCKET WSAAPI shim_accept(SOCKET s, sockaddr* address, int* length) {
  if (is_unix(s)) {
    return accept_unix(s, address, length);
  }
  return not_unix(system_ws2.accept(s, address, length));
}

/* A condition function is not asked: a local socket has no caller data that it could judge. */
SOCKET WSAAPI shim_WSAAccept(SOCKET s, sockaddr* address, LPINT length, LPCONDITIONPROC condition,
                             DWORD_PTR data) {
  if (is_unix(s)) {
    return accept_unix(s, address, length);
  }
  return not_unix(system_ws2.WSAAccept(s, address, length, condition, data));
}

int WSAAPI shim_closesocket(SOCKET s) {
  forget_unix(s); /* before the handle can be another socket's */
  return system_ws2.closesocket(s);
}

int WSAAPI shim_getsockname(SOCKET s, sockaddr* address, int* length) {
  return is_unix(s) ? own_name_unix(s, address, length)
                    : system_ws2.getsockname(s, address, length);
}

int WSAAPI shim_getpeername(SOCKET s, sockaddr* address, int* length) {
  return is_unix(s) ? peer_name_unix(s, address, length)
                    : system_ws2.getpeername(s, address, length);
}

int WSAAPI shim_WSAIoctl(SOCKET s, DWORD code, LPVOID in, DWORD in_size, LPVOID out, DWORD out_size,
                         LPDWORD returned, LPWSAOVERLAPPED overlapped,
                         LPWSAOVERLAPPED_COMPLETION_ROUTINE completion) {
  if (code == SIO_AF_UNIX_GETPEERPID && is_unix(s)) {
    return peer_process_unix(s, out, out_size, returned);
  }
  return system_ws2.WSAIoctl(s, code, in, in_size, out, out_size, returned, overlapped, completion);
}

int WSAAPI shim_WSAPoll(LPWSAPOLLFD polled, ULONG count, INT timeout) {
  const int ready = system_ws2.WSAPoll(polled, count, timeout);
  for (ULONG i = 0; ready > 0 && i < count; i++) {
    mend_poll_unix(polled[i]);
  }
  int gone = 0;
  for (ULONG i = 0; ready == 0 && i < count; i++) {
    gone += mend_timeout_unix(polled[i]) ? 1 : 0;
  }
  return ready + gone;
}

} /* extern "C" */
