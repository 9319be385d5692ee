#include "names/share_path.h"

#include <algorithm>
#include <array>
#include <vector>

#include "names/utf8.h"
#include "ox_errno.h"

namespace tarnd {
namespace {

/* By byte. */
constexpr std::array<bool, 256> FORBIDDEN = [] {
  std::array<bool, 256> forbidden = {};
  for (size_t control = 0; control < 0x20; control++) {
    forbidden.at(control) = true;
  }
  for (const char c : std::string_view("/\\:*?\"<>|")) {
    forbidden.at(static_cast<unsigned char>(c)) = true;
  }
  return forbidden;
}();

bool is_forbidden(char c) { return FORBIDDEN[static_cast<unsigned char>(c)]; }

/* The digit of COM1 and LPT1; Windows takes the superscripts of Latin-1 for digits, too. */
bool is_device_digit(std::string_view text) {
  return (text.size() == 1 && text[0] >= '0' && text[0] <= '9') || text == "\u00b9" ||
         text == "\u00b2" || text == "\u00b3";
}

bool is_device(std::string_view name) {
  static constexpr std::array<std::string_view, 6> DEVICES = {"CON", "PRN",    "AUX",
                                                              "NUL", "CONIN$", "CONOUT$"};
  if (std::string_view("CPANLcpanl").find(name.front()) == std::string_view::npos) {
    return false; /* most names: none of the devices begins so */
  }
  std::string upper(name);
  std::transform(upper.begin(), upper.end(), upper.begin(), [](char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
  });
  if (std::find(DEVICES.begin(), DEVICES.end(), upper) != DEVICES.end()) {
    return true;
  }
  return (upper.starts_with("COM") || upper.starts_with("LPT")) && is_device_digit(name.substr(3));
}

/* Appends the names of `path` to `names`, which never gets shorter than `floor`. */
int append_names(std::string_view path, size_t floor, std::vector<std::string_view>* names) {
  while (!path.empty()) {
    const size_t length = std::min(path.find_first_of("/\\"), path.size());
    const std::string_view name = path.substr(0, length);
    path.remove_prefix(std::min(length + 1, path.size()));
    if (name.empty() || name == ".") {
      continue;
    }
    if (name == "..") {
      if (names->size() <= floor) {
        return OX_EPERM;
      }
      names->pop_back();
      continue;
    }
    if (const int err = check_name(name)) {
      return err;
    }
    names->push_back(name);
  }
  return 0;
}

}  // namespace

bool is_windows_name(std::string_view name) {
  return !name.empty() && std::none_of(name.begin(), name.end(), is_forbidden) &&
         name.back() != '.' && name.back() != ' ' && !is_device(name) && is_utf8(name);
}

int check_name(std::string_view name) {
  return name.size() <= MAX_NAME_BYTES && is_windows_name(name) ? 0 : static_cast<int>(OX_EINVAL);
}

int normalise_share_path(const std::string& share, const std::string& path, std::string* out) {
  out->clear();
  std::vector<std::string_view> names;
  int err = append_names(share, 0, &names);
  if (err == 0) {
    err = append_names(path, names.size(), &names);
  }
  if (err != 0) {
    return err;
  }
  for (const std::string_view name : names) {
    out->append(out->empty() ? "" : "/").append(name);
  }
  return 0;
}

}  // namespace tarnd
