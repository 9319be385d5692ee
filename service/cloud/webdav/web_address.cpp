#include "cloud/webdav/web_address.h"

#include <algorithm>
#include <charconv>
#include <string_view>

#include "common/percent.h"

namespace tarnd {
namespace {

constexpr std::string_view HTTP = "http://";
constexpr std::string_view HTTPS = "https://";

void drop_slashes_at_end(std::string* text) {
  while (text->ends_with('/')) {
    text->pop_back();
  }
}

bool parse_port(std::string_view text, uint16_t* port) {
  const char* end = text.data() + text.size();
  const auto [rest, err] = std::from_chars(text.data(), end, *port);
  return err == std::errc{} && rest == end && *port != 0;
}

}  // namespace

std::string WebAddress::server() const {
  const bool usual = port == (secure ? 443 : 80);
  return std::string(secure ? HTTPS : HTTP) + host + (usual ? "" : ":" + std::to_string(port));
}

std::string WebAddress::target(const std::string& cloud_path) const {
  const std::string path =
      common::encode_percent(root + (cloud_path.empty() ? "" : "/" + cloud_path));
  return path.empty() ? "/" : path;
}

bool is_web_address(const std::string& text) {
  return text.starts_with(HTTP) || text.starts_with(HTTPS);
}

bool parse_web_address(const std::string& text, WebAddress* address, std::string* error) {
  address->secure = text.starts_with(HTTPS);
  std::string_view rest = text;
  rest.remove_prefix(address->secure ? HTTPS.size() : HTTP.size());
  const std::string_view host = rest.substr(0, rest.find('/'));
  rest.remove_prefix(host.size());
  const size_t colon = host.find(':', host.starts_with('[') ? host.find(']') : 0);
  address->host = host.substr(0, colon);
  address->port = address->secure ? 443 : 80;
  if (address->host.empty() || host.find('@') != std::string_view::npos) {
    *error = address->host.empty() ? "there is no host" : "a user belongs into --access-token";
    return false;
  }
  if (colon != std::string_view::npos && !parse_port(host.substr(colon + 1), &address->port)) {
    *error = "the port is no number from 1 to 65535";
    return false;
  }
  if (rest.find_first_of("?#") != std::string_view::npos ||
      !common::decode_percent(rest, &address->root)) {
    *error = "the path has '?' or '#', or a '%' without two hexadecimal digits";
    return false;
  }
  drop_slashes_at_end(&address->root);
  return true;
}

bool cloud_path_of(const WebAddress& address, const std::string& href, std::string* path) {
  std::string_view rest = href;
  if (is_web_address(href)) {
    rest.remove_prefix(rest.find("//") + 2);
    rest.remove_prefix(std::min(rest.find('/'), rest.size()));
  }
  std::string whole;
  if (!common::decode_percent(rest, &whole)) {
    return false;
  }
  drop_slashes_at_end(&whole);
  if (!whole.starts_with(address.root)) {
    return false;
  }
  whole.erase(0, address.root.size());
  if (!whole.empty() && whole[0] != '/') {
    return false;
  }
  *path = whole.empty() ? whole : whole.substr(1);
  return true;
}

}  // namespace tarnd
