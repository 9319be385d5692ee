/* stat, mv, rm and mkdir: what paths name. */
#include <fmt/format.h>
#include <windows.h>

#include <CLI/CLI.hpp>

#include <cstring>

#include "commands.h"
#include "text.h"

namespace tnwsh {
namespace {

template <size_t N>
std::string FieldText(const char (&field)[N]) {
  return std::string(field, strnlen(field, N));
}

std::string AttributesText(uint32_t attributes) {
  constexpr struct {
    uint32_t bit;
    const char* name;
  } kNames[] = {
      {FILE_ATTRIBUTE_READONLY, "read-only"}, {FILE_ATTRIBUTE_HIDDEN, "hidden"},
      {FILE_ATTRIBUTE_SYSTEM, "system"},      {FILE_ATTRIBUTE_DIRECTORY, "folder"},
      {FILE_ATTRIBUTE_ARCHIVE, "archive"},    {FILE_ATTRIBUTE_REPARSE_POINT, "link"},
  };
  std::string text = fmt::format("0x{:x}", attributes);
  for (const auto& [bit, name] : kNames) {
    text += (attributes & bit) != 0 ? std::string(" ") + name : "";
  }
  return text;
}

void PrintField(const char* name, const std::string& value) {
  if (!value.empty()) {
    fmt::print("{:<12}{}\n", name, value);
  }
}

void Stat(Shell& shell, const std::string& path) {
  const tnw_fileinfo info = shell.TheDrive().Info(path);
  const std::string name = FieldText(info.fi_name);
  PrintField("name", name.empty() ? "/" : name);
  PrintField("size", (info.fi_attr & FILE_ATTRIBUTE_DIRECTORY) != 0
                         ? ""
                         : GroupedDigits(info.fi_size) + " bytes");
  PrintField("attributes", AttributesText(info.fi_attr));
  PrintField("created", LocalTimeText(info.fi_ctime));
  PrintField("modified", LocalTimeText(info.fi_mtime));
  PrintField("accessed", LocalTimeText(info.fi_atime));
  PrintField("id", FieldText(info.fi_id));
  PrintField("locked", info.fi_locked == 0 ? "" : "by " + FieldText(info.fi_lockowner.lk_uname));
  PrintField("shared", FieldText(info.fi_collab));
  PrintField("checksum", FieldText(info.fi_cksum));
}

/* A folder takes the item; but the item itself in another spelling is a rename of its own. */
void Mv(Shell& shell, const std::string& source, const std::string& target) {
  Drive& drive = shell.TheDrive();
  const std::optional<Entry> there = drive.Find(target);
  const bool into = there && there->folder && there->id != drive.Get(source).id;
  drive.Rename(source, into ? JoinPath(target, NameOf(source)) : target);
}

void Rm(Shell& shell, const std::string& path, bool check) {
  Drive& drive = shell.TheDrive();
  if (!check) {
    drive.Delete(path);
  } else if (!drive.CanDelete(path)) {
    throw Failure(path,
                  "may not be deleted now: it is open, read-only or a folder that is not empty");
  } else {
    fmt::print("{}: may be deleted\n", path);
  }
}

}  // namespace

void DeclareStat(CLI::App* command, Action* action) {
  auto path = std::make_shared<std::string>();
  command->add_option("PATH", *path, "A file or folder of the drive")->required();
  command->callback([=] { *action = [=](Shell& shell) { Stat(shell, *path); }; });
}

void DeclareMv(CLI::App* command, Action* action) {
  auto source = std::make_shared<std::string>();
  auto target = std::make_shared<std::string>();
  command->add_option("SOURCE", *source, "A file or folder of the drive")->required();
  command->add_option("TARGET", *target, "Its new path, or a folder that takes it")->required();
  command->callback([=] { *action = [=](Shell& shell) { Mv(shell, *source, *target); }; });
}

void DeclareRm(CLI::App* command, Action* action) {
  struct Arguments {
    std::string path;
    bool check = false;
  };
  auto arguments = std::make_shared<Arguments>();
  command->add_option("PATH", arguments->path, "A file or empty folder of the drive")->required();
  command->add_flag("--check", arguments->check,
                    "Deletes nothing, only says whether it may be deleted now");
  command->callback(
      [=] { *action = [=](Shell& shell) { Rm(shell, arguments->path, arguments->check); }; });
}

void DeclareMkdir(CLI::App* command, Action* action) {
  auto path = std::make_shared<std::string>();
  command->add_option("PATH", *path, "The new folder; its own folder is there")->required();
  command->callback([=] { *action = [=](Shell& shell) { shell.TheDrive().MakeFolder(*path); }; });
}

}  // namespace tnwsh
