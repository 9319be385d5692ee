/*
 * AF_UNIX stream sockets made of TCP sockets of the loopback interface.
 *
 * A table holds the sockets that programs made with AF_UNIX, by their handles; each call below
 * takes such a socket and fails as its namesake does, the error in the thread's last error. The
 * table has a lock of its own, held for look-ups and changes only, never during a socket call. Any
 * thread.
 */
#ifndef UNIX_SOCKETS_H
#define UNIX_SOCKETS_H

#include "system_ws2.h"

/* Whether the table holds the socket. */
bool is_unix(SOCKET s);

/* Takes a new TCP socket into the table, without delays on small messages. */
SOCKET adopt_unix(SOCKET s);
/* Takes out of it a handle that is closed, or that a socket of another family has got anew. */
void forget_unix(SOCKET s);

int bind_unix(SOCKET s, const sockaddr* address, int length);
int listen_unix(SOCKET s);
int connect_unix(SOCKET s, const sockaddr* address, int length);
SOCKET accept_unix(SOCKET s, sockaddr* address, int* length);

/* The path that the socket was bound to (or connected to), as getsockname and getpeername do. */
int own_name_unix(SOCKET s, sockaddr* address, int* length);
int peer_name_unix(SOCKET s, sockaddr* address, int* length);

/* The process at the other end of a connection, as SIO_AF_UNIX_GETPEERPID tells it. */
int peer_process_unix(SOCKET s, void* out, DWORD size, DWORD* returned);

/*
 * Mends what Wine's WSAPoll reports of a connection that was reset before all was read: without
 * POLLRDNORM, although what had arrived can still be read.
 */
void mend_poll_unix(WSAPOLLFD& polled);

/*
 * Mends what Wine's WSAPoll does not report: now and then Wine keeps the connection of a process
 * that was killed while it waited on it. Asked after a time-out; true when the peer is gone.
 */
bool mend_timeout_unix(WSAPOLLFD& polled);

#endif
