#include "access.h"

#include <fmt/format.h>
#include <windows.h>

#include <bcrypt.h>
#include <wincrypt.h>

#include <algorithm>
#include <map>
#include <vector>

#include "md5.h"

namespace tnwdav {
namespace {

constexpr char REALM[] = "tnwdav";

/* Takes as long whatever the texts have in common. */
bool same_secret(std::string_view a, std::string_view b) {
  unsigned difference = a.size() == b.size() ? 0 : 1;
  for (size_t i = 0; i < std::min(a.size(), b.size()); i++) {
    difference |= static_cast<unsigned char>(a[i] ^ b[i]);
  }
  return difference == 0;
}

std::string decode_base64(std::string_view text) {
  std::vector<BYTE> bytes(text.size());
  DWORD size = static_cast<DWORD>(bytes.size());
  if (text.empty() ||
      CryptStringToBinaryA(text.data(), static_cast<DWORD>(text.size()), CRYPT_STRING_BASE64,
                           bytes.data(), &size, nullptr, nullptr) == 0) {
    return {};
  }
  return {reinterpret_cast<const char*>(bytes.data()), size};
}

/* name="value" or name=value, with commas between. */
std::map<std::string, std::string> parse_fields(std::string_view text) {
  std::map<std::string, std::string> fields;
  while (!text.empty()) {
    text.remove_prefix(std::min(text.find_first_not_of(" ,"), text.size()));
    const size_t equals = text.find('=');
    if (equals == std::string_view::npos) {
      break;
    }
    const std::string name(text.substr(0, equals));
    text.remove_prefix(equals + 1);
    const bool quoted = text.starts_with('"');
    const size_t end = std::min(text.find(quoted ? '"' : ',', quoted ? 1 : 0), text.size());
    fields[name] = text.substr(quoted ? 1 : 0, end - (quoted ? 1 : 0));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return fields;
}

}  // namespace

std::string random_password() {
  constexpr std::string_view SIGNS = "abcdefghijkmnpqrstuvwxyz23456789"; /* 32 of them */
  UCHAR bytes[20] = {};
  if (BCryptGenRandom(nullptr, bytes, sizeof bytes, BCRYPT_USE_SYSTEM_PREFERRED_RNG) != 0) {
    throw std::runtime_error("the system gives no random numbers for a password");
  }
  std::string password;
  for (const UCHAR byte : bytes) {
    password += SIGNS[byte % SIGNS.size()];
  }
  return password;
}

Access::Access(uint16_t port, std::string password)
    : port_(std::to_string(port)), password_(std::move(password)), nonce_(random_password()) {}

bool Access::is_own_host(std::string_view host) const {
  return host == "127.0.0.1:" + port_ || host == "localhost:" + port_ || host == "[::1]:" + port_;
}

bool Access::is_basic(std::string_view credentials) const {
  return same_secret(decode_base64(credentials), std::string(USER) + ':' + password_);
}

bool Access::is_digest(std::string_view credentials, const Exchange& exchange) const {
  std::map<std::string, std::string> fields = parse_fields(credentials);
  if (fields["nonce"] != nonce_ || fields["uri"] != exchange.target() || fields["qop"] != "auth") {
    return false;
  }
  const std::string who = md5_text(fmt::format("{}:{}:{}", USER, REALM, password_));
  const std::string what = md5_text(fmt::format("{}:{}", exchange.method(), fields["uri"]));
  return same_secret(fields["response"],
                     md5_text(fmt::format("{}:{}:{}:{}:auth:{}", who, nonce_, fields["nc"],
                                          fields["cnonce"], what)));
}

bool Access::knows_password(const Exchange& exchange) const {
  const std::string_view given = exchange.header("Authorization");
  const std::string_view scheme = given.substr(0, given.find(' '));
  const std::string_view credentials = given.substr(std::min(scheme.size() + 1, given.size()));
  if (boost::beast::iequals(scheme, "Basic")) {
    return is_basic(credentials);
  }
  return boost::beast::iequals(scheme, "Digest") && is_digest(credentials, exchange);
}

bool Access::admit(Exchange& exchange) const {
  constexpr std::string_view SCHEME = "http://";
  if (!is_own_host(exchange.header("Host"))) {
    throw HttpError(Status::misdirected_request, "the request names another host");
  }
  const std::string_view origin = exchange.header("Origin");
  if (!origin.empty() &&
      (!origin.starts_with(SCHEME) || !is_own_host(origin.substr(SCHEME.size())))) {
    throw HttpError(Status::forbidden, "the request comes from a page of another server");
  }
  if (password_.empty() || knows_password(exchange)) {
    return true;
  }
  exchange.add_header(
      "WWW-Authenticate",
      fmt::format("Digest realm=\"{}\", nonce=\"{}\", qop=\"auth\", algorithm=MD5", REALM, nonce_));
  exchange.add_header("WWW-Authenticate", fmt::format("Basic realm=\"{}\"", REALM));
  return false;
}

}  // namespace tnwdav
