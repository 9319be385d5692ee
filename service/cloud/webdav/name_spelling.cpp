#include "cloud/webdav/name_spelling.h"

#include <algorithm>

#include "names/share_path.h"
#include "names/utf8.h"

namespace tarnd {
namespace {

/* The first two bytes of the characters U+F000 to U+F03F; the next ones follow. */
constexpr unsigned char LEAD = 0xef;
constexpr unsigned char SECOND = 0x80;

void append_spelled(unsigned char byte, std::string* out) {
  out->push_back(static_cast<char>(LEAD));
  out->push_back(static_cast<char>(SECOND | (byte >> 6)));
  out->push_back(static_cast<char>(0x80 | (byte & 0x3f)));
}

/* Whether a spelled byte begins the text, and which. */
bool take_spelled(std::string_view text, unsigned char* byte) {
  if (text.size() < 3 || static_cast<unsigned char>(text[0]) != LEAD ||
      (static_cast<unsigned char>(text[1]) & 0xfc) != SECOND ||
      (static_cast<unsigned char>(text[2]) & 0xc0) != 0x80) {
    return false;
  }
  *byte = static_cast<unsigned char>(((text[1] & 3) << 6) | (text[2] & 0x3f));
  return true;
}

bool may_stay(std::string_view character, bool last) {
  unsigned char byte = 0;
  const bool awkward_end = last && (character == "." || character == " ");
  return !awkward_end && !take_spelled(character, &byte) &&
         std::string_view("/\\:*?\"<>|").find(character[0]) == std::string_view::npos &&
         static_cast<unsigned char>(character[0]) >= 0x20;
}

/* What would name another folder stays as it is: no name of the cloud is spelled so. */
std::string name_for_cloud(std::string_view name) {
  std::string out;
  for (size_t at = 0; at < name.size();) {
    unsigned char byte = 0;
    const bool spelled = take_spelled(name.substr(at), &byte) && byte != '/' && byte != 0;
    out.push_back(spelled ? static_cast<char>(byte) : name[at]);
    at += spelled ? 3 : 1;
  }
  return out == "." || out == ".." ? std::string(name) : out;
}

std::string spell_from(std::string_view name, size_t spelled_bytes) {
  std::string out;
  for (size_t at = 0; at < name.size();) {
    const size_t size = at < spelled_bytes ? 0 : utf8_character_size(name.substr(at));
    if (size != 0 && may_stay(name.substr(at, size), at + size == name.size())) {
      out.append(name.substr(at, size));
      at += size;
      continue;
    }
    for (size_t end = at + (size == 0 ? 1 : size); at < end; at++) {
      append_spelled(static_cast<unsigned char>(name[at]), &out);
    }
  }
  return out;
}

}  // namespace

std::string spelled_for_windows(std::string_view cloud_name) {
  std::string out = spell_from(cloud_name, 0);
  /* What is left to refuse is a device's name. */
  return is_windows_name(out) ? out : spelled_apart(cloud_name);
}

std::string spelled_apart(std::string_view cloud_name) { return spell_from(cloud_name, 1); }

std::string spelled_for_cloud(std::string_view windows_path) {
  std::string out;
  while (!windows_path.empty()) {
    const size_t length = std::min(windows_path.find('/'), windows_path.size());
    out += name_for_cloud(windows_path.substr(0, length));
    out += length < windows_path.size() ? "/" : "";
    windows_path.remove_prefix(std::min(length + 1, windows_path.size()));
  }
  return out;
}

bool is_spelling_of_new_name(std::string_view windows_name) {
  return spelled_for_windows(spelled_for_cloud(windows_name)) == windows_name;
}

}  // namespace tarnd
