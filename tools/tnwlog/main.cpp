/* tnwlog: reads the library's logs, tnvfs.log and its rotated files. */
#include <fmt/format.h>

#include <CLI/CLI.hpp>

#include <chrono>
#include <thread>

#include "log_files.h"
#include "page.h"
#include "redactor.h"
#include "report.h"
#include "request_lines.h"
#include "text_pattern.h"
#include "tools/common/console.h"
#include "tools/common/program.h"

namespace tnwlog {
namespace {

constexpr char DESCRIPTION[] =
    "Reads the logs of cloud drives: how often each operation was asked for, and how long the "
    "answers took.";

constexpr char FOOTER[] =
    "Response times come from the event lines, which are there when the cache service gives "
    "transaction ids, or else from the distance of two lines at debug level 3 and above.\n"
    "Exit status: 0, 1 when a file cannot be read or written or nothing is found, 2 when the "
    "command line makes no sense.";

using tools::ExitStatus;
using enum tools::ExitStatus;

struct Options {
  std::vector<std::string> logs;
  size_t slowest = 0; /* 0: shows the table */
  std::string request;
  std::string page;
  std::string redacted;
  bool follow = false;
  bool json = false;
};

/* Returns what is wrong with the id, or an empty text. */
std::string check_id(const std::string& id) {
  static const TextPattern REQUEST("<m>");
  static const TextPattern TRANSACTION("<d>");
  Match match;
  return REQUEST.match(id, &match) || TRANSACTION.match(id, &match)
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
  auto* page = app->add_option("--html", options->page,
                               "Writes a page for a browser: the requests over time, latency by "
                               "operation, the slowest. Of a redacted log it holds no names")
                   ->option_text("FILE");
  for (CLI::Option* other : {slowest, request, follow, json}) {
    redact->excludes(other);
    page->excludes(other);
  }
  page->excludes(redact);
}

void pause_until_more() {
  for (int i = 0; i < 5 && !tools::interrupted(); i++) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
}

/* Requests are shown one pause after their answer, and kept only in the sums of the report. */
void follow(const std::string& file, const Options& options, Trace* trace, Report* report) {
  Follower follower(file);
  const auto show = [&](const std::vector<Request>& requests) {
    for (const Request& request : requests) {
      report->add(request);
      fmt::print("{}", options.json ? request_json(request) : request_text(request));
    }
    fflush(stdout);
  };
  const auto add = [trace](std::string_view line) { trace->add(line); };
  follower.poll(add);
  for (const Request& request : trace->take_all()) { /* of before */
    report->add(request);
  }
  for (; !tools::interrupted(); pause_until_more()) {
    follower.poll(add);
    show(trace->take_settled());
  }
  show(trace->take_all());
}

ExitStatus show_report(std::vector<std::string> files, const Options& options) {
  Trace trace;
  Report report(options.slowest);
  const std::string last = files.back();
  if (options.follow) {
    files.pop_back();
  }
  read_lines(files, [&trace](std::string_view line) { trace.add(line); });
  if (options.follow) {
    follow(last, options, &trace, &report);
  }
  for (const Request& request : trace.take_all()) {
    report.add(request);
  }
  const bool slowest = options.slowest > 0;
  fmt::print("{}", options.json ? (slowest ? slowest_json : table_json)(report, trace)
                                : (slowest ? slowest_text : table_text)(report, trace));
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
  Redactor redactor;
  write_redacted(files, options.redacted, &redactor);
  fmt::print("{}: {} lines without their text, {} lines left out, and {} rows of dumps\n",
             options.redacted, redactor.without_text(), redactor.left_out(), redactor.dump_rows());
  return EXIT_OK;
}

ExitStatus run(const Options& options) {
  const std::vector<std::string> files = find_log_files(options.logs);
  if (!options.page.empty()) {
    write_page(files, options.page);
    return EXIT_OK;
  }
  if (!options.request.empty()) {
    return show_request(files, options);
  }
  return options.redacted.empty() ? show_report(files, options) : redact(files, options);
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
                            [&] { return tnwlog::run(tools::set_up_console(argc, argv)); });
}
