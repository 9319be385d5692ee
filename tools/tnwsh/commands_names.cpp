/* stat, mv, rm and mkdir: what paths name. */
#include <fmt/format.h>
#include <windows.h>

#include <CLI/CLI.hpp>

#include <cstring>

#include "commands.h"

namespace tnwsh {
namespace {

std::string attributes_text(uint32_t attributes) {
  constexpr struct {
    uint32_t bit;
    const char* name;
  } NAMES[] = {
      {FILE_ATTRIBUTE_READONLY, "read-only"}, {FILE_ATTRIBUTE_HIDDEN, "hidden"},
      {FILE_ATTRIBUTE_SYSTEM, "system"},      {FILE_ATTRIBUTE_DIRECTORY, "folder"},
      {FILE_ATTRIBUTE_ARCHIVE, "archive"},    {FILE_ATTRIBUTE_REPARSE_POINT, "link"},
  };
  std::string text = fmt::format("0x{:x}", attributes);
  for (const auto& [bit, name] : NAMES) {
    text += (attributes & bit) != 0 ? std::string(" ") + name : "";
  }
  return text;
}

void print_field(const char* name, const std::string& value) {
  if (!value.empty()) {
    fmt::print("{:<12}{}\n", name, value);
  }
}

void run_stat(Shell& shell, const std::string& path) {
  const tnw_fileinfo info = shell.drive().info(path);
  const std::string name = field_text(info.fi_name);
  print_field("name", name.empty() ? "/" : name);
  print_field("size", (info.fi_attr & FILE_ATTRIBUTE_DIRECTORY) != 0
                          ? ""
                          : grouped_digits(info.fi_size) + " bytes");
  print_field("attributes", attributes_text(info.fi_attr));
  print_field("created", local_time_text(info.fi_ctime));
  print_field("modified", local_time_text(info.fi_mtime));
  print_field("accessed", local_time_text(info.fi_atime));
  print_field("id", field_text(info.fi_id));
  print_field("locked", info.fi_locked == 0 ? "" : "by " + field_text(info.fi_lockowner.lk_uname));
  print_field("shared", field_text(info.fi_collab));
  print_field("checksum", field_text(info.fi_cksum));
}

/* A folder takes the item; but the item itself in another spelling is a rename of its own. */
void run_mv(Shell& shell, const std::string& source, const std::string& target) {
  Drive& drive = shell.drive();
  const std::optional<Entry> there = drive.find(target);
  const bool into = there && there->folder && there->id != drive.get(source).id;
  drive.rename(source, into ? join_path(target, name_of(source)) : target);
}

void run_rm(Shell& shell, const std::string& path, bool check) {
  Drive& drive = shell.drive();
  if (!check) {
    drive.remove(path);
  } else if (!drive.can_delete(path)) {
    throw Failure(path,
                  "may not be deleted now: it is open, read-only or a folder that is not empty");
  } else {
    fmt::print("{}: may be deleted\n", path);
  }
}

}  // namespace

void declare_stat(CLI::App* command, Action* action) {
  auto path = std::make_shared<std::string>();
  command->add_option("PATH", *path, "A file or folder of the drive")->required();
  command->callback([=] { *action = [=](Shell& shell) { run_stat(shell, *path); }; });
}

void declare_mv(CLI::App* command, Action* action) {
  auto source = std::make_shared<std::string>();
  auto target = std::make_shared<std::string>();
  command->add_option("SOURCE", *source, "A file or folder of the drive")->required();
  command->add_option("TARGET", *target, "Its new path, or a folder that takes it")->required();
  command->callback([=] { *action = [=](Shell& shell) { run_mv(shell, *source, *target); }; });
}

void declare_rm(CLI::App* command, Action* action) {
  struct Arguments {
    std::string path;
    bool check = false;
  };
  auto arguments = std::make_shared<Arguments>();
  command->add_option("PATH", arguments->path, "A file or empty folder of the drive")->required();
  command->add_flag("--check", arguments->check,
                    "Deletes nothing, only says whether it may be deleted now");
  command->callback(
      [=] { *action = [=](Shell& shell) { run_rm(shell, arguments->path, arguments->check); }; });
}

void declare_mkdir(CLI::App* command, Action* action) {
  auto path = std::make_shared<std::string>();
  command->add_option("PATH", *path, "The new folder; its own folder is there")->required();
  command->callback([=] { *action = [=](Shell& shell) { shell.drive().make_folder(*path); }; });
}

}  // namespace tnwsh
