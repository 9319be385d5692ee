#include "protocol/request.h"

#include <algorithm>
#include <cstring>

namespace tarnd {
namespace {

size_t words_for(size_t bytes) { return (bytes + sizeof(uint64_t) - 1) / sizeof(uint64_t); }

}  // namespace

void Request::clear() { storage_->assign(words_for(TNV_MSG_FIXED), 0); }

bool Request::make_room() {
  const size_t length = msg()->hdr.hdr_len;
  if (length < TNV_MSG_FIXED || length > MAX_REQUEST) {
    return false;
  }
  storage_->resize(words_for(length));
  return true;
}

bool Request::texts(std::initializer_list<int64_t> lengths, std::vector<std::string>* texts) const {
  const char* next = tnv_msg_payload(msg());
  int64_t left = static_cast<int64_t>(msg()->hdr.hdr_len) - TNV_MSG_FIXED;
  for (const int64_t length : lengths) {
    if (length < 0 || length >= left || next[length] != '\0' ||
        std::memchr(next, '\0', static_cast<size_t>(length)) != nullptr) {
      return false;
    }
    texts->emplace_back(next, static_cast<size_t>(length));
    next += length + 1;
    left -= length + 1;
  }
  return left == 0;
}

bool Request::text(int64_t length, std::string* text) const {
  std::vector<std::string> texts;
  if (!this->texts({length}, &texts)) {
    return false;
  }
  *text = std::move(texts[0]);
  return true;
}

bool Request::has_secret() const {
  const uint32_t opcode = msg()->hdr.hdr_opcode;
  return opcode == TNV_OP_UPDATETOKEN || opcode == TNV_OP_WIN_SETPROXY;
}

void Request::wipe_secret() const {
  char* begin = tnv_msg_payload(msg());
  char* end = begin + (msg()->hdr.hdr_len - TNV_MSG_FIXED);
  /* A proxy's password comes behind its server and user name. */
  for (int kept = msg()->hdr.hdr_opcode == TNV_OP_WIN_SETPROXY ? 2 : 0; kept > 0; kept--) {
    begin = std::find(begin, end, '\0');
    begin += begin != end ? 1 : 0;
  }
  std::fill(begin, end, '\0');
}

}  // namespace tarnd
