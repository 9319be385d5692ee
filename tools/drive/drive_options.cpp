#include "tools/drive/drive_options.h"

#include <fmt/format.h>
#include <windows.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstring>

#include "common/percent.h"
#include "ox_logging.h"
#include "tools/common/console.h"
#include "tools/common/local_file.h"
#include "tools/common/program.h"

namespace tools {
namespace {

/*
 * Names this program to the service; a drive application has its own, kept for each installation.
 */
constexpr char DEVICE_ID[] = "6f1f2f1e-4b7a-4d0b-9a5c-7a3c5d2e8b10";
constexpr char DRIVE_ID[] = "c0b7a1d4-52f3-4a66-8a43-0f6f0e9d7c21";

/* Socket paths end at 107 characters; without a user id the socket has this name. */
constexpr size_t MAX_SOCKET_PATH = 107;
constexpr char SOCKET_NAME[] = "\\tnvfs.sock";

/* The value is not shown, since it may be a token or a password. */
template <size_t N>
void fill_field(char (&field)[N], const std::string& text, const char* name) {
  if (text.size() >= N) {
    throw UsageError(
        fmt::format("{} takes {} bytes, and at most {} fit", name, text.size(), N - 1));
  }
  std::memcpy(field, text.c_str(), text.size() + 1);
}

/* The library puts these on the service's command line without quotes. */
template <size_t N>
void fill_word(char (&field)[N], const std::string& text, const char* name) {
  if (text.empty() || text.starts_with("--") || text.find_first_of(" \t\"") != std::string::npos) {
    throw UsageError(fmt::format("{} must be one word without quotes", name));
  }
  fill_field(field, text, name);
}

template <size_t N>
void fill_optional_word(char (&field)[N], const std::string& text, const char* name) {
  if (!text.empty()) {
    fill_word(field, text, name);
  }
}

std::string work_folder(const DriveOptions& options) {
  std::string folder = absolute_path(options.work);
  folder.erase(folder.find_last_not_of('\\') + 1);
  return folder;
}

void check_socket_path(const DriveOptions& options) {
  const std::string socket = code_page_path(cache_folder(options)) + SOCKET_NAME;
  if (socket.size() > MAX_SOCKET_PATH) {
    throw UsageError(
        fmt::format("The --work folder's path is too long: the socket's takes {} bytes, and at "
                    "most {} fit: {}",
                    socket.size(), MAX_SOCKET_PATH, socket));
  }
}

void check_domain(const std::string& domain) {
  if (domain.find('.') == std::string::npos) {
    throw UsageError("The domain must have a dot, as a host's name has: \"" + domain + '"');
  }
}

}  // namespace

void declare_drive_options(CLI::App* app, DriveOptions* options) {
  const auto text = [app](const char* name, std::string& value, const char* help) {
    return app->add_option(name, value, help)->type_name("TEXT");
  };
  text("--cloud", options->cloud, "A folder that plays the cloud, or a WebDAV server's address")
      ->required()
      ->type_name("DIR|URL");
  text("--work", options->work, "The folder for cache, socket and logs; made when it is not there")
      ->required()
      ->type_name("DIR");
  options->service = program_folder() + "tarnd.exe";
  text("--service", options->service, "The cache service (default: tarnd.exe beside this program)")
      ->type_name("FILE");
  text("--share", options->share, "The drive's folder in the cloud")->capture_default_str();
  text("--user", options->user, "The user's name")->capture_default_str();
  text("--domain", options->domain, "The cloud's domain, with a dot")->capture_default_str();
  text("--token", options->token, "The user's access token")->capture_default_str();
  app->add_option("--threads", options->threads, "Connections to the service")
      ->check(CLI::Range(1, 256))
      ->option_text(fmt::format("N={}", options->threads));
  app->add_option("--debug-level", ox_debug,
                  "How much tnvfs.log says: 2 adds requests, 3 answers, 5 the thread pool")
      ->check(CLI::Range(0, 5))
      ->option_text("N=1");
}

std::string log_folder(const DriveOptions& options) { return work_folder(options) + "\\logs"; }

std::string cache_folder(const DriveOptions& options) {
  return work_folder(options) + '\\' + options.domain + '\\' + options.user;
}

std::string file_address(const std::string& folder) {
  const std::string absolute = absolute_path(folder);
  if (absolute.size() < 3 || absolute[1] != ':') {
    throw UsageError("The cloud folder must be on a drive with a letter: " + absolute);
  }
  std::string path = absolute;
  std::replace(path.begin(), path.end(), '\\', '/');
  return "file:///" + path.substr(0, 2) + common::encode_percent(path.substr(2));
}

bool is_web_address(const std::string& cloud) {
  return cloud.starts_with("http://") || cloud.starts_with("https://");
}

tnw_tninit start_record(const DriveOptions& options) {
  tnw_tninit init = {};
  check_domain(options.domain);
  init.tnw_flags = TNW_INIT_NO_RETRY; /* a second attempt would fail like the first one */
  init.tnw_min_threads = 1;
  init.tnw_max_threads = options.threads;
  fill_word(init.tnw_username, options.user, "The user");
  fill_word(init.tnw_domain, options.domain, "The domain");
  fill_word(init.tnw_authtoken, options.token, "The token");
  fill_optional_word(init.tnw_proxy_server, options.proxy, "The proxy");
  fill_optional_word(init.tnw_proxy_uname, options.proxy_user, "The proxy's user");
  fill_optional_word(init.tnw_proxy_password, options.proxy_password, "The proxy's password");
  fill_word(init.tnw_api_addr,
            is_web_address(options.cloud) ? options.cloud : file_address(options.cloud),
            "The cloud's address");
  fill_word(init.tnw_config_addr, "none", "The configuration address");
  fill_field(init.tnw_sharepath, options.share, "The share");
  fill_field(init.tnw_workdir, code_page_path(options.work), "The --work folder");
  fill_field(init.tnw_logdir, code_page_path(log_folder(options)), "The log folder");
  fill_field(init.tnw_binpath, code_page_path(options.service), "The service");
  fill_field(init.tnw_da_device_id, DEVICE_ID, "The device id");
  fill_field(init.tnw_da_drive_id, DRIVE_ID, "The drive id");
  check_socket_path(options);
  return init;
}

tnw_purge_opt_t purge_record(const DriveOptions& options) {
  tnw_purge_opt_t purge = {};
  fill_field(purge.po_workdir, code_page_path(options.work), "The --work folder");
  fill_field(purge.po_domain, options.domain, "The domain");
  fill_field(purge.po_username, options.user, "The user");
  return purge;
}

}  // namespace tools
