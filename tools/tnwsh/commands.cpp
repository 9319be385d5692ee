#include "commands.h"

#include <fmt/format.h>

#include <map>

namespace tnwsh {
namespace {

std::string footer(const std::vector<Answers>& answers, const char* details) {
  std::map<uint32_t, std::string> meanings;
  for (const Answers& table : answers) {
    for (const Answer& answer : table) {
      meanings.emplace(answer.code, meaning_of(answer.code, table));
    }
  }
  std::string text = details;
  text += text.empty() ? "" : "\n\n";
  text += "May answer, beside other codes of Windows:";
  for (const auto& [code, meaning] : meanings) {
    text += fmt::format("\n  {:>4}  {}", code, meaning);
  }
  return text + '\n';
}

}  // namespace

CLI::App* add_parser(CLI::App* app, const char* name, const char* help,
                     const std::vector<Answers>& answers, const char* details) {
  CLI::App* parser = app->add_subcommand(name, help);
  parser->group("Commands");
  parser->footer([answers, details] { return footer(answers, details); });
  return parser;
}

void declare_commands(CLI::App* app, Action* action) {
  app->allow_windows_style_options(false); /* "/docs" is a path */
  declare_listings(app, action);
  declare_transfers(app, action);
  declare_name_commands(app, action);
  declare_open_file_commands(app, action);
  declare_regions(app, action);
  declare_service_commands(app, action);
}

}  // namespace tnwsh
