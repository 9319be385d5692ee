#include "options.h"

#include <fmt/format.h>
#include <windows.h>

#include <cstring>

#include "failure.h"
#include "local_file.h"
#include "service/wide_text.h"

namespace tnwsh {
namespace {

/*
 * Names this program to the service; a drive application has its own, kept for each installation.
 */
constexpr char kDeviceId[] = "6f1f2f1e-4b7a-4d0b-9a5c-7a3c5d2e8b10";
constexpr char kDriveId[] = "c0b7a1d4-52f3-4a66-8a43-0f6f0e9d7c21";

/* Socket paths end at 107 characters; without a user id the socket has this name. */
constexpr size_t kMaxSocketPath = 107;
constexpr char kSocketName[] = "\\tnvfs.sock";

template <size_t N>
void Fill(char (&field)[N], const std::string& text, const char* name) {
  if (text.size() >= N) {
    throw UsageError(
        fmt::format("{} takes {} bytes, and at most {} fit: {}", name, text.size(), N - 1, text));
  }
  std::memcpy(field, text.c_str(), text.size() + 1);
}

/* The library puts these on the service's command line without quotes. */
template <size_t N>
void FillWord(char (&field)[N], const std::string& text, const char* name) {
  if (text.empty() || text.starts_with("--") || text.find_first_of(" \t\"") != std::string::npos) {
    throw UsageError(fmt::format("{} must be one word without quotes: \"{}\"", name, text));
  }
  Fill(field, text, name);
}

template <size_t N>
void FillOptionalWord(char (&field)[N], const std::string& text, const char* name) {
  if (!text.empty()) {
    FillWord(field, text, name);
  }
}

/* The library takes local paths in the process's code page. */
std::string NarrowPath(const std::string& path, const char* name) {
  const std::string absolute = AbsolutePath(path);
  std::wstring wide;
  tarnd::wide_from_utf8(absolute, &wide);
  std::string narrow(wide.size() * 4, '\0');
  BOOL replaced = FALSE;
  const bool own = GetACP() == CP_UTF8; /* which has no replacement character to report */
  const int length = WideCharToMultiByte(
      CP_ACP, own ? 0 : WC_NO_BEST_FIT_CHARS, wide.data(), static_cast<int>(wide.size()),
      narrow.data(), static_cast<int>(narrow.size()), nullptr, own ? nullptr : &replaced);
  if (length <= 0 || replaced != 0) {
    throw UsageError(fmt::format("{} has characters that this system's code page {} has not: {}",
                                 name, GetACP(), absolute));
  }
  narrow.resize(static_cast<size_t>(length));
  return narrow;
}

std::string WorkFolder(const Options& options) {
  std::string folder = AbsolutePath(options.work);
  folder.erase(folder.find_last_not_of('\\') + 1);
  return folder;
}

void CheckSocketPath(const Options& options) {
  const std::string socket = NarrowPath(CacheFolder(options), "The --work folder") + kSocketName;
  if (socket.size() > kMaxSocketPath) {
    throw UsageError(
        fmt::format("The --work folder's path is too long: the socket's takes {} bytes, and at "
                    "most {} fit: {}",
                    socket.size(), kMaxSocketPath, socket));
  }
}

void CheckDomain(const std::string& domain) {
  if (domain.find('.') == std::string::npos) {
    throw UsageError("The domain must have a dot, as a host's name has: \"" + domain + '"');
  }
}

}  // namespace

std::string LogFolder(const Options& options) { return WorkFolder(options) + "\\logs"; }

std::string CacheFolder(const Options& options) {
  return WorkFolder(options) + '\\' + options.domain + '\\' + options.user;
}

std::string FileAddress(const std::string& folder) {
  const std::string absolute = AbsolutePath(folder);
  if (absolute.size() < 3 || absolute[1] != ':') {
    throw UsageError("The cloud folder must be on a drive with a letter: " + absolute);
  }
  std::string address = "file:///";
  for (const char c : absolute) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       std::strchr("-._~:", c) != nullptr;
    if (c == '\\') {
      address += '/';
    } else if (plain) {
      address += c;
    } else {
      address += fmt::format("%{:02X}", static_cast<unsigned char>(c));
    }
  }
  return address;
}

tnw_tninit StartRecord(const Options& options) {
  tnw_tninit init = {};
  CheckDomain(options.domain);
  init.tnw_flags = TNW_INIT_NO_RETRY; /* a second try would fail as the first one */
  init.tnw_min_threads = 1;
  init.tnw_max_threads = options.threads;
  FillWord(init.tnw_username, options.user, "The user");
  FillWord(init.tnw_domain, options.domain, "The domain");
  FillWord(init.tnw_authtoken, options.token, "The token");
  FillOptionalWord(init.tnw_proxy_server, options.proxy, "The proxy");
  FillOptionalWord(init.tnw_proxy_uname, options.proxy_user, "The proxy's user");
  FillOptionalWord(init.tnw_proxy_password, options.proxy_password, "The proxy's password");
  FillWord(init.tnw_api_addr, FileAddress(options.cloud), "The cloud folder's address");
  FillWord(init.tnw_config_addr, "none", "The configuration address");
  Fill(init.tnw_sharepath, options.share, "The share");
  Fill(init.tnw_workdir, NarrowPath(options.work, "The --work folder"), "The --work folder");
  Fill(init.tnw_logdir, NarrowPath(LogFolder(options), "The --work folder"), "The log folder");
  Fill(init.tnw_binpath, NarrowPath(options.service, "The service"), "The service");
  Fill(init.tnw_da_device_id, kDeviceId, "The device id");
  Fill(init.tnw_da_drive_id, kDriveId, "The drive id");
  CheckSocketPath(options);
  return init;
}

tnw_purge_opt_t PurgeRecord(const Options& options) {
  tnw_purge_opt_t purge = {};
  Fill(purge.po_workdir, NarrowPath(options.work, "The --work folder"), "The --work folder");
  Fill(purge.po_domain, options.domain, "The domain");
  Fill(purge.po_username, options.user, "The user");
  return purge;
}

}  // namespace tnwsh
