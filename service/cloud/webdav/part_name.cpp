#include "cloud/webdav/part_name.h"

#include <array>
#include <cstdio>
#include <random>
#include <string_view>

namespace tarnd {
namespace {

constexpr std::string_view LEAD = ".tarnd-part-";
constexpr size_t DIGITS = 16;

}  // namespace

std::string new_part_path(const std::string& folder) {
  std::random_device random;
  std::array<char, DIGITS + 1> digits = {};
  snprintf(digits.data(), digits.size(), "%08x%08x", random(), random());
  return folder + (folder.empty() ? "" : "/") + std::string(LEAD) + digits.data();
}

bool is_part_name(const std::string& name) {
  return name.starts_with(LEAD) && name.size() == LEAD.size() + DIGITS;
}

}  // namespace tarnd
