/* tarnd: the reference cache service. See README.md. */
#include <windows.h>

#include <cstdio>
#include <optional>
#include <string>

#include "build_info.h"
#include "listener.h"
#include "ox_errno.h"
#include "ox_logging.h"
#include "pid_file.h"
#include "private_folder.h"
#include "tnv_connio_win.h"
#include "wide_text.h"

namespace tarnd {
namespace {

enum ExitCode { kEnded = 0, kCannotStart = 1, kUsage = 2, kUnsaved = 3 };

std::atomic<Service*> running = nullptr;

BOOL WINAPI OnConsoleEvent(DWORD) {
  Service* service = running;
  if (service != nullptr) {
    service->stopping = true;
  }
  return static_cast<BOOL>(service != nullptr);
}

/* An error before or after the log is there: on both. */
int Fail(ExitCode code, const std::string& text) {
  fprintf(stderr, "tarnd: %s\n", text.c_str());
  OX_LOG(OX_ERROR_LEVEL, 0, "%s", text.c_str());
  return code;
}

std::optional<std::string> Variable(const char* name) {
  std::wstring wide_name;
  WideFromUtf8(name, &wide_name);
  wchar_t value[4096];
  const DWORD length = GetEnvironmentVariableW(wide_name.c_str(), value, std::size(value));
  std::string text;
  if (length == 0 || length >= std::size(value) || !Utf8FromWide({value, length}, &text)) {
    return std::nullopt;
  }
  return text;
}

bool ReadOptions(Options* options, std::string* error) {
  std::string line;
  if (!Utf8FromWide(GetCommandLineW(), &line)) {
    *error = "the command line is not well-formed UTF-16";
    return false;
  }
  return ParseCommandLine(SplitCommandLine(line), options, error) &&
         ParseEnvironment(Variable, options, error);
}

/* The log facility takes narrow paths. */
std::string LogPath(const std::string& utf8) {
  std::wstring wide;
  WideFromUtf8(utf8, &wide);
  char narrow[4 * MAX_PATH];
  const int bytes =
      WideCharToMultiByte(CP_ACP, 0, wide.c_str(), -1, narrow, sizeof narrow, nullptr, nullptr);
  return bytes > 0 ? narrow : utf8;
}

void ReportCounts(const Service& service) {
  const std::string text = service.counters.Text();
  fputs(text.c_str(), stdout);
  fflush(stdout);
  for (size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos;
       start = end + 1) {
    OX_LOG(OX_INFO_LEVEL, 0, "Count: %s", text.substr(start, end - start).c_str());
  }
  std::wstring path;
  if (service.options.counts_file.empty() || !WideFromUtf8(service.options.counts_file, &path)) {
    return;
  }
  const FileHandle file(CreateFileW(path.c_str(), GENERIC_WRITE, kShareAll, nullptr, CREATE_ALWAYS,
                                    FILE_ATTRIBUTE_NORMAL, nullptr));
  DWORD written = 0;
  if (!file.Valid() || (WriteFile(file.Get(), text.data(), static_cast<DWORD>(text.size()),
                                  &written, nullptr) == 0)) {
    OX_LOG(OX_ERROR_LEVEL, static_cast<ox_s32>(GetLastError()), "Cannot write the counts to %s",
           service.options.counts_file.c_str());
  }
}

/* Serves from here on to the end: recovery, clients, the way back. */
int Serve(Service& service) {
  service.Recover();
  std::string error;
  {
    Listener listener(service);
    if (!listener.Start(&error)) {
      return Fail(kCannotStart, error);
    }
    running = &service;
    SetConsoleCtrlHandler(OnConsoleEvent, TRUE);
    listener.Run();
    running = nullptr;
  }
  const size_t unsaved = service.Finish();
  ReportCounts(service);
  if (unsaved != 0) {
    return Fail(kUnsaved, std::to_string(unsaved) + " files could not be written back; they are " +
                              "kept for the next start");
  }
  OX_LOG(OX_INFO_LEVEL, 0, "Ended");
  return kEnded;
}

int Run(const Options& options) {
  std::wstring cache;
  PidFile pid_file;
  std::string error;
  if (!WideFromUtf8(options.cache, &cache) || MakePrivateFolder(cache) != 0) {
    return Fail(kCannotStart, "Cannot make the cache directory " + options.cache);
  }
  if (const int err = pid_file.Take(cache)) {
    return Fail(kCannotStart, err == OX_EBUSY
                                  ? "Another service has the cache directory " + options.cache
                                  : "Cannot write tarnd_pid in " + options.cache);
  }
  std::unique_ptr<Cloud> cloud = OpenCloud(options.addr, &error);
  if (cloud == nullptr) {
    return Fail(kCannotStart, error);
  }
  const std::wstring files = cache + L"\\files";
  if (MakePrivateFolder(files) != 0 || tnv_sock_init() != 0) {
    return Fail(kCannotStart, "Cannot use the cache directory or Windows Sockets");
  }
  Service service(options, std::move(cloud), files);
  return Serve(service);
}

int Main() {
  Options options;
  std::string error;
  if (!ReadOptions(&options, &error)) {
    fprintf(stderr, "tarnd: %s\nTry: tarnd --help\n", error.c_str());
    return kUsage;
  }
  if (options.help || options.version) {
    fputs((options.help ? HelpText() : "tarnd " + std::string(kVersion) + '\n').c_str(), stdout);
    return kEnded;
  }
  ox_init_logging("TARND_LOGGER", LogPath(options.logfile).c_str(), nullptr, nullptr);
  if (options.debug_level >= 0) {
    ox_debug = options.debug_level;
  }
  OX_LOG(OX_INFO_LEVEL, 0, "tarnd %s (%s) for user %s: cloud %s, cache %s", kVersion, kGitHash,
         options.user.c_str(), options.addr.c_str(), options.cache.c_str());
  const int code = Run(options);
  ox_log_flush();
  return code;
}

}  // namespace
}  // namespace tarnd

int main() { return tarnd::Main(); }
