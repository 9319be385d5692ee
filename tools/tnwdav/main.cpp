/* tnwdav: serves a cloud drive over WebDAV to the other programs of this machine. */
#include <fmt/format.h>
#include <windows.h>

#include <shlobj.h>
#include <CLI/CLI.hpp>

#include <future>
#include <memory>
#include <thread>

#include "dav_server.h"
#include "http_server.h"
#include "md5.h"
#include "mount.h"
#include "tools/common/console.h"
#include "tools/common/failure.h"
#include "tools/common/local_file.h"
#include "tools/common/program.h"
#include "tools/common/wide_text.h"
#include "tools/drive/drive_options.h"
#include "tools/drive/drive_path.h"

namespace tnwdav {
namespace {

using tools::ExitStatus;

constexpr char DESCRIPTION[] =
    "A cloud drive for every other program: serves it over WebDAV on this machine\n"
    "until Ctrl-C.";

constexpr char FOOTER[] =
    "Only programs of this machine reach the drive, and only with the password that\n"
    "is printed at the start. Each request has a line in tnwdav.log in the log folder.\n"
    "Exit status: 0, 1 when the drive could not be served, 2 when the command line\n"
    "makes no sense.";

constexpr std::chrono::milliseconds PAUSE{200}; /* between two looks for Ctrl-C */

struct Options : tools::DriveOptions {
  uint16_t port = 8765;
  std::string letter; /* empty: none */
  bool no_password = false;
  bool quiet = false;
};

void declare_options(CLI::App* app, Options* options) {
  options->threads = 8;
  tools::declare_drive_options(app, options);
  app->get_option("--work")->required(false)->description(
      "The folder for cache, socket and logs (default: one for each cloud below %LOCALAPPDATA%)");
  app->add_option("--port", options->port, "The port of 127.0.0.1; 0 takes a free one")
      ->option_text("N=8765");
  app->add_option("--mount", options->letter, "Maps the drive to a letter of Windows, such as X:")
      ->check(CLI::Validator(
          [](const std::string& letter) {
            const bool good = letter.size() == 2 && isalpha(letter[0]) != 0 && letter[1] == ':';
            return good ? std::string() : "a drive letter is like X:";
          },
          ""))
      ->type_name("X:");
  app->add_flag("--no-password", options->no_password,
                "Lets every program of this machine in, those of other users, too");
  app->add_flag("--quiet", options->quiet, "Prints no line for each request");
}

/* Each cloud has its own, so that no change of one cloud goes up into another. */
std::string usual_work_folder(const Options& options) {
  constexpr size_t DIGITS = 12; /* short, since the path of the socket must be */
  wchar_t local[MAX_PATH] = {};
  if (FAILED(SHGetFolderPathW(nullptr, CSIDL_LOCAL_APPDATA, nullptr, SHGFP_TYPE_CURRENT, local))) {
    throw tools::UsageError("There is no folder for the cache: --work names one");
  }
  const std::string cloud = tools::is_web_address(options.cloud)
                                ? options.cloud
                                : tools::path_key(tools::absolute_path(options.cloud));
  const std::string name = md5_text(cloud + '\n' + options.share).substr(0, DIGITS);
  return tools::utf8_from_wide(local) + "\\tnwdav\\" + name;
}

/* What to type to open the drive. */
void print_clients(const std::string& address, const std::string& password) {
  const bool open = password.empty();
  fmt::print("Windows   net use X: {}{}\n", address,
             open ? "" : fmt::format(" {} /user:{}", password, USER));
  fmt::print("cadaver   cadaver {}\n", address);
  fmt::print("davfs2    mount -t davfs {} FOLDER\n", address);
  fmt::print("curl      curl {}{}\n", open ? "" : fmt::format("-u {}:{} ", USER, password),
             address);
  fmt::print(
      "rclone    rclone ls :webdav: --webdav-url {}{}\n", address,
      open ? ""
           : fmt::format(" \\\n            --webdav-user {} --webdav-pass $(rclone obscure {})",
                         USER, password));
}

void print_start(const Options& options, const std::string& address, const std::string& password) {
  fmt::print("The drive of {} is served at {}\n", options.cloud, address);
  fmt::print("Its cache and its logs are in {}\n", tools::absolute_path(options.work));
  if (password.empty()) {
    fmt::print("Every program of this machine may use it.\n\n");
  } else {
    fmt::print("user {}, password {} (until the end of this program)\n\n", USER, password);
  }
  print_clients(address, password);
  fmt::print("\nCtrl-C ends it.\n");
  fflush(stdout);
}

void wait_for_interrupt() {
  while (!tools::interrupted()) {
    std::this_thread::sleep_for(PAUSE);
  }
}

/*
 * Maps the letter, and takes it away after Ctrl-C. Runs beside the server, which the system's
 * client asks in both cases.
 */
void keep_letter(const Options& options, const std::string& address, const std::string& password) {
  try {
    const Mount mount(options.letter, address, USER, password);
    fmt::print("{} is the drive.\n", options.letter);
    fflush(stdout);
    wait_for_interrupt();
  } catch (const tools::Failure& failure) {
    fmt::print(stderr, "tnwdav: {}; the drive is served all the same\n", failure.what());
  }
}

/* Serves until Ctrl-C, and until the letter was taken away. */
void run_server(HttpServer& http, const Options& options, const std::string& address,
                const std::string& password) {
  std::future<void> letter;
  if (!options.letter.empty()) {
    letter = std::async(std::launch::async, [&] { keep_letter(options, address, password); });
  }
  http.run([&letter] {
    const bool mapped = letter.valid() && letter.wait_for(PAUSE * 0) != std::future_status::ready;
    return mapped || !tools::interrupted();
  });
}

/* A thread of its own, since the close of a lock's file asks the service, which may be slow. */
void sweep_locks(DavLocks& locks, const std::stop_token& stop) {
  while (!stop.stop_requested()) {
    locks.forget_expired();
    std::this_thread::sleep_for(PAUSE);
  }
}

std::string make_folder(const std::string& path) {
  tools::make_local_folders(path);
  return path;
}

ExitStatus serve(const Options& options) {
  Share share(options);
  const std::string logs = make_folder(tools::log_folder(options));
  const std::string incoming = make_folder(tools::absolute_path(options.work) + "\\incoming");
  DavLocks locks;
  DeadProperties properties(tools::absolute_path(options.work) + "\\tnwdav-properties.db");
  RequestLog log(logs, options.quiet);
  const std::string password = options.no_password ? "" : random_password();

  std::unique_ptr<DavServer> dav;
  HttpServer http(options.port, [&dav](Exchange& exchange) { dav->handle(exchange); });
  const Access access(http.port(), password);
  dav = std::make_unique<DavServer>(Parts{share, locks, properties, access, log, incoming});
  const std::string address = fmt::format("http://127.0.0.1:{}/", http.port());
  print_start(options, address, password);
  const std::jthread sweeper([&locks](const std::stop_token& stop) { sweep_locks(locks, stop); });
  run_server(http, options, address, password);
  return tools::EXIT_OK;
}

ExitStatus run(const std::vector<std::string>& words) {
  Options options;
  CLI::App app(DESCRIPTION, "tnwdav");
  app.footer(FOOTER);
  app.option_defaults()->take_last();
  declare_options(&app, &options);
  if (const auto status = tools::parse_command_line(&app, words)) {
    return *status;
  }
  if (options.work.empty()) {
    options.work = usual_work_folder(options);
  }
  return serve(options);
}

}  // namespace
}  // namespace tnwdav

int main(int argc, char** argv) {
  return tools::run_program("tnwdav",
                            [&] { return tnwdav::run(tools::set_up_console(argc, argv)); });
}
