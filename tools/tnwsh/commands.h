/*
 * The commands, the same on the command line and at the prompt. Each is added by the file of its
 * group.
 */
#ifndef TNWSH_COMMANDS_H
#define TNWSH_COMMANDS_H

#include <CLI/CLI.hpp>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "answers.h"
#include "shell.h"

namespace tnwsh {

/* What a parsed command does. It throws a Failure, or a UsageError. */
using Action = std::function<void(Shell&)>;

/* Adds every command to `app`; parsing a command sets `*action`. */
void declare_commands(CLI::App* app, Action* action);

/* Each adds the commands of one group. */
void declare_listings(CLI::App* app, Action* action);
void declare_transfers(CLI::App* app, Action* action);
void declare_name_commands(CLI::App* app, Action* action);
void declare_open_file_commands(CLI::App* app, Action* action);
void declare_regions(CLI::App* app, Action* action);
void declare_service_commands(CLI::App* app, Action* action);

/*
 * Adds the parser of a command. Its help says what it may answer; of several tables that know a
 * code the first one counts.
 */
CLI::App* add_parser(CLI::App* app, const char* name, const char* help,
                     const std::vector<Answers>& answers, const char* details);

/* Adds a command to `app`. What its words are parsed into is handed to `run`. */
template <typename Arguments>
std::pair<CLI::App*, Arguments*> add_command(CLI::App* app, Action* action, const char* name,
                                             const char* help,
                                             void (*run)(Shell&, const Arguments&),
                                             const std::vector<Answers>& answers,
                                             const char* details = "") {
  CLI::App* command = add_parser(app, name, help, answers, details);
  auto arguments = std::make_shared<Arguments>();
  command->callback([=] { *action = [=](Shell& shell) { run(shell, *arguments); }; });
  return {command, arguments.get()};
}

}  // namespace tnwsh

#endif
