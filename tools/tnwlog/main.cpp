/* tnwlog: reads the library's logs, tnvfs.log and its rotated files. */
#include <fmt/format.h>

#include <CLI/CLI.hpp>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "console.h"
#include "log_files.h"
#include "redactor.h"
#include "report.h"
#include "request_lines.h"
#include "text_pattern.h"
#include "tools/program.h"

namespace tnwlog {
namespace {

constexpr char DESCRIPTION[] =
    "Reads the logs of cloud drives: how often each operation was asked for, and how long the\n"
    "answers took.";

constexpr char FOOTER[] =
    "Response times come from the event lines, which are there when the cache service gives\n"
    "transaction ids, or else from the distance of two lines at debug level 3 and above.\n"
    "Exit status: 0, 1 when a file cannot be read or written or nothing is found, 2 when the\n"
    "command line makes no sense.";

using tools::ExitStatus;
using enum tools::ExitStatus;

struct Options {
  std::vector<std::string> logs;
  size_t slowest = 0; /* 0: the table */
  std::string request;
  std::string redacted;
  bool follow = false;
  bool json = false;
};

/* Empty, or what is wrong with it. */
std::string check_id(const std::string& id) {
  static const TextPattern request("<m>");
  static const TextPattern transaction("<d>");
  Pieces pieces;
  return request.match(id, &pieces) || transaction.match(id, &pieces)
             ? ""
             : '"' + id + "\" is neither a request's id nor a transaction's number";
}

void declare_options(CLI::App* app, Options* options) {
  app->add_option("LOG", options->logs, "Log files, or folders with a tnvfs.log")
      ->required()
      ->option_text(" ");
  auto* slowest = app->add_option("--slowest", options->slowest,
                                  "Shows the N slowest requests instead of the table")
                      ->check(CLI::Range(1, 1000000))
                      ->option_text("N");
  auto* request = app->add_option("--request", options->request,
                                  "Shows the lines of the request with this id or transaction id, "
                                  "and of all that its open file was asked for")
                      ->check(check_id)
                      ->excludes(slowest)
                      ->option_text("ID");
  auto* follow = app->add_flag("--follow", options->follow,
                               "Goes on reading the last log and shows its requests as they are "
                               "answered; Ctrl-C ends it with the table")
                     ->excludes(request)
                     ->option_text(" ");
  auto* json = app->add_flag("--json", options->json, "Writes JSON")->option_text(" ");
  auto* redact = app->add_option("--redact", options->redacted,
                                 "Writes a copy that can be shared: no tokens and passwords, and "
                                 "for each name a pseudonym")
                     ->option_text("FILE");
  for (CLI::Option* other : {slowest, request, follow, json}) {
    redact->excludes(other);
  }
}

std::string report_of(const Trace& trace, const Options& options) {
  if (options.slowest > 0) {
    return options.json ? slowest_json(trace, options.slowest)
                        : slowest_text(trace, options.slowest);
  }
  return options.json ? table_json(trace) : table_text(trace);
}

void pause_until_more() {
  for (int i = 0; i < 5 && !interrupted(); i++) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
}

void follow(const std::string& file, const Options& options, Trace* trace) {
  Follower follower(file);
  const auto add = [trace](std::string_view line) { trace->add(line); };
  follower.poll(add);
  for (size_t shown = trace->requests().size(); !interrupted(); pause_until_more()) {
    follower.poll(add);
    for (; shown < trace->requests().size(); shown++) {
      const Request& request = trace->requests()[shown];
      fmt::print("{}",
                 options.json ? request_json(*trace, request) : request_text(*trace, request));
    }
    fflush(stdout);
  }
}

ExitStatus report(std::vector<std::string> files, const Options& options) {
  Trace trace;
  const std::string last = files.back();
  if (options.follow) {
    files.pop_back();
  }
  for (const std::string& file : files) {
    read_lines(file, [&trace](std::string_view line) { trace.add(line); });
  }
  if (options.follow) {
    follow(last, options, &trace);
  }
  fmt::print("{}", report_of(trace, options));
  return EXIT_OK;
}

ExitStatus show_request(const std::vector<std::string>& files, const Options& options) {
  const std::vector<std::string> lines = lines_of_request(files, options.request);
  if (lines.empty()) {
    throw std::runtime_error("no line of a request " + options.request);
  }
  if (options.json) {
    fmt::print("{}", matching_lines_json(lines));
  } else {
    fmt::print("{}\n", fmt::join(lines, "\n"));
  }
  return EXIT_OK;
}

ExitStatus redact(const std::vector<std::string>& files, const Options& options) {
  const std::filesystem::path path(std::u8string(options.redacted.begin(), options.redacted.end()));
  if (std::filesystem::exists(path)) {
    throw std::runtime_error(options.redacted + ": is there already");
  }
  std::ofstream copy(path, std::ios::binary);
  Redactor redactor;
  for (const std::string& file : files) {
    read_lines(file, [&](std::string_view line) {
      if (const auto redacted = redactor.line(line)) {
        copy << *redacted << '\n';
      }
    });
  }
  copy.close();
  if (!copy) {
    throw std::runtime_error(options.redacted + ": cannot be written");
  }
  fmt::print("{}: {} lines without their text, {} lines left out, and {} rows of dumps\n",
             options.redacted, redactor.without_text(), redactor.left_out(), redactor.dump_rows());
  return EXIT_OK;
}

ExitStatus run(const Options& options) {
  const std::vector<std::string> files = find_log_files(options.logs);
  if (!options.request.empty()) {
    return show_request(files, options);
  }
  return options.redacted.empty() ? report(files, options) : redact(files, options);
}

ExitStatus run(const std::vector<std::string>& arguments) {
  Options options;
  CLI::App app(DESCRIPTION, "tnwlog");
  app.footer(FOOTER);
  declare_options(&app, &options);
  if (const auto status = tools::parse_command_line(&app, arguments)) {
    return *status;
  }
  return run(options);
}

}  // namespace
}  // namespace tnwlog

int main(int argc, char** argv) {
  return tools::run_program("tnwlog",
                            [&] { return tnwlog::run(tnwlog::set_up_console(argc, argv)); });
}
