/* cat, get and put. */
#include <fmt/format.h>

#include "commands.h"
#include "transfer.h"
#include "tree_copy.h"

namespace tnwsh {
namespace {

struct Transfer {
  std::string from;
  std::string to;
  bool tree = false;
};

void refuse_folder(const std::string& path, const std::string& hint) {
  throw Failure(path, "is a folder, not a file" + hint);
}

constexpr char TREE_HINT[] = "; -r copies folders";

void run_cat(Shell& shell, const std::string& path) {
  Drive& drive = shell.drive();
  const Entry entry = drive.get(path);
  if (entry.folder) {
    refuse_folder(path, "");
  }
  read_all(drive, path, entry.size, [](const char* data, size_t count, uint64_t) {
    if (fwrite(data, 1, count, stdout) != count) {
      throw Failure("Standard output", "cannot be written");
    }
  });
}

std::string bytes_copied(uint64_t bytes) { return grouped_digits(bytes) + " bytes"; }

/*
 * Where `get` writes: the path itself, or below it when it is a folder. The drive's top folder has
 * no name: what is in it goes there directly.
 */
std::string get_target(const Entry& entry, const std::string& local) {
  if (entry.name.empty()) {
    return local.empty() ? "." : local;
  }
  return local.empty() ? entry.name : is_local_folder(local) ? local + '\\' + entry.name : local;
}

void run_get(Shell& shell, const Transfer& get) {
  Drive& drive = shell.drive();
  const Entry entry = drive.get(get.from);
  const std::string target = get_target(entry, get.to);
  if (entry.folder) {
    if (!get.tree) {
      refuse_folder(get.from, TREE_HINT);
    }
    TreeCopy(drive, shell.options().progress).get(get.from, target);
    return;
  }
  const Transferred sum = get_file(drive, get.from, entry.size, target, shell.options().progress);
  print_transfer(get.from, target, bytes_copied(sum.bytes), sum);
}

/* Where `put` writes: the path itself, or below it when it is, or is written as, a folder. */
std::string put_target(Drive& drive, const std::string& local, const std::string& remote) {
  const std::string name = name_of(absolute_path(local));
  if (remote.empty()) {
    return join_path("/", name);
  }
  const bool written_as_folder = remote.back() == '/' || remote.back() == '\\';
  const std::optional<Entry> entry = drive.find(remote);
  return written_as_folder || (entry && entry->folder) ? join_path(remote, name) : remote;
}

void run_put(Shell& shell, const Transfer& put) {
  const bool folder = is_local_folder(put.from);
  if (folder && !put.tree) {
    refuse_folder(put.from, TREE_HINT);
  }
  if (!folder) {
    LocalFile::open_to_read(put.from); /* what cannot be read needs no drive */
  }
  Drive& drive = shell.drive();
  const std::string target = put_target(drive, put.from, put.to);
  if (folder) {
    TreeCopy(drive, shell.options().progress).put(put.from, target);
    return;
  }
  const Transferred sum = put_file(drive, put.from, target, shell.options().progress);
  print_transfer(put.from, target, bytes_copied(sum.bytes), sum);
}

}  // namespace

void declare_transfers(CLI::App* app, Action* action) {
  constexpr char TREE_DETAILS[] =
      "With -r it goes on past what fails, tells it at once and lists it at the end. Links to "
      "folders\n"
      "of this machine are not followed.";
  auto [cat, path] = add_command(app, action, "cat", "Writes a file to standard output", run_cat,
                                 {READ_ANSWERS, PATH_ANSWERS, DRIVE_ANSWERS});
  cat->add_option("PATH", *path, "A file of the drive")->required();

  auto [get, got] =
      add_command(app, action, "get", "Copies a file or folder of the drive to this machine",
                  run_get, {READ_ANSWERS, PATH_ANSWERS, DRIVE_ANSWERS}, TREE_DETAILS);
  get->add_option("REMOTE", got->from, "A file of the drive, or with -r a folder")->required();
  get->add_option("LOCAL", got->to,
                  "The copy, or a folder for it (default: this folder); replaced when complete");
  get->add_flag("-r,--recursive", got->tree, "Copies a folder and all below it");

  auto [put, sent] =
      add_command(app, action, "put", "Copies a file or folder of this machine to the drive",
                  run_put, {WRITE_ANSWERS, PATH_ANSWERS, DRIVE_ANSWERS}, TREE_DETAILS);
  put->add_option("LOCAL", sent->from, "A file of this machine, or with -r a folder")->required();
  put->add_option("REMOTE", sent->to,
                  "The copy, or a folder for it (default: the drive's top folder)");
  put->add_flag("-r,--recursive", sent->tree, "Copies a folder and all below it");
}

}  // namespace tnwsh
