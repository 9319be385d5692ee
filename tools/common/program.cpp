#include "tools/common/program.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>

#include <algorithm>

#include "tools/common/text.h"

namespace tools {

std::optional<ExitStatus> parse_command_line(CLI::App* app, std::vector<std::string> words) {
  app->allow_windows_style_options(false); /* "/docs" is a path */
  app->set_version_flag("--version", app->get_name() + " " TNW_VERSION,
                        "Print the version and exit");
  std::reverse(words.begin(), words.end()); /* as the parser takes them */
  try {
    app->parse(words);
  } catch (const CLI::CallForHelp&) {
    fmt::print("{}", wrapped(app->help()));
    return EXIT_OK;
  } catch (const CLI::CallForVersion&) {
    fmt::print("{}\n", app->version());
    return EXIT_OK;
  } catch (const CLI::ParseError& error) {
    fmt::print(stderr, "{}: {}\nRun with --help for more.\n", app->get_name(), error.what());
    return EXIT_USAGE;
  }
  return std::nullopt;
}

ExitStatus run_program(const char* name, const std::function<ExitStatus()>& run) {
  const auto tell = [name](const std::exception& error, ExitStatus status) {
    fflush(stdout);
    fmt::print(stderr, "{}: {}\n", name, error.what());
    return status;
  };
  try {
    const ExitStatus status = run();
    if (fflush(stdout) != 0) {
      throw std::runtime_error("standard output cannot be written");
    }
    return status;
  } catch (const UsageError& error) {
    return tell(error, EXIT_USAGE);
  } catch (const std::exception& error) {
    return tell(error, EXIT_FAILED);
  }
}

}  // namespace tools
