/**
 * @file
 * @ingroup protocol
 * Socket transport: whole requests and responses over a local (AF_UNIX) stream socket.
 *
 * The transfer calls move exactly n bytes, polling once a second, without a time-out of their own:
 * a hang-up, a socket error or the owner's exiting callback ends the wait. They keep no state. One
 * thread at a time uses a socket. Every failure is logged, returned and stored in the runtime's
 * errno, and is never 0.
 */
#ifndef TNV_CONNIO_WIN_H
#define TNV_CONNIO_WIN_H

#include "vfs_handle.h"

OX_BEGIN_DECLS

/** Starts Windows Sockets 2.2: 0, or the error of WSAStartup. Each success needs a WSACleanup. */
int tnv_sock_init(void);

/** Puts a socket into non-blocking mode: 0 or a Windows Sockets error. */
int tnv_setsockopt(int fd);

/**
 * Send or receive exactly `nbytes`: 0, or an error. `vh` may be null. When its vfs_is_exiting gives
 * true, a send that waits ends with 10054 (WSAECONNRESET), but a receive with 108 (the runtime's
 * ECONNRESET): a service that compares codes must know both. A peer that hangs up gives 10054 and a
 * CLOSED socket, after all that it sent was received. Any other failure leaves the socket open.
 * `fdcp` and `clientfd` are not used on Windows.
 */
int tnv_sendbytes(vfs_handle* vh, int sockfd, tnv_fdcntl* fdcp, ox_u8* data, int nbytes);
/** Receives, see tnv_sendbytes. */
int tnv_recvbytes(vfs_handle* vh, int sockfd, int* clientfd, ox_u8* data, int nbytes);

/**
 * Service side: traces and sends the response to the request `msgp` (48 + rhdr_len bytes). `vh`
 * must not be null. A response that is longer than its record is not sent: 10040.
 */
int tnv_send_response(vfs_handle* vh, int fd, tnv_msg* msgp, tnv_resp* resp);

/**
 * Service side: signals that the service listens on `vfs_sock_path`, through the event of that name
 * (lower case, slashes). 0 or a Windows error. The handle of the event stays open as long as the
 * process, so that a client that opens the event later still finds it.
 */
int tnv_signal_start(char* vfs_sock_path);

/** Dumps a buffer to the log, when ox_debug is 2 or more. */
void tnv_debug_dump_msg(char* buf, int len);

/** @cond NOT_EXPORTED */
/* ------------------------------------------------------------------- not exported */

/*
 * What ends the waits of a client's connections beside a hang-up: the end of the process at the
 * other end, whose socket may outlive it, and a silence that is too long. The connections of an
 * instance share one.
 */
typedef struct tnw_watch {
  ox_handle tw_process; /* null: not known yet, or not watched. Written by the first connect */
  ox_u32 tw_limit_ms; /* the longest silence within an exchange; 0: any. Read and set atomically */
} tnw_watch;
/* Gives back what the watch holds. No connection uses it any more. */
void tnw_end_watch(tnw_watch* watch);

/*
 * Creates and connects the client's socket of `vh`, and notes the other end's process in its watch:
 * 0, a Windows Sockets error, or 206 for a path of 108 bytes or more. The socket of a failed
 * attempt stays in vfs_fd, to be closed with the connection.
 */
int tnw_setup_socket(vfs_handle* vh, const char* sock);

/*
 * The transfers on a connection of the client: as above, but a wait also ends, like at a hang-up,
 * when the connection's watch says so. A connection that fails is broken for good. Its socket is
 * closed, once, and vfs_broken is set; vfs_fd keeps the number for the log. On a broken connection
 * all answer 10057 (not connected) at once, without touching any socket. errno is 133 after every
 * failure.
 */
int tnv_conn_send(vfs_handle* vh, const void* data, size_t nbytes);
int tnv_conn_recv(vfs_handle* vh, void* data, size_t nbytes);
/*
 * The same for bytes that are still to come: it waits before it tries. Up to *more bytes behind
 * them are taken along when they are there at once; then *more is their count.
 */
int tnv_conn_recv_next(vfs_handle* vh, void* data, size_t nbytes, size_t* more);
/* Breaks the connection: closes its socket, if it has one that is open. */
void tnv_conn_break(vfs_handle* vh);

/** @endcond */

OX_END_DECLS

#endif
