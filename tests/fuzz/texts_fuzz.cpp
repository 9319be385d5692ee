/* Two texts of any bytes as names, paths and parts of addresses: comparison, cutting, spelling. */
#include "cloud/webdav/name_spelling.h"
#include "common/percent.h"
#include "fuzz.h"
#include "names/conflict_name.h"
#include "names/share_path.h"
#include "names/utf8.h"
#include "ox_text.h"

using namespace tarnd;

namespace {

void compare(const std::string& a, const std::string& b) {
  const int differs = ox_utf8_strcasecmp(a.c_str(), b.c_str());
  require(differs == ox_utf8_strcasecmp(b.c_str(), a.c_str()));
  require(differs == 0 || ox_utf8_strcmp(a.c_str(), b.c_str()) != 0);
}

void cut(const std::string& text) {
  for (size_t bytes = 0; bytes <= text.size(); bytes++) {
    const std::string start = cut_utf8(text, bytes);
    require(start.size() <= bytes && text.starts_with(start));
    require(!is_utf8(text) || (is_utf8(start) && bytes - start.size() < 4));
  }
}

void spell(const std::string& name, const std::string& user) {
  const std::string shown = spelled_for_windows(name);
  require(is_windows_name(shown) && is_spelling_of_new_name(shown));
  require(spelled_for_cloud(shown) == name);
  require(spelled_for_cloud(spelled_apart(name)) == name);
  if (check_name(name) == 0 && is_utf8(user)) {
    require(check_name(conflict_name(name, user, "2026-11-22", 2)) == 0);
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view rest = text_of(data, size);
  const std::string a = take_line(&rest);
  const std::string b = take_line(&rest);
  compare(a, b);
  cut(a);
  std::string path;
  if (normalise_share_path(a, b, &path) == 0) {
    std::string again;
    require(normalise_share_path("", path, &again) == 0 && again == path);
  }
  if (a.find('\0') == std::string::npos) {
    std::string decoded;
    require(common::decode_percent(common::encode_percent(a), &decoded) && decoded == a);
    if (!a.empty() && a.find('/') == std::string::npos && a != "." && a != "..") {
      spell(a, b);
    }
  }
  return 0;
}
