/*
 * What a client sends, as the service reads it: a header, the rest, then its trailing texts, which
 * are traced and made into paths. What is secret is gone afterwards.
 */
#include "fuzz.h"
#include "names/share_path.h"
#include "ox_logging.h"
#include "protocol/request.h"
#include "tnv_log.h"

using namespace tarnd;

namespace {

/* The texts behind a request, whose lengths its payload begins with; an open's come behind a
 * number. */
bool take_texts(const Request& request, std::vector<std::string>* texts) {
  const auto& m = request->u.wsetproxy;
  switch (request->hdr.hdr_opcode) {
    case TNV_OP_WIN_OPEN:
      return request.texts({int64_t{request->u.wopen.wopen_pathlen} - 1}, texts);
    case TNV_OP_WIN_RENAME:
      return request.texts({m.wproxy_server_len, m.wproxy_uname_len}, texts);
    case TNV_OP_WIN_SETPROXY:
      return request.texts({m.wproxy_server_len, m.wproxy_uname_len, m.wproxy_passwd_len}, texts);
    default:
      return request.texts({m.wproxy_server_len}, texts);
  }
}

void read_texts(const Request& request) {
  std::vector<std::string> texts;
  const bool fit = take_texts(request, &texts);
  size_t size = TNV_MSG_FIXED;
  for (const std::string& text : texts) {
    size += text.size() + 1;
    require(text.find('\0') == std::string::npos);
    std::string path;
    std::string again;
    if (normalise_share_path("share", text, &path) == 0) {
      require(path.starts_with("share") && normalise_share_path("", path, &again) == 0);
    }
  }
  require(fit ? size == request->hdr.hdr_len : size <= request->hdr.hdr_len);
}

void trace(const Request& request) {
  vfs_handle vh = {};
  vh.vfs_utxid = 7;
  tnv_resp response = {};
  response.rhdr.rhdr_opcode = request->hdr.hdr_opcode;
  tnv_log_msg(&vh, request.msg());
  tnv_log_resp(&vh, request.msg(), &response);
}

/* A token is all of the texts; a proxy's password is the last of three. */
void wipe(const Request& request) {
  std::vector<std::string> texts;
  if (request.has_secret() && take_texts(request, &texts)) {
    request.wipe_secret();
    const size_t secret = texts.back().size();
    const char* end = reinterpret_cast<const char*>(request.msg()) + request->hdr.hdr_len;
    require(std::all_of(end - 1 - secret, end, [](char c) { return c == '\0'; }));
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ox_debug = 3;
  std::string_view rest = text_of(data, size);
  const auto take = [&rest](void* to, size_t count) {
    const size_t taken = rest.copy(static_cast<char*>(to), count);
    rest.remove_prefix(taken);
    return taken == count;
  };
  std::vector<uint64_t> storage;
  Request request(&storage);
  request.clear();
  while (take(request.msg(), sizeof(tnv_msghdr)) && request.make_room() &&
         take(request.rest(), request.rest_size())) {
    read_texts(request);
    trace(request);
    wipe(request);
    request.clear();
  }
  return 0;
}
