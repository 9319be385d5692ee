#include "names/conflict_name.h"

#include <algorithm>

#include "names/share_path.h"
#include "names/utf8.h"

namespace tarnd {
namespace {

constexpr const char* MARK = " (conflict of ";
/* What is longer than this tells no kind of file, and if it were cut it might end in a blank. */
constexpr size_t LONGEST_END = 32;

/* What a name may hold of a text that was not meant to be one. */
std::string clean(std::string text) {
  std::erase_if(text, [](unsigned char c) {
    return c < 0x20 ||
           std::string_view("/\\:*?\"<>|").find(static_cast<char>(c)) != std::string_view::npos;
  });
  return text;
}

}  // namespace

std::string conflict_name(const std::string& path, const std::string& user, const std::string& date,
                          int number) {
  const size_t start = path.rfind('/') + 1;
  const std::string name = path.substr(start);
  const size_t dot = name.rfind('.');
  const bool has_end = dot != std::string::npos && dot != 0 && name.size() - dot <= LONGEST_END;
  const std::string end = has_end ? name.substr(dot) : "";
  std::string stem = has_end ? name.substr(0, dot) : name;
  stem = stem.substr(0, stem.find(MARK));
  const std::string mark = MARK + cut_utf8(clean(user), 64) + ' ' + date +
                           (number > 1 ? ' ' + std::to_string(number) : "") + ')';
  return path.substr(0, start) + cut_utf8(stem, MAX_NAME_BYTES - mark.size() - end.size()) + mark +
         end;
}

}  // namespace tarnd
