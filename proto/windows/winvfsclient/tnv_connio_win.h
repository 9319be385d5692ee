/*
 * Socket transport: whole requests and responses over a local (AF_UNIX) stream socket.
 *
 * The transfer calls move exactly n bytes, polling once a second, without a time-out of their own:
 * a hang-up, a socket error or the owner's exiting callback ends the wait. They keep no state; a
 * socket is used by one thread at a time. Every failure is logged, returned, stored in the
 * runtime's errno, and never 0.
 */
#ifndef TNV_CONNIO_WIN_H
#define TNV_CONNIO_WIN_H

#include "vfs_handle.h"

OX_BEGIN_DECLS

/* Starts Windows Sockets 2.2: 0, or the start-up call's error. Each success wants a WSACleanup. */
int tnv_sock_init(void);

/* Puts a socket into non-blocking mode: 0 or a Windows Sockets error. */
int tnv_setsockopt(int fd);

/*
 * Send or receive exactly `nbytes`: 0, or an error. `vh` may be null; its vfs_is_exiting ends an
 * idle send with 10054 and an idle receive with 108 (deliberately unlike). A peer that hangs up
 * gives 10054 and a CLOSED socket, after all that it sent was received; any other failure leaves
 * the socket open. `fdcp` and `clientfd` are not used on Windows.
 */
int tnv_sendbytes(vfs_handle* vh, int sockfd, tnv_fdcntl* fdcp, ox_u8* data, int nbytes);
int tnv_recvbytes(vfs_handle* vh, int sockfd, int* clientfd, ox_u8* data, int nbytes);

/*
 * Service side: traces and sends a response (48 + rhdr_len bytes) to the request `msgp`. `vh` is
 * not null here. A response longer than its record is not sent: 10040.
 */
int tnv_send_response(vfs_handle* vh, int fd, tnv_msg* msgp, tnv_resp* resp);

/*
 * Service side: signals that the service listens on `vfs_sock_path`, through the event of that name
 * (lower case, slashes). 0 or a Windows error. The event's handle is deliberately never closed, so
 * that the event outlives the call.
 */
int tnv_signal_start(char* vfs_sock_path);

/* Dumps a buffer to the log, when ox_debug is 2 or more. */
void tnv_debug_dump_msg(char* buf, int len);

/* ------------------------------------------------------------------- not exported */

/*
 * Creates and connects the client's socket of `vh`: 0, a Windows Sockets error, or 206 for a path
 * of 108 bytes or more. The socket of a failed attempt stays in vfs_fd, to be closed with the
 * connection.
 */
int tnw_setup_socket(vfs_handle* vh, const char* sock);

/*
 * The transfers on a connection of the client: as above, but a connection that fails is broken for
 * good. Its socket is closed, once, and vfs_broken is set; vfs_fd keeps the number for the log. On
 * a broken connection both answer 10057 (not connected) at once, without touching any socket. errno
 * is 133 after every failure.
 */
int tnv_conn_send(vfs_handle* vh, const void* data, size_t nbytes);
int tnv_conn_recv(vfs_handle* vh, void* data, size_t nbytes);
/* Breaks the connection: closes its socket, if it has one that is open. */
void tnv_conn_break(vfs_handle* vh);

OX_END_DECLS

#endif
