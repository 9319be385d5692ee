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

constexpr char kDescription[] =
    "Reads the logs of cloud drives: how often each operation was asked for, and how long the\n"
    "answers took.";

constexpr char kFooter[] =
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
std::string CheckId(const std::string& id) {
  static const TextPattern request("<m>");
  static const TextPattern transaction("<d>");
  Pieces pieces;
  return request.Match(id, &pieces) || transaction.Match(id, &pieces)
             ? ""
             : '"' + id + "\" is neither a request's id nor a transaction's number";
}

void DeclareOptions(CLI::App* app, Options* options) {
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
                      ->check(CheckId)
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

std::string ReportOf(const Trace& trace, const Options& options) {
  if (options.slowest > 0) {
    return options.json ? SlowestJson(trace, options.slowest) : SlowestText(trace, options.slowest);
  }
  return options.json ? TableJson(trace) : TableText(trace);
}

void PauseUntilMore() {
  for (int i = 0; i < 5 && !Interrupted(); i++) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
}

void Follow(const std::string& file, const Options& options, Trace* trace) {
  Follower follower(file);
  const auto add = [trace](std::string_view line) { trace->Add(line); };
  follower.Poll(add);
  for (size_t shown = trace->Requests().size(); !Interrupted(); PauseUntilMore()) {
    follower.Poll(add);
    for (; shown < trace->Requests().size(); shown++) {
      const Request& request = trace->Requests()[shown];
      fmt::print("{}", options.json ? RequestJson(*trace, request) : RequestText(*trace, request));
    }
    fflush(stdout);
  }
}

ExitStatus Report(std::vector<std::string> files, const Options& options) {
  Trace trace;
  const std::string last = files.back();
  if (options.follow) {
    files.pop_back();
  }
  for (const std::string& file : files) {
    ReadLines(file, [&trace](std::string_view line) { trace.Add(line); });
  }
  if (options.follow) {
    Follow(last, options, &trace);
  }
  fmt::print("{}", ReportOf(trace, options));
  return kSuccess;
}

ExitStatus ShowRequest(const std::vector<std::string>& files, const Options& options) {
  const std::vector<std::string> lines = LinesOfRequest(files, options.request);
  if (lines.empty()) {
    throw std::runtime_error("no line of a request " + options.request);
  }
  if (options.json) {
    fmt::print("{}", MatchingLinesJson(lines));
  } else {
    fmt::print("{}\n", fmt::join(lines, "\n"));
  }
  return kSuccess;
}

ExitStatus Redact(const std::vector<std::string>& files, const Options& options) {
  const std::filesystem::path path(std::u8string(options.redacted.begin(), options.redacted.end()));
  if (std::filesystem::exists(path)) {
    throw std::runtime_error(options.redacted + ": is there already");
  }
  std::ofstream copy(path, std::ios::binary);
  Redactor redactor;
  for (const std::string& file : files) {
    ReadLines(file, [&](std::string_view line) {
      if (const auto redacted = redactor.Line(line)) {
        copy << *redacted << '\n';
      }
    });
  }
  copy.close();
  if (!copy) {
    throw std::runtime_error(options.redacted + ": cannot be written");
  }
  fmt::print("{}: {} lines without their text, {} lines left out, and {} rows of dumps\n",
             options.redacted, redactor.WithoutText(), redactor.LeftOut(), redactor.DumpRows());
  return kSuccess;
}

ExitStatus Run(const Options& options) {
  const std::vector<std::string> files = FindLogFiles(options.logs);
  if (!options.request.empty()) {
    return ShowRequest(files, options);
  }
  return options.redacted.empty() ? Report(files, options) : Redact(files, options);
}

ExitStatus Main(const std::vector<std::string>& arguments) {
  Options options;
  CLI::App app(kDescription, "tnwlog");
  app.footer(kFooter);
  DeclareOptions(&app, &options);
  if (const auto status = tools::ParseCommandLine(&app, arguments)) {
    return *status;
  }
  return Run(options);
}

}  // namespace
}  // namespace tnwlog

int main(int argc, char** argv) {
  return tools::RunProgram("tnwlog",
                           [&] { return tnwlog::Main(tnwlog::SetUpConsole(argc, argv)); });
}
