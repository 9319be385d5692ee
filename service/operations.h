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

#include "request.h"
#include "service.h"

namespace tarnd {

/* One connection's state. Used by its thread alone. */
struct Session {
  Service& service;
  uint64_t number;        /* the connection's */
  bool connected = false; /* CONNECT succeeded */
  bool ends = false;      /* the connection is closed after this answer */
  bool stops = false;     /* the service stops after this answer */
  std::string share;      /* normalised */
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
const Operation* FindOperation(uint32_t opcode);

int Connect(Session& session, const Request& request, Reply* reply);
int Disconnect(Session& session, const Request& request, Reply* reply);
int SetProxy(Session& session, const Request& request, Reply* reply);
int UpdateToken(Session& session, const Request& request, Reply* reply);
int GetServiceVersion(Session& session, const Request& request, Reply* reply);
int Shutdown(Session& session, const Request& request, Reply* reply);

int Open(Session& session, const Request& request, Reply* reply);
int Close(Session& session, const Request& request, Reply* reply);
int Cleanup(Session& session, const Request& request, Reply* reply);

int Enumerate(Session& session, const Request& request, Reply* reply);
int Stat(Session& session, const Request& request, Reply* reply);
int Rename(Session& session, const Request& request, Reply* reply);
int CanDelete(Session& session, const Request& request, Reply* reply);
int Delete(Session& session, const Request& request, Reply* reply);

int CacheRegion(Session& session, const Request& request, Reply* reply);
int DirtyRegion(Session& session, const Request& request, Reply* reply);
int Truncate(Session& session, const Request& request, Reply* reply);
int RangeLock(Session& session, const Request& request, Reply* reply);

/* The cloud path of a request's one path, whose length without its NUL is given: 0 or the error. */
int RequestPath(const Session& session, const Request& request, int64_t length, std::string* path);
/* An entry's parent folder; null for the share's root and when it cannot be looked up. */
const CloudEntry* ParentOf(Cloud& cloud, const std::string& path, CloudEntry* parent);

}  // namespace tarnd

#endif
