/* Tells the front of web_servers how to fail. */
#ifndef WEB_FRONT_H
#define WEB_FRONT_H

#include <cstdlib>
#include <stdexcept>
#include <string>

#include "cloud/webdav/http_client.h"

/* The value of a variable of web_servers. */
inline std::string of_servers(const char* name) {
  const char* value = getenv(name);
  return value != nullptr ? value : throw std::runtime_error(std::string(name) + " is not set");
}

/* "method=PUT&status=507&times=2"; the empty text ends all faults. The requests so far. */
inline int tell_front(const std::string& fault) {
  tarnd::WebAddress address;
  std::string error;
  parse_web_address(of_servers("TNW_FRONT"), &address, &error);
  tarnd::HttpAnswer answer;
  std::string requests = "0";
  tarnd::HttpClient::open(address, {}, &error)
      ->send({}, {"GET", "/-fail?" + fault}, &answer, [&](const char* data, size_t size) {
        requests.assign(data, size);
        return 0;
      });
  return std::stoi(requests);
}

#endif
