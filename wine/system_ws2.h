/*
 * The system's own ws2_32.dll, of which this DLL takes the place: its functions under their names.
 */
#ifndef SYSTEM_WS2_H
#define SYSTEM_WS2_H

#include <winsock2.h>

#include <afunix.h>

/* Filled when the DLL is loaded, constant from then on. */
struct System {
  decltype(&::accept) accept;
  decltype(&::bind) bind;
  decltype(&::closesocket) closesocket;
  decltype(&::connect) connect;
  decltype(&::getpeername) getpeername;
  decltype(&::getsockname) getsockname;
  decltype(&::getsockopt) getsockopt;
  decltype(&::listen) listen;
  decltype(&::recv) recv;
  decltype(&::send) send;
  decltype(&::setsockopt) setsockopt;
  decltype(&::WSAAccept) WSAAccept;
  decltype(&::WSAConnect) WSAConnect;
  decltype(&::WSAIoctl) WSAIoctl;
  decltype(&::WSAPoll) WSAPoll;
  decltype(&::WSASocketA) WSASocketA;
  decltype(&::WSASocketW) WSASocketW;
  decltype(&::socket) socket;
};

extern System system_ws2;

#endif
