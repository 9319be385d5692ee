#include "cloud/cloud_address.h"

#include <algorithm>
#include <cctype>
#include <string_view>

#include "cloud/directory/directory_cloud.h"
#include "cloud/fault/fault_cloud.h"
#include "cloud/webdav/webdav_cloud.h"
#include "common/percent.h"
#include "names/folded_path.h"
#include "names/name_caching_cloud.h"
#include "names/name_finding_cloud.h"
#include "names/short_name.h"

namespace tarnd {
namespace {

constexpr std::chrono::milliseconds WEB_NAMES_FRESH{2000};

/* "Z:/folder" of "file:///Z:/folder". */
bool folder_of_address(std::string_view address, std::string* folder, std::string* error) {
  constexpr std::string_view SCHEME = "file:///";
  if (!address.starts_with(SCHEME)) {
    *error = "it begins with none of file:///, http:// and https://";
    return false;
  }
  if (!common::decode_percent(address.substr(SCHEME.size()), folder)) {
    *error = "'%' is not followed by two hexadecimal digits of a character";
    return false;
  }
  const bool has_drive = folder->size() >= 3 &&
                         (isalpha(static_cast<unsigned char>((*folder)[0])) != 0) &&
                         (*folder)[1] == ':' && ((*folder)[2] == '/' || (*folder)[2] == '\\');
  if (!has_drive) {
    *error = "the folder does not begin with a drive letter, as in file:///Z:/folder";
    return false;
  }
  return true;
}

std::unique_ptr<Cloud> open_plain(const std::string& address, const CloudSettings& settings,
                                  std::string* error) {
  if (is_web_address(address)) {
    return WebdavCloud::open(address, {settings.connections, settings.ca_file},
                             KeptAbilities(settings.abilities_file), error);
  }
  std::string folder;
  return folder_of_address(address, &folder, error) ? DirectoryCloud::open(folder, error) : nullptr;
}

/* A request over a network takes its time, so there are fewer. */
RetryPolicy policy_for(const std::string& address, RetryPolicy policy) {
  constexpr unsigned WEB_TRIES = 3;
  if (is_web_address(address)) {
    policy.tries = std::min(policy.tries, WEB_TRIES);
  }
  return policy;
}

}  // namespace

std::unique_ptr<Cloud> open_cloud(const std::string& address, const CloudSettings& settings,
                                  std::string* error) {
  constexpr std::string_view FAULTS = "fault+";
  const bool fails = address.starts_with(FAULTS);
  const std::string plain = fails ? address.substr(FAULTS.size()) : address;
  std::unique_ptr<Cloud> cloud = open_plain(plain, settings, error);
  if (cloud != nullptr && fails) {
    cloud = FaultCloud::open(std::move(cloud), settings.faults, error);
  }
  if (cloud == nullptr) {
    *error = "Cloud address \"" + address + "\": " + *error;
    return nullptr;
  }
  cloud = std::make_unique<RetryingCloud>(std::move(cloud), settings.counts,
                                          policy_for(plain, settings.retry));
  const auto fresh = settings.names_fresh.value_or(
      is_web_address(plain) ? WEB_NAMES_FRESH : std::chrono::milliseconds{0});
  if (fresh.count() > 0) {
    cloud = std::make_unique<NameCachingCloud>(std::move(cloud), fresh, folded_path);
  }
  return std::make_unique<NameFindingCloud>(std::move(cloud), folded_path, shown_name);
}

}  // namespace tarnd
