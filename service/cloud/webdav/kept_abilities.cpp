#include "cloud/webdav/kept_abilities.h"

#include <chrono>
#include <filesystem>
#include <fstream>

namespace tarnd {
namespace {

constexpr int64_t SECONDS_KEPT = int64_t{24} * 3600;

int64_t seconds_now() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::seconds>(now).count();
}

}  // namespace

bool KeptAbilities::load(const std::string& address, WebdavAbilities* abilities) const {
  std::ifstream file{std::filesystem::path(path_)};
  std::string of;
  int64_t found_at = 0;
  std::string flags;
  if (path_.empty() || !std::getline(file, of) || !(file >> found_at >> flags)) {
    return false;
  }
  const int64_t age = seconds_now() - found_at;
  return of == address && age >= 0 && age <= SECONDS_KEPT && parse_flags(flags, abilities);
}

void KeptAbilities::save(const std::string& address, const WebdavAbilities& abilities) const {
  if (!path_.empty()) {
    std::ofstream file{std::filesystem::path(path_)};
    file << address << '\n' << seconds_now() << ' ' << flags_of(abilities) << '\n';
  }
}

}  // namespace tarnd
