/*
 * The commands, the same on the command line and at the prompt. A new one is a line in the table of
 * commands.cpp and a Declare function in the file of its group.
 */
#ifndef TNWSH_COMMANDS_H
#define TNWSH_COMMANDS_H

#include <functional>

#include "shell.h"

namespace CLI {
class App;
}

namespace tnwsh {

/* What a parsed command does. It throws a Failure, or a UsageError. */
using Action = std::function<void(Shell&)>;

/* Adds every command to `app`; parsing a command sets `*action`. */
void declare_commands(CLI::App* app, Action* action);

/* Each adds one command's arguments to its own parser. */
void declare_ls(CLI::App* command, Action* action);
void declare_tree(CLI::App* command, Action* action);
void declare_stat(CLI::App* command, Action* action);
void declare_cat(CLI::App* command, Action* action);
void declare_get(CLI::App* command, Action* action);
void declare_put(CLI::App* command, Action* action);
void declare_mv(CLI::App* command, Action* action);
void declare_rm(CLI::App* command, Action* action);
void declare_mkdir(CLI::App* command, Action* action);
void declare_truncate(CLI::App* command, Action* action);
void declare_lock(CLI::App* command, Action* action);
void declare_unlock(CLI::App* command, Action* action);
void declare_regions(CLI::App* command, Action* action);
void declare_token(CLI::App* command, Action* action);
void declare_proxy(CLI::App* command, Action* action);
void declare_purge(CLI::App* command, Action* action);

}  // namespace tnwsh

#endif
