/* tnwsh: a drive application for the terminal. */
#include <CLI/CLI.hpp>

#include <map>

#include "commands.h"
#include "prompt.h"
#include "shell.h"

namespace tnwsh {
namespace {

constexpr char DESCRIPTION[] =
    "A cloud drive in the terminal. Without a command it prompts for them; \"help\" there lists "
    "them. Commands may also come from a file or a pipe, one a line.";

constexpr char FOOTER[] =
    "Exit status: 0, 1 when an operation failed, 2 when the command line makes no sense.\n"
    "Names are UTF-8; paths of the drive take '/' and '\\'.";

void declare_options(CLI::App* app, Options* options) {
  const std::map<std::string, ProgressMode> modes = {{"auto", ProgressMode::AUTO},
                                                     {"always", ProgressMode::ALWAYS},
                                                     {"never", ProgressMode::NEVER}};
  declare_drive_options(app, options);
  app->add_option("--progress", options->progress,
                  "The progress of long transfers: auto (on a terminal), always, never")
      ->transform(CLI::CheckedTransformer(modes))
      ->option_text("WHEN=auto");
}

/* The parser would print the words that it does not know. One may follow a mistyped --token. */
void refuse_extras(const CLI::App& app) {
  const std::vector<std::string> extras = app.remaining();
  if (!extras.empty()) {
    throw UsageError(app.count("--token") > 0
                         ? "There is a word too many. It may be of the token, and is not shown"
                         : "No command or option \"" + extras[0].substr(0, extras[0].find('=')) +
                               "\"; --help lists them");
  }
}

ExitStatus run(const std::vector<std::string>& words) {
  Options options;
  Action action;
  CLI::App app(DESCRIPTION, "tnwsh");
  app.footer(FOOTER);
  app.option_defaults()->take_last();
  app.get_formatter()->label("SUBCOMMAND", "COMMAND");
  declare_options(&app, &options);
  declare_commands(&app, &action);
  app.require_subcommand(0, 1);
  app.allow_extras();

  if (const auto status = parse_command_line(&app, words)) {
    return *status;
  }
  refuse_extras(app);
  Shell shell(std::move(options));
  return action ? shell.run(action) : run_prompt(&shell);
}

}  // namespace
}  // namespace tnwsh

int main(int argc, char** argv) {
  return tools::run_program("tnwsh", [&] { return tnwsh::run(tools::set_up_console(argc, argv)); });
}
