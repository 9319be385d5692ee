#include "log_line.h"

#include <algorithm>
#include <charconv>
#include <chrono>

#include "ox_logging.h"
#include "tnv_proto.h"
#include "tools/common/uuid_text.h"

namespace tnwlog {
namespace {

/* The log cuts lines that are longer. */
constexpr size_t LONGEST_LINE = OX_LOG_LINE_SIZE - 1;
/* Every request is shorter, also one with three long texts. */
constexpr ox_u32 LONGEST_REQUEST = 1 << 16;

#define COMMON R"({"asctime":"<t:time>", "level":"<w>", "filename":"<w>", "line":<d>, )"
#define CONNECTION                                                                         \
  R"("vfs_server_handle":"<h:handle>", "vfs_socket_fd":<d:socket>, "remote_host":"<N>", )" \
  R"("vfs_user":"<N>", "vfs_share_path":"<p>", "vfs_peer_handle":"<h>", )"                 \
  R"("vfs_peer_thread":"0x<d>", "vfs_da_device_id":"<N>", )"

const TextPattern& event_pattern() {
  static const TextPattern PATTERN(
      COMMON CONNECTION
      R"(<[>"vfs_msg_id":"<m:id>", <]><[>"vfs_drive_id":"<N>", "vfs_proc_name":"<N:process>", <]>)"
      R"("vfs_response_time":<d:micros>, <[>"utxid":<d:utxid>, <]>"vfs_event_name":"<w:event>", )"
      R"(<[>"retval":<d>, <]>"vfs_errno":<d:errno><R:text>)");
  return PATTERN;
}

const TextPattern& client_pattern() {
  static const TextPattern PATTERN(
      COMMON
      R"(<[>"errno":<d>, <]><[>"alert_level":<d>, "alert_reason":"<S>", "alert_ticket":<w>, <]>)"
      R"(<[>)" CONNECTION R"(<]>"message":"<P:text>"})");
  return PATTERN;
}

/* Lines of the portability layer: the level, with its number where it has one, and the position. */
const TextPattern& layer_pattern() {
  static const TextPattern PATTERN("[<t:time> <d>] <[><l><_><w>:<d> <]><R:text>");
  return PATTERN;
}

bool is_hex_row(std::string_view line) {
  return line.size() >= 2 && line.find_first_not_of("0123456789abcdef ") == std::string_view::npos;
}

bool is_dump(std::string_view line) {
  return line == DUMP_BEGIN || line == DUMP_END || line.front() == ' ' || is_hex_row(line);
}

/* The next byte of a dump's row. Those above 0x7f have eight digits. */
std::optional<ox_u8> take_byte(std::string_view* row) {
  row->remove_prefix(std::min(row->find_first_not_of(' '), row->size()));
  if (row->starts_with("ffffff")) {
    row->remove_prefix(6);
  }
  ox_u8 byte = 0;
  const auto result =
      std::from_chars(row->data(), row->data() + std::min<size_t>(row->size(), 2), byte, 16);
  if (result.ec != std::errc() || result.ptr != row->data() + 2) {
    return std::nullopt;
  }
  row->remove_prefix(2);
  return byte;
}

ox_u32 number_at(const ox_u8* bytes) {
  return bytes[0] | ox_u32{bytes[1]} << 8 | ox_u32{bytes[2]} << 16 | ox_u32{bytes[3]} << 24;
}

/* The part of a message that this program looks at: operation, length and id. */
using MessageBegin = std::array<ox_u8, offsetof(tnv_msghdr, hdr_id) + OX_UUID_SIZE>;

bool begins_request(const MessageBegin& bytes) {
  const ox_u32 length = number_at(&bytes[offsetof(tnv_msghdr, hdr_len)]);
  return number_at(&bytes[offsetof(tnv_msghdr, hdr_opcode)]) < TNV_OP_MAX &&
         length >= TNV_MSG_FIXED && length <= LONGEST_REQUEST;
}

}  // namespace

const TextPattern& header_pattern() {
  static const TextPattern PATTERN("id <m:id>, opcode <d:opcode>, len <d>, errno <d:errno>");
  return PATTERN;
}

const LogLine& LineParser::parse(std::string_view line) {
  const bool is_first_row = is_behind_begin_;
  is_behind_begin_ = line == DUMP_BEGIN;
  line_.kind = LineKind::UNREADABLE;
  line_.operation = NO_OPERATION;
  line_.prefix.values.clear();
  line_.text = {};
  line_.is_cut = line.size() >= LONGEST_LINE;
  if (line.empty()) {
    line_.kind = LineKind::EMPTY;
  } else if (line.front() == '{') {
    parse_client_line(line);
  } else if (line.front() == '[') {
    parse_layer_line(line);
  } else if (is_dump(line)) {
    parse_dump(line, is_first_row);
  }
  return line_;
}

void LineParser::parse_client_line(std::string_view line) {
  if (!parse_event(line) && client_pattern().match(line, &line_.prefix, line_.is_cut)) {
    line_.text = line_.prefix["text"];
    line_.kind = kind_of_text();
  }
}

bool LineParser::parse_event(std::string_view line) {
  if (line.find("\"vfs_event_name\":\"") == std::string_view::npos ||
      !event_pattern().match(line, &line_.prefix)) {
    return false;
  }
  line_.text = line_.prefix["text"];
  line_.operation = operation_of_event(line_.prefix["event"]);
  line_.kind = line_.operation != NO_OPERATION ? LineKind::EVENT : LineKind::UNREADABLE;
  return true;
}

void LineParser::parse_layer_line(std::string_view line) {
  if (layer_pattern().match(line, &line_.prefix)) {
    line_.text = line_.prefix["text"];
    line_.kind = kind_of_text();
  }
}

LineKind LineParser::kind_of_text() {
  line_.operation = operation_of_request(line_.text);
  if (line_.operation != NO_OPERATION) {
    return LineKind::REQUEST;
  }
  const bool is_header =
      line_.text.starts_with("id ") && header_pattern().match(line_.text, &header_);
  return is_header ? LineKind::HEADER : LineKind::OTHER_TEXT;
}

void LineParser::parse_dump(std::string_view line, bool is_first_row) {
  line_.kind = LineKind::DUMP;
  if (!is_first_row) {
    return;
  }
  MessageBegin bytes;
  std::string_view rest = line;
  for (ox_u8& byte : bytes) {
    const std::optional<ox_u8> taken = take_byte(&rest);
    if (!taken) {
      return;
    }
    byte = *taken;
  }
  if (begins_request(bytes)) {
    line_.kind = LineKind::DUMPED_REQUEST;
    line_.operation = number_at(&bytes[offsetof(tnv_msghdr, hdr_opcode)]);
    line_.id = request_id_of(tools::uuid_text(&bytes[offsetof(tnv_msghdr, hdr_id)]));
    line_.row = line.substr(0, line.size() - rest.size());
  }
}

std::optional<uint64_t> number_of(const Match& match, std::string_view name) {
  const std::string_view text = match[name];
  uint64_t number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  if (result.ec != std::errc() || result.ptr != text.data() + text.size()) {
    return std::nullopt;
  }
  return number;
}

int64_t time_of(const Match& prefix) {
  const std::string_view text = prefix["time"];
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
  const auto time = day + std::chrono::hours(field(11, 2)) + std::chrono::minutes(field(14, 2)) +
                    std::chrono::seconds(field(17, 2)) + std::chrono::milliseconds(field(20, 3));
  return time.time_since_epoch().count();
}

RequestId request_id_of(std::string_view text) {
  RequestId id;
  std::transform(text.begin(), text.begin() + id.size(), id.begin(), [](char c) {
    return c >= 'A' && c <= 'F' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  return id;
}

}  // namespace tnwlog
