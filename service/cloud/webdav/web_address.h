/* The address of a cloud on a web server, "https://host:port/root/", in its parts. */
#ifndef SERVICE_WEB_ADDRESS_H
#define SERVICE_WEB_ADDRESS_H

#include <cstdint>
#include <string>

namespace tarnd {

struct WebAddress {
  bool secure = false;
  std::string host; /* an IPv6 one with its brackets */
  uint16_t port = 0;
  std::string root; /* decoded, with no slash at its end: empty for the whole server */

  /* "http://host:port"; a usual port is left out, as in the Host header of requests. */
  std::string server() const;
  /* The target of a request for a path of the cloud: encoded, with no slash at the end. */
  std::string target(const std::string& cloud_path) const;
};

bool is_web_address(const std::string& text);
/* False with a text in `*error`. A user in the address is refused: it would show in logs. */
bool parse_web_address(const std::string& text, WebAddress* address, std::string* error);
/*
 * The path of the cloud that a server names in an answer, decoded, with no slash at either end:
 * false when it is not one below the root. Servers give either whole addresses or paths.
 */
bool cloud_path_of(const WebAddress& address, const std::string& href, std::string* path);

}  // namespace tarnd

#endif
