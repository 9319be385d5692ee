#include "prompt.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>

#include <algorithm>

#include "commands.h"

namespace tnwsh {
namespace {

/* Where a comment begins, or the end of the line. */
size_t comment_start(const std::string& line) {
  bool quoted = false;
  for (size_t i = 0; i < line.size(); i++) {
    quoted = quoted != (line[i] == '"');
    if (line[i] == '#' && !quoted && (i == 0 || line[i - 1] == ' ' || line[i - 1] == '\t')) {
      return i;
    }
  }
  return line.size();
}

/* Messages do not show the line, which may hold a token. */
std::vector<std::string> split_words(const std::string& line) {
  const std::string command = line.substr(0, comment_start(line));
  if (std::count(command.begin(), command.end(), '"') % 2 != 0) {
    throw UsageError("A quote (\") is not closed");
  }
  const std::wstring wide = wide_from_utf8(command);
  if (wide.empty() && !command.empty()) {
    throw UsageError("The line is no UTF-8");
  }
  return words_of((L"tnwsh " + wide).c_str());
}

class Prompt {
 public:
  explicit Prompt(Shell* shell) : shell_(shell) {}

  ExitStatus run() {
    const bool terminal = is_terminal(stdin);
    if (terminal) {
      fmt::print("Commands of the drive; \"help\" lists them.\n");
    }
    std::string line;
    while (!done_ && next(terminal, &line)) {
      last_ = run_line(line);
      worst_ = std::max(worst_, last_);
    }
    return terminal ? EXIT_OK : worst_;
  }

 private:
  static bool next(bool terminal, std::string* line) {
    if (terminal) {
      fmt::print("tnwsh> ");
    }
    fflush(stdout);
    return read_line(line);
  }

  ExitStatus run_line(const std::string& line) {
    Action action = [](Shell&) {};
    try {
      std::vector<std::string> words = split_words(line);
      if (words.empty()) {
        return last_;
      }
      parse(std::move(words), &action);
    } catch (const UsageError& error) {
      action = [text = std::string(error.what())](Shell&) { throw UsageError(text); };
    }
    return shell_->run(action);
  }

  /* A parser knows one line: CLI11 keeps what it has parsed. */
  void parse(std::vector<std::string> words, Action* action) {
    CLI::App app;
    declare(&app, action);
    find_command(app, words.front());
    std::reverse(words.begin(), words.end()); /* as the parser takes them */
    try {
      app.parse(words);
    } catch (const CLI::CallForHelp&) {
      *action = [text = wrapped(app.help())](Shell&) { fmt::print("{}", text); };
    } catch (const CLI::ParseError& error) {
      throw UsageError(error.what());
    }
  }

  static const CLI::App* find_command(const CLI::App& app, const std::string& name) {
    const auto named = [&](const CLI::App* command) { return command->check_name(name); };
    const std::vector<const CLI::App*> found = app.get_subcommands(named);
    if (found.empty()) {
      throw UsageError("No command \"" + name + "\"; \"help\" lists them");
    }
    return found.front();
  }

  void declare(CLI::App* app, Action* action) {
    app->name("")->description("Names with blanks stand in quotes; '#' begins a comment.");
    app->require_subcommand(1);
    app->get_formatter()->label("SUBCOMMAND", "COMMAND");
    declare_commands(app, action);
    declare_help(app, action);
    CLI::App* status = app->add_subcommand("status", "Shows how the last command ended");
    status->group("Commands")->callback([=, this] {
      *action = [last = last_](Shell&) { fmt::print("status {}\n", static_cast<int>(last)); };
    });
    CLI::App* exit = app->add_subcommand("exit", "Ends the prompt (also: quit)");
    exit->group("Commands")->alias("quit")->callback([this] { done_ = true; });
    app->set_help_flag(); /* the command "help" does this here */
  }

  /* Uses a new parser, because a used one shows the help of what it has parsed. */
  void declare_help(CLI::App* app, Action* action) {
    auto topic = std::make_shared<std::string>();
    CLI::App* help = app->add_subcommand("help", "Shows the commands, or one of them");
    help->group("Commands")->add_option("COMMAND", *topic, "A command");
    help->callback([=, this] {
      CLI::App fresh;
      declare(&fresh, action);
      const CLI::App* subject = topic->empty() ? &fresh : find_command(fresh, *topic);
      *action = [text = wrapped(subject->help())](Shell&) { fmt::print("{}", text); };
    });
  }

  Shell* const shell_;
  bool done_ = false;
  ExitStatus last_ = EXIT_OK;
  ExitStatus worst_ = EXIT_OK;
};

}  // namespace

ExitStatus run_prompt(Shell* shell) {
  shell->enter_prompt();
  return Prompt(shell).run();
}

}  // namespace tnwsh
