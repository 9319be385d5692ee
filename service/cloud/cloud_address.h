/* Which cloud an address means. */
#ifndef SERVICE_CLOUD_ADDRESS_H
#define SERVICE_CLOUD_ADDRESS_H

#include <memory>
#include <optional>
#include <string>

#include "cloud/cloud.h"
#include "cloud/cloud_retry.h"

namespace tarnd {

struct CloudSettings {
  CloudCounts* counts = nullptr; /* outlives the cloud */
  std::string faults = {};       /* the script of a fault cloud (cloud/fault/fault_cloud.h) */
  RetryPolicy retry = {};
  /* Of names/name_caching_cloud.h; 0: none. Not set: none for a directory, 2 s for a server. */
  std::optional<std::chrono::milliseconds> names_fresh = {};
  /* Of web servers alone: */
  unsigned connections = 8; /* requests at a time */
  std::string ca_file = {}; /* an own authority's certificate; empty: the system's authorities */
  std::wstring abilities_file = {}; /* keeps what the server can; empty: nothing is kept */
};

/*
 * The cloud at an address, with the retries around it: "file:///Z:/a%20folder" (percent-encoded) is
 * a directory, "https://host:port/folder/" a WebDAV server, and either with "fault+" before it the
 * same one, failing as its script says. Null with a text in `*error` that says what is wrong with
 * it.
 */
std::unique_ptr<Cloud> open_cloud(const std::string& address, const CloudSettings& settings,
                                  std::string* error);

}  // namespace tarnd

#endif
