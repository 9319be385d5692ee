#include "names/short_name.h"

#include <cstdio>

#include "cloud/path_id.h"
#include "names/share_path.h"
#include "names/utf8.h"

namespace tarnd {
namespace {

constexpr size_t DIGEST_BYTES = 8;
constexpr size_t MAX_EXTENSION = 32;

std::string digest_of(const std::string& name) {
  const cfs_id_t id = id_of_path(name);
  std::string digits;
  for (size_t i = 0; i < DIGEST_BYTES; i++) {
    char two[3];
    snprintf(two, sizeof two, "%02x", id.id[i]);
    digits += two;
  }
  return digits;
}

std::string extension_of(const std::string& name) {
  const size_t dot = name.rfind('.');
  return dot == std::string::npos || name.size() - dot > MAX_EXTENSION ? "" : name.substr(dot);
}

}  // namespace

std::string shown_name(const std::string& name) {
  if (name.size() <= MAX_NAME_BYTES) {
    return name;
  }
  const std::string end = std::string(SHORT_NAME_MARK) + digest_of(name) + extension_of(name);
  return cut_utf8(name, MAX_NAME_BYTES - end.size()) + end;
}

}  // namespace tarnd
