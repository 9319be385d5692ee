#include "log_line.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <chrono>

namespace tnwlog {
namespace {

/* A longer line is cut. */
constexpr size_t kLongestLine = 4095;

#define COMMON R"({"asctime":"<t:time>", "level":"<w:level>", "filename":"<w>", "line":<d>, )"
#define CONNECTION                                                           \
  R"("vfs_server_handle":"<h>", "vfs_socket_fd":<d>, "remote_host":"<N>", )" \
  R"("vfs_user":"<N>", "vfs_share_path":"<p>", "vfs_peer_handle":"<h>", )"   \
  R"("vfs_peer_thread":"0x<d>", "vfs_da_device_id":"<N>", )"

const TextPattern& EventPattern() {
  static const TextPattern pattern(
      COMMON CONNECTION
      R"(<[>"vfs_msg_id":"<m:id>", <]><[>"vfs_drive_id":"<N>", "vfs_proc_name":"<N:process>", <]>)"
      R"("vfs_response_time":<d:micros>, <[>"utxid":<d:utxid>, <]>"vfs_event_name":"<w:event>", )"
      R"(<[>"retval":<d>, <]>"vfs_errno":<d:errno><R:text>)");
  return pattern;
}

const TextPattern& ClientPattern() {
  static const TextPattern pattern(
      COMMON
      R"(<[>"errno":<d>, <]><[>"alert_level":<d>, "alert_reason":"<S>", "alert_ticket":<w>, <]>)"
      R"(<[>)" CONNECTION R"(<]>"message":"<R:text>)");
  return pattern;
}

/* Lines of the portability layer, by how they show their level. */
const std::vector<TextPattern>& LayerPatterns() {
  static const std::vector<TextPattern> patterns = {
      TextPattern("[<t:time> <d>] ERR:<d><_><w>:<d> <R:text>"),
      TextPattern("[<t:time> <d>] FATAL   <d>:<_><w>:<d> <R:text>"),
      TextPattern("[<t:time> <d>] TODO    <d>:<_><w>:<d> <R:text>"),
      TextPattern("[<t:time> <d>] <w:level> <_><w>:<d> <R:text>"),
      TextPattern("[<t:time> <d>] <_><w>:<d> <R:text>"),
      TextPattern("[<t:time> <d>] <R:text>"),
  };
  return patterns;
}

const TextPattern& HeaderPattern() { return OtherTexts().front(); }

void SplitText(LogLine* parsed) {
  parsed->text = parsed->pieces.back().text;
  parsed->pieces.pop_back();
}

LineKind KindOfText(LogLine* parsed) {
  parsed->operation = OperationOfRequest(parsed->text);
  if (parsed->operation != kNoOperation) {
    return LineKind::kRequest;
  }
  thread_local Pieces pieces;
  if (parsed->text.starts_with("id ") && HeaderPattern().Match(parsed->text, &pieces)) {
    return LineKind::kHeader;
  }
  return LineKind::kText;
}

bool ParseEvent(std::string_view line, LogLine* parsed) {
  if (line.find("\"vfs_event_name\":\"") == std::string_view::npos ||
      !EventPattern().Match(line, &parsed->pieces)) {
    return false;
  }
  SplitText(parsed);
  parsed->operation = OperationOfEvent(ValueOf(parsed->pieces, "event"));
  parsed->kind = parsed->operation != kNoOperation ? LineKind::kEvent : LineKind::kUnreadable;
  return true;
}

void ParseClientLine(std::string_view line, LogLine* parsed) {
  if (ParseEvent(line, parsed) || !ClientPattern().Match(line, &parsed->pieces)) {
    return;
  }
  SplitText(parsed);
  if (parsed->text.ends_with("\"}")) {
    parsed->text.remove_suffix(2);
  } else if (!parsed->is_cut) {
    return;
  }
  parsed->kind = KindOfText(parsed);
}

void ParseLayerLine(std::string_view line, LogLine* parsed) {
  for (const TextPattern& pattern : LayerPatterns()) {
    if (pattern.Match(line, &parsed->pieces)) {
      SplitText(parsed);
      parsed->kind = KindOfText(parsed);
      return;
    }
  }
}

bool IsHexRow(std::string_view line) {
  return line.size() >= 2 && std::all_of(line.begin(), line.end(), [](char c) {
           return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || c == ' ';
         });
}

bool IsDump(std::string_view line) {
  return line == kDumpBegin || line == kDumpEnd || line.front() == ' ' || IsHexRow(line);
}

int HexDigit(char c) { return c <= '9' ? c - '0' : c - 'a' + 10; }

/* The next byte of a dump's row. Those above 0x7f have eight digits. */
std::optional<uint8_t> TakeByte(std::string_view* row) {
  row->remove_prefix(std::min(row->find_first_not_of(' '), row->size()));
  if (row->starts_with("ffffff")) {
    row->remove_prefix(6);
  }
  if (row->size() < 2) {
    return std::nullopt;
  }
  const int byte = HexDigit((*row)[0]) * 16 + HexDigit((*row)[1]);
  row->remove_prefix(2);
  return static_cast<uint8_t>(byte);
}

uint32_t NumberAt(const uint8_t* bytes) {
  return bytes[0] | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 | uint32_t{bytes[3]} << 24;
}

/* Ids are stored with their first three groups turned round. */
constexpr std::array<int, 16> kByteOrder = {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};

RequestId IdFromBytes(const uint8_t* bytes) {
  std::string text;
  for (size_t i = 0; i < kByteOrder.size(); i++) {
    text += fmt::format("{}{:02x}", i == 4 || i == 6 || i == 8 || i == 10 ? "-" : "",
                        bytes[kByteOrder[i]]);
  }
  return RequestIdOf(text);
}

std::array<uint8_t, 16> BytesFromId(const RequestId& id) {
  std::array<uint8_t, 16> bytes;
  size_t at = 0;
  for (const int place : kByteOrder) {
    at += id[at] == '-' ? 1 : 0;
    bytes[static_cast<size_t>(place)] =
        static_cast<uint8_t>(HexDigit(id[at]) * 16 + HexDigit(id[at + 1]));
    at += 2;
  }
  return bytes;
}

/* Requests have a fixed part of this size, and at most three texts behind it. */
constexpr uint32_t kShortestRequest = 504;
constexpr uint32_t kLongestRequest = 1 << 16;

}  // namespace

void ParseLine(std::string_view line, LogLine* parsed) {
  parsed->kind = LineKind::kUnreadable;
  parsed->operation = kNoOperation;
  parsed->pieces.clear();
  parsed->text = {};
  parsed->is_cut = line.size() >= kLongestLine;
  if (line.empty()) {
    parsed->kind = LineKind::kEmpty;
  } else if (line.front() == '{') {
    ParseClientLine(line, parsed);
  } else if (line.front() == '[') {
    ParseLayerLine(line, parsed);
  } else if (IsDump(line)) {
    parsed->kind = LineKind::kDump;
  }
}

std::optional<uint64_t> NumberOf(const Pieces& pieces, std::string_view name) {
  const std::string_view text = ValueOf(pieces, name);
  uint64_t number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  if (result.ec != std::errc() || result.ptr != text.data() + text.size()) {
    return std::nullopt;
  }
  return number;
}

int64_t TimeOf(const Pieces& pieces) {
  const std::string_view text = ValueOf(pieces, "time");
  if (text.empty()) {
    return -1;
  }
  const auto field = [text](size_t at, size_t length) {
    unsigned value = 0;
    std::from_chars(text.data() + at, text.data() + at + length, value);
    return value;
  };
  const std::chrono::sys_days day = std::chrono::year(static_cast<int>(field(0, 4))) /
                                    std::chrono::month(field(5, 2)) / std::chrono::day(field(8, 2));
  const int64_t seconds = int64_t{day.time_since_epoch().count()} * 86400 + field(11, 2) * 3600 +
                          field(14, 2) * 60 + field(17, 2);
  return seconds * 1000 + field(20, 3);
}

RequestId RequestIdOf(std::string_view text) {
  RequestId id;
  std::transform(text.begin(), text.begin() + id.size(), id.begin(), [](char c) {
    return c >= 'A' && c <= 'F' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  return id;
}

std::optional<DumpedRequest> DumpedRequestOf(std::string_view row) {
  if (row.size() < 9 || row[0] > '1' || row.substr(2, 7) != "000000 " || !IsHexRow(row)) {
    return std::nullopt; /* as nearly all rows; the operation is below 0x20 */
  }
  std::array<uint8_t, 24> bytes;
  for (uint8_t& byte : bytes) {
    const std::optional<uint8_t> taken = TakeByte(&row);
    if (!taken) {
      return std::nullopt;
    }
    byte = *taken;
  }
  const DumpedRequest request = {NumberAt(&bytes[0]), NumberAt(&bytes[4]), IdFromBytes(&bytes[8])};
  const bool plausible = request.operation < kServiceOperations &&
                         request.length >= kShortestRequest && request.length <= kLongestRequest;
  return plausible ? std::optional(request) : std::nullopt;
}

std::string DumpRowOf(const DumpedRequest& request) {
  std::array<uint8_t, 24> bytes = {};
  for (int i = 0; i < 4; i++) {
    bytes[static_cast<size_t>(i)] = static_cast<uint8_t>(request.operation >> (8 * i));
    bytes[static_cast<size_t>(i + 4)] = static_cast<uint8_t>(request.length >> (8 * i));
  }
  const std::array<uint8_t, 16> id = BytesFromId(request.id);
  std::copy(id.begin(), id.end(), bytes.begin() + 8);
  std::string row;
  for (size_t i = 0; i < bytes.size(); i++) {
    row += fmt::format("{}{}{:02x}", i > 0 && i % 4 == 0 ? " " : "",
                       bytes[i] > 0x7f ? "ffffff" : "", bytes[i]);
  }
  return row;
}

}  // namespace tnwlog
