#include "cloud/cloud_address.h"

#include <cctype>
#include <string_view>

#include "cloud/directory/directory_cloud.h"
#include "cloud/fault/fault_cloud.h"
#include "names/folded_path.h"
#include "names/name_caching_cloud.h"

namespace tarnd {
namespace {

int hex_digit(char c) {
  const std::string_view digits = "0123456789abcdef";
  const size_t at = digits.find(c >= 'A' && c <= 'F' ? static_cast<char>(c - 'A' + 'a') : c);
  return at == std::string_view::npos ? -1 : static_cast<int>(at);
}

bool decode_percent(std::string_view text, std::string* out) {
  out->clear();
  for (size_t i = 0; i < text.size(); i++) {
    if (text[i] != '%') {
      out->push_back(text[i]);
      continue;
    }
    const int high = i + 2 < text.size() ? hex_digit(text[i + 1]) : -1;
    const int low = i + 2 < text.size() ? hex_digit(text[i + 2]) : -1;
    if (high < 0 || low < 0 || (high == 0 && low == 0)) {
      return false;
    }
    out->push_back(static_cast<char>(high * 16 + low));
    i += 2;
  }
  return true;
}

/* "Z:/folder" of "file:///Z:/folder". */
bool folder_of_address(std::string_view address, std::string* folder, std::string* error) {
  constexpr std::string_view SCHEME = "file:///";
  if (!address.starts_with(SCHEME)) {
    *error = "no file:/// address";
    return false;
  }
  if (!decode_percent(address.substr(SCHEME.size()), folder)) {
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

}  // namespace

std::unique_ptr<Cloud> open_cloud(const std::string& address, const CloudSettings& settings,
                                  std::string* error) {
  constexpr std::string_view FAULTS = "fault+";
  const bool fails = address.starts_with(FAULTS);
  std::string folder;
  std::unique_ptr<Cloud> cloud;
  if (folder_of_address(std::string_view(address).substr(fails ? FAULTS.size() : 0), &folder,
                        error)) {
    cloud = DirectoryCloud::open(folder, error);
  }
  if (cloud != nullptr && fails) {
    cloud = FaultCloud::open(std::move(cloud), settings.faults, error);
  }
  if (cloud == nullptr) {
    *error = "Cloud address \"" + address + "\": " + *error;
    return nullptr;
  }
  cloud = std::make_unique<RetryingCloud>(std::move(cloud), settings.counts, settings.retry);
  if (settings.names_fresh.count() > 0) {
    cloud = std::make_unique<NameCachingCloud>(std::move(cloud), settings.names_fresh, folded_path);
  }
  return cloud;
}

}  // namespace tarnd
