#include "redactor.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

namespace tnwlog {
namespace {

constexpr std::string_view kRemoved = "[removed]";

/* What the library itself puts in a name's or path's place. */
constexpr std::array<std::string_view, 6> kNoNames = {"", ".", "..", "*", "(null)", "[unknown]"};
constexpr std::array<std::string_view, 3> kSchemes = {"file:", "http:", "https:"};

/* Extensions that tell the kind of a file and nothing of its owner. */
constexpr std::array<std::string_view, 44> kExtensions = {
    "7z",   "ai",   "avi",  "bak", "bin", "bmp", "cpp", "csv", "dat",  "db",   "dll",
    "doc",  "docx", "dwg",  "eml", "exe", "gif", "gz",  "h",   "htm",  "html", "ini",
    "jpeg", "jpg",  "json", "lnk", "log", "md",  "mov", "mp3", "mp4",  "msg",  "pdf",
    "png",  "ppt",  "pptx", "psd", "rtf", "tmp", "txt", "xls", "xlsx", "xml",  "zip"};

template <size_t N>
bool Has(const std::array<std::string_view, N>& texts, std::string_view text) {
  return std::find(texts.begin(), texts.end(), text) != texts.end();
}

std::string LowerCase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  return lower;
}

bool IsUuid(std::string_view text) {
  static const TextPattern uuid("<m>");
  Pieces pieces;
  return uuid.Match(text, &pieces);
}

bool IsDriveLetter(std::string_view text) {
  const char letter = text.empty() ? '\0' : LowerCase(text.substr(0, 1))[0];
  return text.size() == 2 && text[1] == ':' && letter >= 'a' && letter <= 'z';
}

}  // namespace

size_t Pseudonyms::NumberOf(char kind, std::string_view text) {
  return numbers_.try_emplace(kind + LowerCase(text), numbers_.size() + 1).first->second;
}

std::string Pseudonyms::OfName(std::string_view name) {
  if (Has(kNoNames, name)) {
    return std::string(name);
  }
  if (IsUuid(name)) {
    const bool is_nil = name.find_first_not_of("0-") == std::string_view::npos;
    return fmt::format("00000000-0000-0000-0000-{:012x}", is_nil ? 0 : NumberOf('n', name));
  }
  if (const size_t at = name.find('@'); at != std::string_view::npos) {
    return OfName(name.substr(0, at)) + '@' + OfName(name.substr(at + 1));
  }
  const size_t dot = name.rfind('.');
  const std::string extension =
      dot != std::string_view::npos ? LowerCase(name.substr(dot + 1)) : "";
  return fmt::format("n{}{}{}", NumberOf('n', name), Has(kExtensions, extension) ? "." : "",
                     Has(kExtensions, extension) ? extension : "");
}

std::string Pseudonyms::OfPath(std::string_view path) {
  std::string result;
  for (;;) {
    const size_t end = path.find_first_of("/\\");
    const std::string_view name = path.substr(0, end);
    result += IsDriveLetter(name) || Has(kSchemes, name) ? std::string(name) : OfName(name);
    if (end == std::string_view::npos) {
      return result;
    }
    result += path[end];
    path.remove_prefix(end + 1);
  }
}

std::string Pseudonyms::OfOwner(std::string_view number) {
  return number == "0" ? "0" : std::to_string(NumberOf('o', number));
}

std::optional<std::string> Redactor::Line(std::string_view line) {
  ParseLine(line, &line_);
  switch (line_.kind) {
    case LineKind::kEmpty:
      return std::string();
    case LineKind::kDump:
      return DumpRow(line);
    case LineKind::kUnreadable:
      left_out_++;
      return std::nullopt;
    case LineKind::kEvent:
      return Written(line_.pieces) + EventArguments(line_);
    default:
      return Written(line_.pieces) + Text(line_) + (line.front() == '{' ? "\"}" : "");
  }
}

std::string Redactor::Written(const Pieces& pieces) {
  std::string text;
  for (const Piece& piece : pieces) {
    switch (piece.kind) {
      case Kind::kName:
        text += pseudonyms_.OfName(piece.text);
        break;
      case Kind::kPath:
      case Kind::kFirstPath:
        text += pseudonyms_.OfPath(piece.text);
        break;
      case Kind::kOwner:
        text += pseudonyms_.OfOwner(piece.text);
        break;
      case Kind::kSecret:
      case Kind::kRest:
        text += kRemoved;
        break;
      default:
        text += piece.text;
    }
  }
  return text;
}

std::string Redactor::Text(const LogLine& line) {
  if (line.kind == LineKind::kRequest &&
      Operations()[line.operation].request.Match(line.text, &pieces_, line.is_cut)) {
    return Written(pieces_);
  }
  for (const TextPattern& pattern : OtherTexts()) {
    if (pattern.Match(line.text, &pieces_)) {
      return Written(pieces_);
    }
  }
  without_text_++;
  return std::string(kRemoved);
}

std::string Redactor::EventArguments(const LogLine& line) {
  if (Operations()[line.operation].event_arguments.Match(line.text, &pieces_, line.is_cut)) {
    return Written(pieces_);
  }
  without_text_++;
  return fmt::format(", \"vfs_args\":\"{}\"}}", kRemoved);
}

/* Dumps hold names, tokens and passwords. What binds a request's line to its id is kept. */
std::optional<std::string> Redactor::DumpRow(std::string_view row) {
  const std::optional<DumpedRequest> request = DumpedRequestOf(row);
  if (!request) {
    dump_rows_++;
    return std::nullopt;
  }
  return fmt::format("{}\n{}\n{}", kDumpBegin, DumpRowOf(*request), kDumpEnd);
}

}  // namespace tnwlog
