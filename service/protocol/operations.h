/*
 * The operations of the protocol, each in the file of its group:
 *   operations_service.cpp    CONNECT, DISCONNECT, SETPROXY, UPDATETOKEN, GET_VERSION, SHUTDOWN
 *   operations_open.cpp       OPEN
 *   operations_close.cpp      CLOSE, CLEANUP
 *   operations_names.cpp      DENUM, STAT, RENAME, CANDELETE, DELETE
 *   operations_regions.cpp    CACHE_REGION, DIRTY_REGION, FTRUNCATE
 *   operations_locks.cpp      BRL
 */
#ifndef SERVICE_OPERATIONS_H
#define SERVICE_OPERATIONS_H

#include <cstdint>
#include <string>

#include "files/windows_file.h"
#include "protocol/request.h"
#include "service.h"

namespace tarnd {

/* One connection's state. Used by its thread alone. */
struct Session {
  Service& service;
  uint64_t number;         /* the connection's */
  bool connected = false;  /* CONNECT succeeded */
  bool ends = false;       /* the connection is closed after this answer */
  bool stops = false;      /* the service stops after this answer */
  std::string share;       /* normalised */
  uint32_t peer_pid = 0;   /* the client's process, as the system tells it; 0: it does not */
  uint32_t client_pid = 0; /* the same, or what CONNECT says of it */
  FileHandle client;       /* that process, once it has opened something */

  /* Whether the client is this process, as it says. */
  bool is_client(uint32_t pid) const { return client_pid == 0 || client_pid == pid; }
};

/* Fills the reply's payload; the result goes into rhdr_errno. */
using OperationFunc = int (*)(Session& session, const Request& request, Reply* reply);

struct Operation {
  OperationFunc run;
  uint32_t payload; /* bytes of its response, sent with errors too */
  bool needs_share; /* answered 22 before CONNECT */
  bool needs_token; /* answered as unauthorised while the token is not accepted */
};

/* Null for a code that is no operation. */
const Operation* find_operation(uint32_t opcode);

int serve_connect(Session& session, const Request& request, Reply* reply);
int serve_disconnect(Session& session, const Request& request, Reply* reply);
int serve_set_proxy(Session& session, const Request& request, Reply* reply);
int serve_update_token(Session& session, const Request& request, Reply* reply);
int serve_get_service_version(Session& session, const Request& request, Reply* reply);
int serve_shutdown(Session& session, const Request& request, Reply* reply);

int serve_open(Session& session, const Request& request, Reply* reply);
int serve_close(Session& session, const Request& request, Reply* reply);
int serve_cleanup(Session& session, const Request& request, Reply* reply);

int serve_enumerate(Session& session, const Request& request, Reply* reply);
int serve_stat(Session& session, const Request& request, Reply* reply);
int serve_rename(Session& session, const Request& request, Reply* reply);
int serve_can_delete(Session& session, const Request& request, Reply* reply);
int serve_delete(Session& session, const Request& request, Reply* reply);

int serve_cache_region(Session& session, const Request& request, Reply* reply);
int serve_dirty_region(Session& session, const Request& request, Reply* reply);
int serve_truncate(Session& session, const Request& request, Reply* reply);
int serve_range_lock(Session& session, const Request& request, Reply* reply);

/* The cloud path of a request's one path, whose length without its NUL is given: 0 or the error. */
int request_path(const Session& session, const Request& request, int64_t length, std::string* path);

}  // namespace tarnd

#endif
