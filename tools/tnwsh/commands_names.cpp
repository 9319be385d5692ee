/* stat, mv, rm and mkdir: what paths name. */
#include <fmt/format.h>
#include <windows.h>

#include <cstring>

#include "commands.h"
#include "json_line.h"

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

struct StatArguments {
  std::string path;
  bool json = false;
};

std::string name_in(const tnw_fileinfo& info) {
  const std::string name = field_text(info.fi_name);
  return name.empty() ? "/" : name;
}

void print_info_json(const tnw_fileinfo& info) {
  nlohmann::ordered_json json = {{"name", name_in(info)},
                                 {"folder", (info.fi_attr & FILE_ATTRIBUTE_DIRECTORY) != 0},
                                 {"size", info.fi_size},
                                 {"attributes", info.fi_attr},
                                 {"created", utc_text(info.fi_ctime)},
                                 {"modified", utc_text(info.fi_mtime)},
                                 {"accessed", utc_text(info.fi_atime)},
                                 {"id", field_text(info.fi_id)}};
  if (info.fi_locked != 0) {
    json["locked_by"] = field_text(info.fi_lockowner.lk_uname);
  }
  json["checksum"] = field_text(info.fi_cksum);
  print_json(json);
}

void run_stat(Shell& shell, const StatArguments& stat) {
  const tnw_fileinfo info = shell.drive().info(stat.path);
  if (stat.json) {
    return print_info_json(info);
  }
  print_field("name", name_in(info));
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

struct MvArguments {
  std::string source;
  std::string target;
};

/* A target folder takes the item, unless it is the item itself in another spelling. */
void run_mv(Shell& shell, const MvArguments& mv) {
  Drive& drive = shell.drive();
  const std::optional<Entry> there = drive.find(mv.target);
  const bool into = there && there->folder && there->id != drive.get(mv.source).id;
  drive.rename(mv.source, into ? join_path(mv.target, name_of(mv.source)) : mv.target);
}

struct RmArguments {
  std::string path;
  bool check = false;
};

void run_rm(Shell& shell, const RmArguments& rm) {
  Drive& drive = shell.drive();
  if (!rm.check) {
    drive.remove(rm.path);
  } else if (!drive.can_delete(rm.path)) {
    throw Failure(rm.path,
                  "may not be deleted now: it is open, read-only or a folder that is not empty");
  } else {
    fmt::print("{}: may be deleted\n", rm.path);
  }
}

void run_mkdir(Shell& shell, const std::string& path) { shell.drive().make_folder(path); }

}  // namespace

void declare_name_commands(CLI::App* app, Action* action) {
  auto [stat, looked_at] =
      add_command(app, action, "stat", "Shows all that the cloud tells of a file or folder",
                  run_stat, {PATH_ANSWERS, DRIVE_ANSWERS});
  stat->add_option("PATH", looked_at->path, "A file or folder of the drive")->required();
  stat->add_flag("--json", looked_at->json, JSON_HELP);

  auto [mv, names] =
      add_command(app, action, "mv", "Renames or moves a file or folder; replaces nothing", run_mv,
                  {RENAME_ANSWERS, PATH_ANSWERS, DRIVE_ANSWERS});
  mv->add_option("SOURCE", names->source, "A file or folder of the drive")->required();
  mv->add_option("TARGET", names->target, "Its new path, or a folder that takes it")->required();

  auto [rm, removed] = add_command(app, action, "rm", "Deletes a file or an empty folder", run_rm,
                                   {DELETE_ANSWERS, PATH_ANSWERS, DRIVE_ANSWERS});
  rm->add_option("PATH", removed->path, "A file or empty folder of the drive")->required();
  rm->add_flag("--check", removed->check,
               "Deletes nothing, only says whether it may be deleted now");

  auto [mkdir, folder] = add_command(app, action, "mkdir", "Makes a folder", run_mkdir,
                                     {MAKE_FOLDER_ANSWERS, PATH_ANSWERS, DRIVE_ANSWERS});
  mkdir->add_option("PATH", *folder, "The new folder; its own folder is there")->required();
}

}  // namespace tnwsh
