/* What the programs of this folder do alike: the command line, the exit status, the last word. */
#ifndef TOOLS_COMMON_PROGRAM_H
#define TOOLS_COMMON_PROGRAM_H

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace tools {

enum ExitStatus { EXIT_OK = 0, EXIT_FAILED = 1, EXIT_USAGE = 2 };

/* A command line, or a line of a prompt, that makes no sense. */
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/*
 * Reads the command line's words into the options that `app` declares. A status means that the
 * program ends at once: its user asked for help, or the words make no sense. The user was told.
 */
std::optional<ExitStatus> parse_command_line(CLI::App* app, std::vector<std::string> words);

/*
 * The status of `run`. Where that throws, or where not all of the standard output can be written,
 * the user is told and the status is EXIT_USAGE for a UsageError and EXIT_FAILED for the rest.
 */
ExitStatus run_program(const char* name, const std::function<ExitStatus()>& run);

}  // namespace tools

#endif
