#include "commands.h"

#include <CLI/CLI.hpp>

namespace tnwsh {
namespace {

struct Command {
  const char* name;
  const char* help;
  void (*declare)(CLI::App* command, Action* action);
};

constexpr Command kCommands[] = {
    {"ls", "Lists a folder, or shows one file", DeclareLs},
    {"tree", "Lists a folder and all below it", DeclareTree},
    {"cat", "Writes a file to standard output", DeclareCat},
    {"get", "Copies a file of the drive to this machine", DeclareGet},
    {"put", "Copies a file of this machine to the drive", DeclarePut},
};

}  // namespace

void DeclareCommands(CLI::App* app, Action* action) {
  app->allow_windows_style_options(false);  // "/docs" is a path
  for (const Command& command : kCommands) {
    CLI::App* parser = app->add_subcommand(command.name, command.help);
    parser->group("Commands");
    command.declare(parser, action);
  }
}

}  // namespace tnwsh
