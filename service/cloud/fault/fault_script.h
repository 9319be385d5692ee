/*
 * What the fault cloud does wrong, as a text: rules, one a line or separated by ';', of words
 * separated by blanks. '#' at the start of a rule makes it a comment.
 *
 *   seed N                 what chance starts from (1)
 *   rate BYTES             contents go through at so many bytes a second, in each call; 0: at once
 *   latency CALLS MS[-MS]  waits before each call
 *   busy CALLS WHEN [MS]   is not carried out and answered BUSY, with this pause (100)
 *   error CALLS WHEN       is a server's error: a call that looks is answered OFFLINE; one that
 *                          changes something is carried out or not, by chance: UNKNOWN_OUTCOME
 *   lost CALLS WHEN        is carried out, but the answer gets lost: UNKNOWN_OUTCOME
 *   changed CALLS WHEN     is answered CHANGED: a read before any of its pieces, another call
 *                          without being carried out
 *   short CALLS WHEN       reads hand out a part of the bytes, and say OK
 *   offline CALLS WHEN MS  the cloud goes offline with this call, for so long, for all calls
 *
 * "at FROM-TO/PERIOD" before a rule makes it hold only in a part of each period: seconds, as the
 * system's clock counts them since 1970. So the weather goes on where it was when a service is
 * started anew. For example, offline for ten seconds of each minute:
 *
 *   at 20-30/60 offline all 1 100
 *
 * CALLS is "all", or names of calls separated by ',': status list read put patch rename remove
 * make_folder. WHEN is a chance between 0 and 1, as in 0.05, or "#N" for the Nth of these calls
 * alone. With reads, "changed" and "short" mean each piece of a content where others mean a call.
 */
#ifndef SERVICE_FAULT_SCRIPT_H
#define SERVICE_FAULT_SCRIPT_H

#include <chrono>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "cloud/cloud_counts.h"

namespace tarnd {

enum class Fault { LATENCY, BUSY, ERROR_5XX, LOST, CHANGED, SHORT, OFFLINE };

struct FaultRule {
  Fault fault = Fault::LATENCY;
  std::set<CloudCall> calls;
  double chance = 1;
  uint64_t nth = 0; /* only this call, counted from 1; 0: by chance */
  std::chrono::milliseconds least{0};
  /* `least` to `most` is the time that the fault takes, if it takes time. */
  std::chrono::milliseconds most{0};
  /* It holds from `from` to `to` of each `period`; without one it always does. */
  std::chrono::seconds from{0};
  std::chrono::seconds to{0};
  std::chrono::seconds period{0};

  bool holds_at(std::chrono::system_clock::time_point time) const;
};

struct FaultScript {
  uint64_t seed = 1;
  uint64_t rate = 0; /* bytes a second; 0: as fast as it goes */
  std::vector<FaultRule> rules;
};

/* False with a text in `*error` that names the rule that is wrong. */
bool parse_fault_script(const std::string& text, FaultScript* script, std::string* error);

}  // namespace tarnd

#endif
