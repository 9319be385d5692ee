#include "commands.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>

#include <initializer_list>
#include <map>

#include "answers.h"

namespace tnwsh {
namespace {

constexpr char TREE_DETAILS[] =
    "With -r it goes on past what fails, tells it at once and lists it at the end. Links to "
    "folders\n"
    "of this machine are not followed.";

struct Command {
  const char* name;
  const char* help;
  void (*declare)(CLI::App* command, Action* action);
  /* What it may answer; of several tables that know a code the first one counts. */
  std::initializer_list<Answers> answers;
  const char* details = "";
};

const Command COMMANDS[] = {
    {"ls",
     "Lists a folder, or shows one file",
     declare_ls,
     {LIST_ANSWERS, PATH_ANSWERS, DRIVE_ANSWERS}},
    {"tree",
     "Lists a folder and all below it",
     declare_tree,
     {LIST_ANSWERS, PATH_ANSWERS, DRIVE_ANSWERS}},
    {"stat",
     "Shows all that the cloud tells of a file or folder",
     declare_stat,
     {PATH_ANSWERS, DRIVE_ANSWERS}},
    {"cat",
     "Writes a file to standard output",
     declare_cat,
     {READ_ANSWERS, PATH_ANSWERS, DRIVE_ANSWERS}},
    {"get",
     "Copies a file or folder of the drive to this machine",
     declare_get,
     {READ_ANSWERS, PATH_ANSWERS, DRIVE_ANSWERS},
     TREE_DETAILS},
    {"put",
     "Copies a file or folder of this machine to the drive",
     declare_put,
     {WRITE_ANSWERS, PATH_ANSWERS, DRIVE_ANSWERS},
     TREE_DETAILS},
    {"mv",
     "Renames or moves a file or folder; replaces nothing",
     declare_mv,
     {RENAME_ANSWERS, PATH_ANSWERS, DRIVE_ANSWERS}},
    {"rm",
     "Deletes a file or an empty folder",
     declare_rm,
     {DELETE_ANSWERS, PATH_ANSWERS, DRIVE_ANSWERS}},
    {"mkdir", "Makes a folder", declare_mkdir, {MAKE_FOLDER_ANSWERS, PATH_ANSWERS, DRIVE_ANSWERS}},
    {"truncate",
     "Sets a file's size: cuts it, or adds zeros",
     declare_truncate,
     {WRITE_ANSWERS, PATH_ANSWERS, DRIVE_ANSWERS}},
    {"lock",
     "Locks a range of a file, or lists the locks that are held",
     declare_lock,
     {LOCK_ANSWERS, PATH_ANSWERS, DRIVE_ANSWERS},
     "A lock lives as long as the open that took it: at the prompt until unlock or exit, as a\n"
     "command of its own until Ctrl-C. A conflict is answered at once. Locks are judged among\n"
     "themselves; reads and writes do not look at them."},
    {"unlock",
     "Lifts a lock of this shell",
     declare_unlock,
     {UNLOCK_ANSWERS, DRIVE_ANSWERS},
     "The range is exactly one that was locked; \"lock\" alone lists them."},
    {"regions",
     "Draws which regions of a file are cached here, and which are dirty",
     declare_regions,
     {READ_ANSWERS, PATH_ANSWERS, DRIVE_ANSWERS},
     "These are the maps of an open: of the one that a lock of the prompt holds, or of a new one.\n"
     "Dirty regions are those that the service expects to be written; only an open that writes\n"
     "knows them. One character is one region, or several: # all of them, + some, . none.\n"
     "In JSON a map is a list of [first region, count]."},
    {"token",
     "Hands a new access token to the cache service",
     declare_token,
     {TOKEN_ANSWERS, DRIVE_ANSWERS}},
    {"proxy",
     "Tells the cache service the HTTP proxy to use",
     declare_proxy,
     {PROXY_ANSWERS, DRIVE_ANSWERS},
     "It counts for as long as this shell runs."},
    {"purge",
     "Deletes the user's cache on this machine",
     declare_purge,
     {PURGE_ANSWERS},
     "Changes that are not in the cloud yet are lost. A drive of this shell is stopped first."},
};

std::string footer(const Command& command) {
  std::map<uint32_t, std::string> meanings;
  for (const Answers& table : command.answers) {
    for (const Answer& answer : table) {
      meanings.emplace(answer.code, meaning_of(answer.code, table));
    }
  }
  std::string text = command.details;
  text += text.empty() ? "" : "\n\n";
  text += "May answer, beside other codes of Windows:";
  for (const auto& [code, meaning] : meanings) {
    text += fmt::format("\n  {:>4}  {}", code, meaning);
  }
  return text + '\n';
}

}  // namespace

void declare_commands(CLI::App* app, Action* action) {
  app->allow_windows_style_options(false); /* "/docs" is a path */
  for (const Command& command : COMMANDS) {
    CLI::App* parser = app->add_subcommand(command.name, command.help);
    parser->group("Commands");
    command.declare(parser, action);
    parser->footer([&command] { return footer(command); });
  }
}

}  // namespace tnwsh
