/*
 * What a call of the cloud comes to, and what a caller gives it to come to an end in time.
 *
 * Every kind of failure is one of a few codes, by which callers decide; the error number is only
 * what the client of the service is told.
 */
#ifndef SERVICE_CLOUD_RESULT_H
#define SERVICE_CLOUD_RESULT_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "ox_errno.h"

namespace tarnd {

enum class CloudCode {
  OK,
  NOT_FOUND,       /* nothing is at the path, or a folder above it is missing */
  EXISTS,          /* something is where nothing may be */
  CHANGED,         /* what is there is not the version that the caller named */
  UNAUTHORISED,    /* the token is not accepted */
  BUSY,            /* try again after the pause */
  OFFLINE,         /* the cloud was not reached in time; nothing was changed there */
  NO_SPACE,        /* the cloud has no room for it */
  REFUSED,         /* for good: the same call would be refused again */
  UNKNOWN_OUTCOME, /* the request may have been carried out, or not, or may be later */
  CANCELLED        /* the caller did not want it any more; nothing was changed there */
};

/* The name of a code, for messages. */
const char* name_of(CloudCode code);

/* `error` is 0 with OK and never 0 with another code. */
struct CloudResult {
  CloudCode code = CloudCode::OK;
  int error = 0;                      /* of ox_errno.h: what the client is told */
  std::chrono::milliseconds pause{0}; /* with BUSY: how long the cloud asks to be left alone */

  bool ok() const { return code == CloudCode::OK; }

  /* A code with the error number that goes with it. */
  static CloudResult of(CloudCode code);
  static CloudResult refused(int error) { return {CloudCode::REFUSED, error}; }
  static CloudResult busy(std::chrono::milliseconds pause) {
    return {CloudCode::BUSY, OX_EBUSY, pause};
  }
};

/*
 * Tells a call that its caller does not want it any more. Any thread may raise it, once and for
 * all, and any number of calls may look at it; it outlives them.
 */
class CancelFlag {
 public:
  void raise();
  bool raised() const;
  /* Sleeps until the time, or until the flag is raised: then true. */
  bool wait_until(std::chrono::steady_clock::time_point time) const;

 private:
  /* No condition variable: one for each upload would leave its system objects behind. */
  std::atomic<bool> raised_ = false;
};

/* By what the cloud knows its user. Never changed once it is shared, but for the mark. */
struct CloudCredentials {
  std::string token;
  std::string proxy_server;
  std::string proxy_user;
  std::string proxy_password;
  /* The cloud's last answer refused this token. Set by the cloud; each token has its own mark. */
  std::shared_ptr<std::atomic<bool>> refused = std::make_shared<std::atomic<bool>>(false);
};

/*
 * What every call of the cloud takes. Calls look at the deadline and the flag before they begin,
 * while they pause and between the pieces of a content. A call that the deadline ends is answered
 * OFFLINE; one that changes something and may have been carried out by then, UNKNOWN_OUTCOME.
 */
struct CloudContext {
  std::chrono::steady_clock::time_point deadline = std::chrono::steady_clock::time_point::max();
  const CancelFlag* cancel = nullptr;                            /* null: cannot be cancelled */
  std::shared_ptr<const CloudCredentials> credentials = nullptr; /* null: none are needed */
  /*
   * Told of each piece of content that went up or down, on the call's thread; of one that is tried
   * again, too. Empty: nobody asks.
   */
  std::function<void(uint64_t bytes)> progress = {};
  bool may_be_old = false;  /* of status and listings: what a cache of names remembers will do */
  bool with_folder = false; /* of status: the folder above is wanted, too, where it costs no call */
};

/* OK; CANCELLED when the caller gave up; OFFLINE when the deadline has passed. */
CloudResult check(const CloudContext& context);
/* The same after a sleep, which ends early for either. */
CloudResult sleep_within(const CloudContext& context, std::chrono::milliseconds time);

}  // namespace tarnd

#endif
