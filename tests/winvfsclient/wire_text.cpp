#include "wire_text.h"

#include <algorithm>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include "script.h"

namespace {

const std::string FSO =
    "id:16h folder:16h version:16h folder_version:16h isdir:4 state:4 folder_state:4 pad:4 "
    "seqno:8 ";
const std::string OPENED_BY = "opened_by:16m " + FSO;
const std::string CLOSED =
    "fd:4 pid:4 file:16h " + FSO + "access:4 share:4 flags:4 tnflags:4 opened_by:16m";
const std::string FILEINFO =
    "attr:4 pad:4 ctime:8 atime:8 mtime:8 size:8 locked:1 id:37s collab:512s name:245s "
    "checksum:256s pad2:5h owner:8 owner_name:64s";

const WireOperation OPERATIONS[] = {
    {"CONNECT", "sharelen:4 thread:4 device:37s host:128s cache:128s user:128s",
     "handle:8 thread:8 status:128h id:16h"},
    {"DISCONNECT", "", ""},
    {"OPEN", "fd:4 len:4 pid:4 share:4 access:4 disposition:4 flags:4 client:4",
     "shift:4 pad:4 rmap_size:8 dmap_size:8 tnflags:4 pad2:4 " + FSO +
         "handle:8 status:24h size:8 status2:96h"},
    {"DENUM", "len:4", FSO + "count:8"},
    {"STAT", "len:4", FILEINFO},
    {"CLOSE", CLOSED, ""},
    {"RENAME", "from:4 to:4", ""},
    {"CANDELETE", "len:4", "may:1"},
    {"DELETE", "len:4", ""},
    {"BRL", "kind:4 pid:4 fd:4 pad:4 off:8 len:8 " + FSO + "file:16h", ""},
    {"CLEANUP", CLOSED, ""},
    {"SETPROXY", "server:4 user:4 password:4", ""},
    {"CACHE_REGION", "truncates:1 pad:7h off:8 len:8 " + OPENED_BY,
     "start:8 cached:8 size:8 clear:1 pad:7h"},
    {"DIRTY_REGION", "off:8 len:8 " + OPENED_BY, "clear:1"},
    {"FTRUNCATE", "size:8 " + OPENED_BY, ""},
    {"UPDATETOKEN", "len:4", ""},
    {"GET_VERSION", "", ""},
    {"SHUTDOWN", "", ""},
};

struct Field {
  std::string name;
  size_t at;
  size_t size;
  char kind; /* 'n' for a number */
};

std::vector<Field> fields_of(const std::string& layout) {
  std::vector<Field> fields;
  size_t at = 0;
  std::istringstream words(layout);
  for (std::string word; words >> word;) {
    const size_t colon = word.find(':');
    const size_t size = std::stoul(word.substr(colon + 1));
    const char last = word.back();
    fields.push_back({word.substr(0, colon), at, size, isdigit(last) != 0 ? 'n' : last});
    at += size;
  }
  return fields;
}

size_t layout_size(const std::string& layout) {
  const std::vector<Field> fields = fields_of(layout);
  return fields.empty() ? 0 : fields.back().at + fields.back().size;
}

std::string value_text(const Field& field, const ox_u8* bytes) {
  if (field.kind == 'n') {
    ox_u64 number = 0;
    memcpy(&number, bytes, field.size);
    return std::to_string(number);
  }
  if (field.kind == 's') {
    const auto* text = reinterpret_cast<const char*>(bytes);
    return as_word({text, strnlen(text, field.size)});
  }
  size_t size = field.size;
  while (field.kind == 'h' && bytes[size - 1] == 0) {
    size--;
  }
  return hex_text(bytes, size);
}

}  // namespace

std::string hex_text(const ox_u8* bytes, size_t size) {
  std::string text;
  for (size_t i = 0; i < size; i++) {
    char digits[3];
    snprintf(digits, sizeof digits, "%02x", bytes[i]);
    text += digits;
  }
  return text;
}

const WireOperation& wire_operation(ox_u32 opcode) { return OPERATIONS[opcode]; }

ox_u32 wire_opcode(const std::string& name) {
  for (ox_u32 opcode = 0; opcode < std::size(OPERATIONS); opcode++) {
    if (OPERATIONS[opcode].name == name) {
      return opcode;
    }
  }
  throw std::runtime_error("no operation " + name);
}

std::string fields_text(const std::string& layout, const Bytes& record) {
  std::string text;
  const auto is_zero = [&](size_t from, size_t to) {
    const auto* bytes = record.data();
    return std::all_of(bytes + from, bytes + to, [](ox_u8 byte) { return byte == 0; });
  };
  for (const Field& field : fields_of(layout)) {
    if (!is_zero(field.at, field.at + field.size)) {
      text += ' ' + field.name + '=' + value_text(field, record.data() + field.at);
    }
  }
  const size_t end = layout_size(layout);
  return is_zero(end, record.size())
             ? text
             : text + " behind=" + hex_text(record.data() + end, record.size() - end);
}

bool put_fields(const std::string& layout, const std::map<std::string, std::string>& fields,
                void* record) {
  bool has_one = false;
  for (const Field& field : fields_of(layout)) {
    const auto value = fields.find(field.name);
    if (value == fields.end()) {
      continue;
    }
    has_one = true;
    char* const at = static_cast<char*>(record) + field.at;
    memset(at, 0, field.size);
    if (field.kind == 's') {
      value->second.copy(at, field.size);
    } else {
      const ox_u64 number = std::stoull(value->second, nullptr, 0);
      memcpy(at, &number, std::min(field.size, sizeof number));
    }
  }
  return has_one;
}

Bytes answer_record(ox_u32 opcode, const std::map<std::string, std::string>& fields) {
  const std::string& layout = wire_operation(opcode).response;
  Bytes record(layout_size(layout));
  return put_fields(layout, fields, record.data()) ? record : Bytes();
}

std::string request_text(const PeerRequest& request) {
  const auto header = request.bytes.begin() + 8, body = request.bytes.begin() + sizeof(tnv_msghdr);
  const auto texts = request.bytes.begin() + TNV_MSG_FIXED;
  const WireOperation& operation = wire_operation(request.opcode());
  const size_t msgid = sizeof(tnv_msgid_t); /* a new one in each request */
  std::string text = operation.name;
  text += fields_text("drive:16h proc:32s", Bytes(header + msgid, body));
  text += fields_text(operation.request, Bytes(body, texts));
  return texts == request.bytes.end()
             ? text
             : text + ' ' + as_word(std::string(texts, request.bytes.end()));
}

std::string fileinfo_text(const tnw_fileinfo& info) {
  return fields_text(FILEINFO, bytes_of(info));
}
