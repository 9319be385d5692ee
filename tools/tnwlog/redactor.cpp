#include "redactor.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <unordered_set>

#include "log_files.h"
#include "log_texts.h"
#include "new_file.h"

namespace tnwlog {
namespace {

const std::string REMOVED = "[removed]";

/* What the library itself writes in the place of a name or a path. */
constexpr std::array<std::string_view, 6> NO_NAMES = {"", ".", "..", "*", "(null)", "[unknown]"};
constexpr std::array<std::string_view, 3> SCHEMES = {"file:", "http:", "https:"};

/* Extensions that tell the kind of a file and nothing of its owner. */
constexpr std::array<std::string_view, 44> EXTENSIONS = {
    "7z",   "ai",   "avi",  "bak", "bin", "bmp", "cpp", "csv", "dat",  "db",   "dll",
    "doc",  "docx", "dwg",  "eml", "exe", "gif", "gz",  "h",   "htm",  "html", "ini",
    "jpeg", "jpg",  "json", "lnk", "log", "md",  "mov", "mp3", "mp4",  "msg",  "pdf",
    "png",  "ppt",  "pptx", "psd", "rtf", "tmp", "txt", "xls", "xlsx", "xml",  "zip"};

/* Words in the answer to GET_VERSION that the library does not have. */
constexpr std::array<std::string_view, 9> SERVICE_WORDS = {"debug",   "ok",           "reference",
                                                           "release", "running",      "stopping",
                                                           "Linux",   "unauthorised", "Windows"};

/* This is the only text whose values are names as well as paths, and also hold a secret. */
constexpr std::string_view SERVICE_COMMAND =
    "Start tarnd with cmd: <P> --cfs <P> --user <N> --cache \"<P>\" --addr <P> --confaddr <P> "
    "--tn-devid <N> --da-devid <N> --access-token <S> --logfile \"<P>\" --vfs<S>";

template <size_t N>
bool has(const std::array<std::string_view, N>& texts, std::string_view text) {
  return std::find(texts.begin(), texts.end(), text) != texts.end();
}

std::string lower_case(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  return lower;
}

bool is_known_word(std::string_view word) {
  static const std::unordered_set<std::string_view> KNOWN(LOG_WORDS.begin(), LOG_WORDS.end());
  return word.empty() || KNOWN.contains(word) || has(SERVICE_WORDS, word);
}

const std::vector<TextPattern>& other_texts() {
  static const std::vector<TextPattern> PATTERNS = [] {
    std::vector<TextPattern> all = {header_pattern(), TextPattern(SERVICE_COMMAND)};
    for (const std::string_view text : LOG_TEXTS) {
      all.emplace_back(text);
    }
    return all;
  }();
  return PATTERNS;
}

bool is_uuid(std::string_view text) {
  static const TextPattern UUID("<m>");
  Match match;
  return UUID.match(text, &match);
}

bool is_drive_letter(std::string_view text) {
  const char letter = text.empty() ? '\0' : lower_case(text.substr(0, 1))[0];
  return text.size() == 2 && text[1] == ':' && letter >= 'a' && letter <= 'z';
}

/* Puts back the end of a client's line that was cut off. Without it the line could not be read. */
std::string whole_line(std::string copy, const LogLine& line) {
  const bool lacks_end = line.is_cut && line.kind != LineKind::EVENT && copy.front() == '{';
  return lacks_end && !copy.ends_with("\"}") ? copy + "\"}" : copy;
}

}  // namespace

size_t Pseudonyms::number_of(char kind, std::string_view text) {
  return numbers_.try_emplace(kind + lower_case(text), numbers_.size() + 1).first->second;
}

std::string Pseudonyms::of_name(std::string_view name) {
  if (has(NO_NAMES, name)) {
    return std::string(name);
  }
  if (is_uuid(name)) {
    const bool is_nil = name.find_first_not_of("0-") == std::string_view::npos;
    return fmt::format("00000000-0000-0000-0000-{:012x}", is_nil ? 0 : number_of('n', name));
  }
  if (const size_t at = name.find('@'); at != std::string_view::npos) {
    return of_name(name.substr(0, at)) + '@' + of_name(name.substr(at + 1));
  }
  const size_t dot = name.rfind('.');
  const std::string extension =
      dot != std::string_view::npos ? lower_case(name.substr(dot + 1)) : "";
  return fmt::format("n{}{}{}", number_of('n', name), has(EXTENSIONS, extension) ? "." : "",
                     has(EXTENSIONS, extension) ? extension : "");
}

std::string Pseudonyms::of_path(std::string_view path) {
  std::string result;
  for (;;) {
    const size_t end = path.find_first_of("/\\");
    const std::string_view name = path.substr(0, end);
    result += is_drive_letter(name) || has(SCHEMES, name) ? std::string(name) : of_name(name);
    if (end == std::string_view::npos) {
      return result;
    }
    result += path[end];
    path.remove_prefix(end + 1);
  }
}

std::string Pseudonyms::of_owner(std::string_view number) {
  return number == "0" ? "0" : std::to_string(number_of('o', number));
}

std::optional<std::string> Redactor::redact(std::string_view text) {
  const LogLine& line = parser_.parse(text);
  switch (line.kind) {
    case LineKind::EMPTY:
      return std::string();
    case LineKind::DUMPED_REQUEST: /* it binds the request's line to its id */
      return fmt::format("{}\n{}\n{}", DUMP_BEGIN, line.row, DUMP_END);
    case LineKind::DUMP: /* names, tokens and passwords */
      dump_rows_++;
      return std::nullopt;
    case LineKind::UNREADABLE:
      left_out_++;
      return std::nullopt;
    default:
      return whole_line(written(line.prefix, text_of(line)), line);
  }
}

std::string Redactor::text_of(const LogLine& line) {
  std::string text = known_text_of(line);
  if (text.empty()) {
    without_text_++;
    text = line.kind == LineKind::EVENT ? fmt::format(", \"vfs_args\":\"{}\"}}", REMOVED) : REMOVED;
  }
  return text;
}

std::string Redactor::known_text_of(const LogLine& line) {
  if (line.operation != NO_OPERATION) {
    const Operation& operation = operations()[line.operation];
    const TextPattern& pattern =
        line.kind == LineKind::EVENT ? operation.event_arguments : operation.request;
    return pattern.match(line.text, &match_, line.is_cut) ? written(match_) : "";
  }
  for (const TextPattern& pattern : other_texts()) {
    if (pattern.match(line.text, &match_)) {
      return written(match_);
    }
  }
  return "";
}

std::string Redactor::written(const Match& match, const std::string& text) {
  std::string result;
  const char* at = match.text.data();
  for (const Value& value : match.values) {
    result.append(at, value.text.data());
    result += value.name == "text" ? text : redacted(value);
    at = value.text.data() + value.text.size();
  }
  return result.append(at, match.text.data() + match.text.size());
}

std::string Redactor::redacted(const Value& value) {
  switch (value.kind) {
    case Kind::WORD:
      return is_known_word(value.text) ? std::string(value.text) : pseudonyms_.of_name(value.text);
    case Kind::TEXT_VALUE:
      return is_known_word(value.text) ? std::string(value.text) : pseudonyms_.of_path(value.text);
    case Kind::NAME:
      return pseudonyms_.of_name(value.text);
    case Kind::PATH:
    case Kind::FIRST_PATH:
      return pseudonyms_.of_path(value.text);
    case Kind::OWNER:
      return pseudonyms_.of_owner(value.text);
    case Kind::SECRET:
    case Kind::REST:
      return REMOVED;
    default:
      return std::string(value.text);
  }
}

void write_redacted(const std::vector<std::string>& files, const std::string& copy,
                    Redactor* redactor) {
  if (std::filesystem::exists(path_of(copy))) {
    throw std::runtime_error(copy + ": is there already");
  }
  NewFile file(copy);
  read_lines(files, [&](std::string_view line) {
    if (const auto redacted = redactor->redact(line)) {
      file.stream() << *redacted << '\n';
    }
  });
  file.commit();
}

}  // namespace tnwlog
