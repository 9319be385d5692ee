/* What the programs of this folder do alike: the command line, the exit status, the last word. */
#ifndef TOOLS_PROGRAM_H
#define TOOLS_PROGRAM_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace tools {

enum ExitStatus { EXIT_OK = 0, EXIT_FAILED = 1, EXIT_USAGE = 2 };

/*
 * Reads the command line's words into the options that `app` declares. A status is what the program
 * is to end with at once: it was asked for help, or the words make no sense, which is told.
 */
std::optional<ExitStatus> parse_command_line(CLI::App* app, std::vector<std::string> words);

/*
 * What main returns: the status of `run`, or EXIT_FAILED after telling what it threw, or that not
 * all of the standard output could be written.
 */
int run_program(const char* name, const std::function<ExitStatus()>& run);

}  // namespace tools

#endif
