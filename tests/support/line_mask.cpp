#include "line_mask.h"

namespace {

/* "ERR:005" and "INFO" begin the portability layer's lines, shortened names of the levels. */
std::string level_of(const std::string& word) {
  for (const char* level : {"INFO", "WARNING", "ERROR", "FATAL", "DEBUG"}) {
    if (std::string(level).starts_with(word.substr(0, 3))) {
      return level;
    }
  }
  return word;
}

/* " 5" of "005". */
std::string number_of(const std::string& digits) {
  return digits.empty() ? "" : " " + std::to_string(std::stoi(digits));
}

}  // namespace

std::string masked(std::string line, const Masks& masks) {
  for (const auto& [what, mask] : masks) {
    line = std::regex_replace(line, what, mask);
  }
  return line;
}

std::string masked(const std::string& line) {
  static const Masks MASKS = {
      {std::regex(R"(^\[[^\]]+\])"), "[TIME]"},
      {std::regex(R"(^(\[TIME\] \S+ +[^ :]+:)\d+)"), "$1LINE"},
      {std::regex(R"(("asctime":")[^"]+)"), "$1TIME"},
      {std::regex(R"(("line":)\d+)"), "$1LINE"},
      {std::regex(R"(("vfs_response_time":)\d+)"), "$1USECS"},
  };
  return masked(line, MASKS);
}

std::string IdNumbers::numbered(const std::string& text) {
  std::string numbered;
  auto from = text.begin();
  for (std::sregex_iterator at(text.begin(), text.end(), id_), end; at != end; ++at) {
    numbered.append(from, (*at)[0].first);
    numbered +=
        "ID" + std::to_string(numbers_.try_emplace(at->str(), numbers_.size() + 1).first->second);
    from = (*at)[0].second;
  }
  return numbered.append(from, text.end());
}

std::string brief_line(const std::string& line) {
  static const std::regex CLIENT(
      R"re(\{"asctime":"[^"]+", "level":"([A-Z]+)", "filename":"[^"]+", "line":\d+, )re"
      R"re((?:"errno":(-?\d+), )?(?:"vfs_server_handle":.*"vfs_user":"([^"]*)", .*)?)re"
      R"re("message":"(.*)"\})re");
  static const std::regex EVENT(
      R"re(\{"asctime":.*"vfs_event_name":"([A-Z_]+)", (?:"retval":(\d+), )?"vfs_errno":(\d+)\b.*)re");
  static const std::regex LAYER(R"(\[[^\]]+\] ([A-Z]+)(?:[:-](-?\d+))? +\S+:\d+ (.*))");
  std::smatch found;
  if (std::regex_match(line, found, CLIENT)) {
    const std::string user = found[3].matched ? " " + found[3].str() : "";
    return found[1].str() + number_of(found[2]) + user + ": " + found[4].str();
  }
  if (std::regex_match(line, found, EVENT)) {
    const std::string retval = found[2].matched ? " " + found[2].str() + "," : "";
    return "EVENT " + found[1].str() + retval + " " + found[3].str();
  }
  if (std::regex_match(line, found, LAYER)) {
    const bool error = found[1] == "ERR";
    return level_of(found[1]) + (error ? number_of(found[2]) : "") + ": " + found[3].str();
  }
  return line;
}
