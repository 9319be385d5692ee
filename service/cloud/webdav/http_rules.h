/* Small texts of HTTP: dates, pauses, ranges, entity tags and users. */
#ifndef SERVICE_HTTP_RULES_H
#define SERVICE_HTTP_RULES_H

#include <chrono>
#include <cstdint>
#include <string>

#include "cloud/cloud.h"

namespace tarnd {

/*
 * A Windows file time of "Sun, 06 Nov 1994 08:49:37 GMT" or "1994-11-06T08:49:37Z" (creation dates
 * have this form); 0 when it is neither.
 */
uint64_t time_of_http_date(const std::string& text);

/*
 * How long a server asks to be left alone: seconds, or a date, which is compared with the server's
 * own Date (either may be empty). Between one second, also for what cannot be read, and an hour.
 */
std::chrono::milliseconds retry_after(const std::string& text, const std::string& date);

/*
 * The version of a content: its entity tag, weak or strong, since servers tell the same tag as a
 * weak one for the first seconds. A server without tags: the time of its last change, of one
 * second, and the size, so that a change of the same size within that second is not seen.
 */
std::string version_of(const std::string& tag, const std::string& modified, uint64_t size);

/* "bytes 2-5/10" */
struct ContentRange {
  ByteRange range;
  uint64_t size = 0; /* of the whole content */
};
bool parse_content_range(const std::string& text, ContentRange* range);

/* The value of the Authorization header: "basic:USER:PASSWORD" is Basic, any other a bearer's. */
std::string authorisation_of(const std::string& token);
std::string basic_authorisation(const std::string& user_and_password);

}  // namespace tarnd

#endif
