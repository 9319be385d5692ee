/* tarnd: the reference cache service. See README.md. */
#include <windows.h>

#include <cstdio>
#include <optional>
#include <string>

#include "build_info.h"
#include "cloud/cloud_address.h"
#include "cloud/webdav/webdav_abilities.h"
#include "listener.h"
#include "ox_errno.h"
#include "ox_logging.h"
#include "pid_file.h"
#include "private_access.h"
#include "secret_options.h"
#include "tnv_connio_win.h"
#include "wide_text.h"

namespace tarnd {
namespace {

enum ExitCode { ENDED = 0, CANNOT_START = 1, USAGE = 2, UNSAVED = 3 };

std::atomic<Service*> running = nullptr;

BOOL WINAPI on_console_event(DWORD) {
  Service* service = running;
  if (service != nullptr) {
    service->stopping = true;
  }
  return static_cast<BOOL>(service != nullptr);
}

/* An error before or after the log is there: on both. */
int fail(ExitCode code, const std::string& text) {
  fprintf(stderr, "tarnd: %s\n", text.c_str());
  OX_LOG(OX_ERROR_LEVEL, 0, "%s", text.c_str());
  return code;
}

std::optional<std::string> variable(const char* name) {
  std::wstring wide_name;
  wide_from_utf8(name, &wide_name);
  wchar_t value[4096];
  const DWORD length = GetEnvironmentVariableW(wide_name.c_str(), value, std::size(value));
  std::string text;
  if (length == 0 || length >= std::size(value) || !utf8_from_wide({value, length}, &text)) {
    return std::nullopt;
  }
  return text;
}

bool read_options(Options* options, std::string* error) {
  std::string line;
  if (!utf8_from_wide(GetCommandLineW(), &line)) {
    *error = "the command line is not well-formed UTF-16";
    return false;
  }
  return parse_environment(variable, options, error) &&
         parse_command_line(split_command_line(line), options, error);
}

/* The log facility takes narrow paths. */
std::string log_path(const std::string& utf8) {
  std::wstring wide;
  wide_from_utf8(utf8, &wide);
  char narrow[4 * MAX_PATH];
  const int bytes =
      WideCharToMultiByte(CP_ACP, 0, wide.c_str(), -1, narrow, sizeof narrow, nullptr, nullptr);
  return bytes > 0 ? narrow : utf8;
}

void report_counts(const Service& service, const CloudCounts& cloud_counts) {
  const std::string text = service.counters.text() + text_of(cloud_counts);
  fputs(text.c_str(), stdout);
  fflush(stdout);
  for (size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos;
       start = end + 1) {
    OX_LOG(OX_INFO_LEVEL, 0, "Count: %s", text.substr(start, end - start).c_str());
  }
  std::wstring path;
  if (service.options.counts_file.empty() || !wide_from_utf8(service.options.counts_file, &path)) {
    return;
  }
  const FileHandle file(CreateFileW(path.c_str(), GENERIC_WRITE, SHARE_ALL, nullptr, CREATE_ALWAYS,
                                    FILE_ATTRIBUTE_NORMAL, nullptr));
  DWORD written = 0;
  if (!file.valid() || (WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()),
                                  &written, nullptr) == 0)) {
    OX_LOG(OX_ERROR_LEVEL, static_cast<ox_s32>(GetLastError()), "Cannot write the counts to %s",
           service.options.counts_file.c_str());
  }
}

/* Serves from here on to the end: recovery, clients, the way back. */
int serve(Service& service, const CloudCounts& cloud_counts) {
  if (!service.recover()) {
    return fail(CANNOT_START, "Cannot read the service's database in the cache directory");
  }
  std::string error;
  {
    Listener listener(service);
    if (!listener.start(&error)) {
      return fail(CANNOT_START, error);
    }
    running = &service;
    SetConsoleCtrlHandler(on_console_event, TRUE);
    listener.run();
    running = nullptr;
  }
  const size_t unsaved = service.finish();
  report_counts(service, cloud_counts);
  if (unsaved != 0) {
    return fail(UNSAVED, std::to_string(unsaved) +
                             " files are not in the cloud yet; they go up after the next start");
  }
  OX_LOG(OX_INFO_LEVEL, 0, "Ended");
  return ENDED;
}

CloudSettings cloud_settings(const Options& options, const std::wstring& cache,
                             CloudCounts* counts) {
  CloudSettings settings;
  settings.counts = counts;
  settings.faults = options.faults;
  if (options.names_fresh_ms != Options::BY_THE_CLOUD) {
    settings.names_fresh = std::chrono::milliseconds(options.names_fresh_ms);
  }
  settings.connections = static_cast<unsigned>(options.connections);
  settings.ca_file = options.ca;
  settings.abilities_file = cache + L"\\server_abilities";
  return settings;
}

int probe(const Options& options) {
  const std::string& url = options.probe;
  std::string error = "no http:// or https:// address";
  WebAddress address;
  std::unique_ptr<HttpClient> client;
  if (is_web_address(url) && parse_web_address(url, &address, &error)) {
    client = HttpClient::open(address, {1, options.ca}, &error);
  }
  if (client == nullptr) {
    fprintf(stderr, "tarnd: %s: %s\n", url.c_str(), error.c_str());
    return CANNOT_START;
  }
  CloudContext context;
  context.deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  context.credentials = Credentials(options).now();
  ox_debug = 0; /* what servers refuse is what is asked here */
  WebdavServer server(address, std::move(client));
  WebdavAbilities found;
  const CloudResult result = find_abilities(context, server, &found);
  if (!result.ok()) {
    fprintf(stderr, "tarnd: %s cannot be tried out: %s\n", url.c_str(), name_of(result.code));
    return CANNOT_START;
  }
  printf("%s\n%s", url.c_str(), table_of(found).c_str());
  return ENDED;
}

int run(const Options& options) {
  std::wstring cache;
  PidFile pid_file;
  std::string error;
  if (!wide_from_utf8(options.cache, &cache) || make_private_folder(cache) != 0) {
    return fail(CANNOT_START, "Cannot make the cache directory " + options.cache);
  }
  if (const int err = pid_file.take(cache)) {
    return fail(CANNOT_START, err == OX_EBUSY
                                  ? "Another service has the cache directory " + options.cache
                                  : "Cannot write tarnd_pid in " + options.cache);
  }
  CloudCounts counts;
  std::unique_ptr<Cloud> cloud =
      open_cloud(options.addr, cloud_settings(options, cache, &counts), &error);
  if (cloud == nullptr) {
    return fail(CANNOT_START, error);
  }
  const std::wstring files = cache + L"\\files";
  if (make_private_folder(files) != 0 || tnv_sock_init() != 0) {
    return fail(CANNOT_START, "Cannot use the cache directory or Windows Sockets");
  }
  Service service(options, std::move(cloud), cache);
  return serve(service, counts);
}

int main(int argc, char** argv) {
  Options options;
  std::string error;
  const bool readable = read_options(&options, &error);
  hide_own_secret_options(argc, argv);
  if (!readable) {
    fprintf(stderr, "tarnd: %s\nTry: tarnd --help\n", error.c_str());
    return USAGE;
  }
  if (options.help || options.version) {
    fputs((options.help ? help_text() : "tarnd " + std::string(VERSION) + '\n').c_str(), stdout);
    return ENDED;
  }
  if (!options.probe.empty()) {
    return probe(options);
  }
  ox_init_logging("TARND_LOGGER", log_path(options.logfile).c_str(), nullptr, nullptr);
  if (options.debug_level >= 0) {
    ox_debug = options.debug_level;
  }
  OX_LOG(OX_INFO_LEVEL, 0, "tarnd %s (%s) for user %s: cloud %s, cache %s", VERSION, GIT_HASH,
         options.user.c_str(), options.addr.c_str(), options.cache.c_str());
  const int code = run(options);
  ox_log_flush();
  return code;
}

}  // namespace
}  // namespace tarnd

int main(int argc, char** argv) { return tarnd::main(argc, argv); }
