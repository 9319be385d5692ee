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
void DeclareCommands(CLI::App* app, Action* action);

/* Each adds one command's arguments to its own parser. */
void DeclareLs(CLI::App* command, Action* action);
void DeclareTree(CLI::App* command, Action* action);
void DeclareStat(CLI::App* command, Action* action);
void DeclareCat(CLI::App* command, Action* action);
void DeclareGet(CLI::App* command, Action* action);
void DeclarePut(CLI::App* command, Action* action);
void DeclareMv(CLI::App* command, Action* action);
void DeclareRm(CLI::App* command, Action* action);
void DeclareMkdir(CLI::App* command, Action* action);
void DeclareTruncate(CLI::App* command, Action* action);
void DeclareLock(CLI::App* command, Action* action);
void DeclareUnlock(CLI::App* command, Action* action);
void DeclareRegions(CLI::App* command, Action* action);
void DeclareToken(CLI::App* command, Action* action);
void DeclareProxy(CLI::App* command, Action* action);
void DeclarePurge(CLI::App* command, Action* action);

}  // namespace tnwsh

#endif
