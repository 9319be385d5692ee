#include "cloud/webdav/win_http_exchange.h"

#include <algorithm>
#include <array>

#include "files/windows_file.h"
#include "ox_logging.h"
#include "slim_lock.h"
#include "wide_text.h"

namespace tarnd {
namespace {

constexpr size_t PIECE = size_t{256} << 10;
constexpr std::chrono::milliseconds CANCEL_STEP{20};

std::wstring wide(const std::string& text) {
  std::wstring out;
  wide_from_utf8(text, &out);
  return out;
}

/* These come before a byte of the request has left. */
bool never_sent(DWORD error) {
  return error == ERROR_WINHTTP_CANNOT_CONNECT || error == ERROR_WINHTTP_NAME_NOT_RESOLVED ||
         error == ERROR_WINHTTP_SECURE_FAILURE || error == ERROR_WINHTTP_SECURE_FAILURE_PROXY;
}

bool read_file(const std::string& path, std::string* out) {
  const FileHandle file(CreateFileW(wide(path).c_str(), GENERIC_READ, SHARE_ALL, nullptr,
                                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  out->resize(size_t{1} << 20);
  DWORD got = 0;
  if (!file.valid() ||
      ReadFile(file.get(), out->data(), static_cast<DWORD>(out->size()), &got, nullptr) == 0) {
    return false;
  }
  out->resize(got);
  return true;
}

/* A PEM text becomes the bytes that it stands for; anything else stays. */
std::string without_pem(const std::string& text) {
  DWORD size = 0;
  const auto length = static_cast<DWORD>(text.size());
  if (CryptStringToBinaryA(text.data(), length, CRYPT_STRING_BASE64HEADER, nullptr, &size, nullptr,
                           nullptr) == FALSE) {
    return text;
  }
  std::string bytes(size, '\0');
  CryptStringToBinaryA(text.data(), length, CRYPT_STRING_BASE64HEADER,
                       reinterpret_cast<BYTE*>(bytes.data()), &size, nullptr, nullptr);
  bytes.resize(size);
  return bytes;
}

}  // namespace

/* ------------------------------------------------------------------ certificates */

CertificateAuthority::~CertificateAuthority() {
  if (engine_ != nullptr) {
    CertFreeCertificateChainEngine(engine_);
  }
  if (roots_ != nullptr) {
    CertCloseStore(roots_, 0);
  }
}

bool CertificateAuthority::load(const std::string& path, std::string* error) {
  std::string text;
  if (!read_file(path, &text)) {
    *error = "cannot read the authority's certificate in " + path;
    return false;
  }
  const std::string bytes = without_pem(text);
  roots_ = CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, 0, nullptr);
  CERT_CHAIN_ENGINE_CONFIG config = {};
  config.cbSize = offsetof(CERT_CHAIN_ENGINE_CONFIG, dwExclusiveFlags); /* all systems take this */
  config.hExclusiveRoot = roots_;
  if (roots_ == nullptr ||
      CertAddEncodedCertificateToStore(
          roots_, X509_ASN_ENCODING, reinterpret_cast<const BYTE*>(bytes.data()),
          static_cast<DWORD>(bytes.size()), CERT_STORE_ADD_ALWAYS, nullptr) == FALSE ||
      CertCreateCertificateChainEngine(&config, &engine_) == FALSE) {
    *error = path + " holds no certificate of an authority";
    return false;
  }
  return true;
}

/* The host's name, the dates and the use of the certificate are WinHTTP's to check. */
bool CertificateAuthority::trusts_server_of(HINTERNET request) const {
  PCCERT_CONTEXT shown = nullptr;
  DWORD size = sizeof(PCCERT_CONTEXT);
  if (WinHttpQueryOption(request, WINHTTP_OPTION_SERVER_CERT_CONTEXT, &shown, &size) == FALSE) {
    return false;
  }
  PCCERT_CHAIN_CONTEXT chain = nullptr;
  CERT_CHAIN_PARA how = {};
  how.cbSize = sizeof how;
  bool trusted = false;
  if (CertGetCertificateChain(engine_, shown, nullptr, shown->hCertStore, &how, 0, nullptr,
                              &chain) != FALSE) {
    trusted = chain->TrustStatus.dwErrorStatus == CERT_TRUST_NO_ERROR;
    CertFreeCertificateChain(chain);
  }
  CertFreeCertificateContext(shown);
  return trusted;
}

/* ------------------------------------------------------------------ connections */

bool WinHttpConnection::is_for(const CloudCredentials& credentials) const {
  return proxy.proxy_server == credentials.proxy_server &&
         proxy.proxy_user == credentials.proxy_user &&
         proxy.proxy_password == credentials.proxy_password;
}

std::shared_ptr<WinHttpConnection> WinHttpConnection::open(const std::string& host, uint16_t port,
                                                           const CloudCredentials& credentials,
                                                           std::chrono::milliseconds longest_wait) {
  auto made = std::make_shared<WinHttpConnection>();
  made->proxy = {"", credentials.proxy_server, credentials.proxy_user, credentials.proxy_password};
  const std::wstring proxy = wide(credentials.proxy_server);
  const DWORD access =
      proxy.empty() ? WINHTTP_ACCESS_TYPE_NO_PROXY : WINHTTP_ACCESS_TYPE_NAMED_PROXY;
  made->session.reset(WinHttpOpen(L"tarnd", access, proxy.empty() ? nullptr : proxy.c_str(),
                                  nullptr, WINHTTP_FLAG_ASYNC));
  if (made->session == nullptr) {
    return nullptr;
  }
  const auto wait = static_cast<int>(longest_wait.count());
  const int connect_wait = std::min(wait, 15'000);
  WinHttpSetTimeouts(made->session.get(), connect_wait, connect_wait, wait, wait);
  made->connect.reset(WinHttpConnect(made->session.get(), wide(host).c_str(), port, 0));
  return made->connect == nullptr ? nullptr : made;
}

/* ------------------------------------------------------------------ one exchange */

/* What the callbacks write and the caller reads; it lives until WinHTTP is done with the request.
 */
struct WinHttpExchange::State {
  SlimLock lock;
  SlimCondition moved_on;
  bool done = false;           /* guarded by lock, as the next three: the step has ended */
  DWORD error = 0;             /* of WinHTTP */
  size_t size = 0;             /* that was read */
  HINTERNET request = nullptr; /* null when it is closed */
  std::shared_ptr<const CertificateAuthority> authority; /* fixed after creation */
  std::vector<char> buffer = {};                         /* of the step that is under way */

  void end_step(DWORD code, size_t bytes) {
    const std::lock_guard guard(lock);
    if (request == nullptr) {
      return; /* nobody waits any more, or the server was refused */
    }
    done = true;
    error = code;
    size = bytes;
    moved_on.notify_all();
  }

  void close() {
    HINTERNET closing = nullptr;
    {
      const std::lock_guard guard(lock);
      std::swap(closing, request);
    }
    if (closing != nullptr) {
      WinHttpCloseHandle(closing);
    }
  }

  /* Before the request goes out: a server that is not the authority's must not see the token. */
  void check_server(HINTERNET handle) {
    if (authority != nullptr && !authority->trusts_server_of(handle)) {
      OX_LOG(OX_ERROR_LEVEL, 0, "The server's certificate is not of the authority given");
      end_step(ERROR_WINHTTP_SECURE_FAILURE, 0);
      close();
    }
  }

  static void CALLBACK on_event(HINTERNET handle, DWORD_PTR context, DWORD event, void* info,
                                DWORD size) {
    auto* holder = reinterpret_cast<std::shared_ptr<State>*>(context);
    if (holder == nullptr) {
      return;
    }
    State& state = **holder;
    switch (event) {
      case WINHTTP_CALLBACK_STATUS_SENDING_REQUEST:
        state.check_server(handle);
        break;
      case WINHTTP_CALLBACK_STATUS_SENDREQUEST_COMPLETE:
      case WINHTTP_CALLBACK_STATUS_HEADERS_AVAILABLE:
      case WINHTTP_CALLBACK_STATUS_WRITE_COMPLETE:
        state.end_step(0, 0);
        break;
      case WINHTTP_CALLBACK_STATUS_READ_COMPLETE:
        state.end_step(0, size);
        break;
      case WINHTTP_CALLBACK_STATUS_REQUEST_ERROR:
        state.end_step(static_cast<WINHTTP_ASYNC_RESULT*>(info)->dwError, 0);
        break;
      case WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING:
        delete holder;
        break;
      default:
        break;
    }
  }
};

WinHttpExchange::WinHttpExchange(std::shared_ptr<WinHttpConnection> connection,
                                 std::shared_ptr<const CertificateAuthority> authority,
                                 std::chrono::milliseconds longest_wait)
    : connection_(std::move(connection)),
      longest_wait_(longest_wait),
      state_(std::make_shared<State>()) {
  state_->authority = std::move(authority);
}

WinHttpExchange::~WinHttpExchange() { state_->close(); }

CloudResult WinHttpExchange::begin(const CloudContext& context, const std::string& method,
                                   const std::string& target, const std::string& headers,
                                   const std::string& body, bool secure) {
  const DWORD flags = WINHTTP_FLAG_ESCAPE_DISABLE | (secure ? WINHTTP_FLAG_SECURE : 0);
  HINTERNET request =
      WinHttpOpenRequest(connection_->connect.get(), wide(method).c_str(), wide(target).c_str(),
                         nullptr, WINHTTP_NO_REFERER, WINHTTP_DEFAULT_ACCEPT_TYPES, flags);
  if (request == nullptr) {
    return CloudResult::of(CloudCode::OFFLINE);
  }
  state_->request = request;
  auto* holder = new std::shared_ptr<State>(state_); /* until HANDLE_CLOSING */
  WinHttpSetOption(request, WINHTTP_OPTION_CONTEXT_VALUE, &holder, sizeof(void*));
  WinHttpSetStatusCallback(request, State::on_event, WINHTTP_CALLBACK_FLAG_ALL_NOTIFICATIONS, 0);
  DWORD off = WINHTTP_DISABLE_COOKIES | WINHTTP_DISABLE_REDIRECTS;
  WinHttpSetOption(request, WINHTTP_OPTION_DISABLE_FEATURE, &off, sizeof off);
  DWORD never = WINHTTP_AUTOLOGON_SECURITY_LEVEL_HIGH;
  WinHttpSetOption(request, WINHTTP_OPTION_AUTOLOGON_POLICY, &never, sizeof never);
  if (secure && state_->authority != nullptr) {
    DWORD own_check = SECURITY_FLAG_IGNORE_UNKNOWN_CA; /* check_server() looks instead */
    WinHttpSetOption(request, WINHTTP_OPTION_SECURITY_FLAGS, &own_check, sizeof own_check);
  }
  const std::wstring user = wide(connection_->proxy.proxy_user);
  if (!user.empty()) {
    WinHttpSetCredentials(request, WINHTTP_AUTH_TARGET_PROXY, WINHTTP_AUTH_SCHEME_BASIC,
                          user.c_str(), wide(connection_->proxy.proxy_password).c_str(), nullptr);
  }
  const std::wstring wide_headers = wide(headers);
  const auto body_size = static_cast<DWORD>(body.size());
  state_->buffer.assign(body.begin(), body.end());
  if (WinHttpSendRequest(request, wide_headers.c_str(), static_cast<DWORD>(wide_headers.size()),
                         state_->buffer.data(), body_size, body_size,
                         reinterpret_cast<DWORD_PTR>(holder)) == FALSE) {
    return failure(GetLastError());
  }
  return wait(context);
}

CloudResult WinHttpExchange::write(const CloudContext& context, const char* data, size_t size) {
  state_->buffer.assign(data, data + size);
  if (WinHttpWriteData(state_->request, state_->buffer.data(), static_cast<DWORD>(size), nullptr) ==
      FALSE) {
    return failure(GetLastError());
  }
  return wait(context);
}

CloudResult WinHttpExchange::receive_headers(const CloudContext& context) {
  if (WinHttpReceiveResponse(state_->request, nullptr) == FALSE) {
    return failure(GetLastError());
  }
  return wait(context);
}

CloudResult WinHttpExchange::read(const CloudContext& context, const char** data, size_t* size) {
  state_->buffer.resize(PIECE);
  if (WinHttpReadData(state_->request, state_->buffer.data(), static_cast<DWORD>(PIECE), nullptr) ==
      FALSE) {
    return failure(GetLastError());
  }
  const CloudResult result = wait(context);
  *data = state_->buffer.data();
  *size = state_->size;
  return result;
}

CloudResult WinHttpExchange::failure(DWORD error) const {
  OX_LOG_DEBUG(1, "A request failed (%lu)", error);
  return CloudResult::of(never_sent(error) ? CloudCode::OFFLINE : CloudCode::UNKNOWN_OUTCOME);
}

/* For the end of the step that WinHTTP was told to take. */
CloudResult WinHttpExchange::wait(const CloudContext& context) {
  using Clock = std::chrono::steady_clock;
  const auto end = std::min(context.deadline, Clock::now() + longest_wait_);
  bool wanted = true;
  std::unique_lock lock(state_->lock);
  while (!state_->done && wanted && Clock::now() < end) {
    const bool may_end = context.cancel != nullptr;
    state_->moved_on.wait_until(lock, may_end ? std::min(end, Clock::now() + CANCEL_STEP) : end,
                                [this] { return state_->done; });
    wanted = !may_end || !context.cancel->raised();
  }
  if (state_->done) {
    state_->done = false;
    return state_->error == 0 ? CloudResult{} : failure(state_->error);
  }
  lock.unlock();
  state_->close();
  return CloudResult::of(CloudCode::UNKNOWN_OUTCOME);
}

int WinHttpExchange::status() const {
  DWORD status = 0;
  DWORD size = sizeof status;
  WinHttpQueryHeaders(state_->request, WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER,
                      nullptr, &status, &size, nullptr);
  return static_cast<int>(status);
}

std::string WinHttpExchange::header(const wchar_t* name) const {
  std::array<wchar_t, 1024> value;
  DWORD size = sizeof value;
  std::string text;
  if (WinHttpQueryHeaders(state_->request, WINHTTP_QUERY_CUSTOM, name, value.data(), &size,
                          nullptr) != FALSE) {
    utf8_from_wide({value.data(), size / sizeof(wchar_t)}, &text);
  }
  return text;
}

}  // namespace tarnd
