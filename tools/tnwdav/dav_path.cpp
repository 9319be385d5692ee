#include "dav_path.h"

#include "common/percent.h"
#include "tools/common/wide_text.h"

namespace tnwdav {
namespace {

/* What stands behind "http://HOST" of a whole address; nothing when the host is another one. */
std::optional<std::string_view> without_host(std::string_view address, std::string_view host) {
  constexpr std::string_view SCHEME = "http://";
  if (!address.starts_with(SCHEME)) {
    return address;
  }
  address.remove_prefix(SCHEME.size());
  const std::string_view named = address.substr(0, address.find('/'));
  if (named != host) {
    return std::nullopt;
  }
  address.remove_prefix(named.size());
  return address.empty() ? "/" : address;
}

bool is_plain_name(std::string_view name) {
  if (name == "." || name == ".." || name.find('\\') != std::string_view::npos) {
    return false;
  }
  for (const char c : name) {
    if (static_cast<unsigned char>(c) < 0x20) {
      return false;
    }
  }
  return !tools::wide_from_utf8(name).empty();
}

/* Joins the names again, so that a path has one spelling whatever slashes it came with. */
std::optional<std::string> clean_path(std::string_view decoded) {
  std::string path;
  while (!decoded.empty()) {
    const std::string_view name = decoded.substr(0, decoded.find('/'));
    decoded.remove_prefix(name.size());
    decoded.remove_prefix(decoded.empty() ? 0 : 1);
    if (name.empty()) {
      continue;
    }
    if (!is_plain_name(name)) {
      return std::nullopt;
    }
    path.append("/").append(name);
  }
  return path.empty() ? "/" : path;
}

}  // namespace

std::optional<std::string> path_of_address(std::string_view address, std::string_view host) {
  const std::optional<std::string_view> encoded = without_host(address, host);
  std::string decoded;
  if (!encoded || !encoded->starts_with('/') ||
      encoded->find_first_of("?#") != std::string_view::npos ||
      !common::decode_percent(*encoded, &decoded)) {
    return std::nullopt;
  }
  return clean_path(decoded);
}

std::string address_of_path(const std::string& path, bool folder) {
  return common::encode_percent(path) + (folder && path != "/" ? "/" : "");
}

std::string parent_of(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  return slash == 0 ? "/" : path.substr(0, slash);
}

bool lies_below(const std::string& key, const std::string& folder) {
  if (folder == "/" || folder.empty()) {
    return key != folder;
  }
  return key.size() > folder.size() && key.starts_with(folder) && key[folder.size()] == '/';
}

}  // namespace tnwdav
