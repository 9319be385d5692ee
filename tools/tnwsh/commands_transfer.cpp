/* cat, get and put. */
#include <fmt/format.h>

#include <CLI/CLI.hpp>

#include "commands.h"
#include "local_file.h"
#include "text.h"
#include "transfer.h"
#include "tree_copy.h"

namespace tnwsh {
namespace {

struct Transfer {
  std::string from;
  std::string to;
  bool tree = false;
};

void RefuseFolder(const std::string& path, const std::string& hint) {
  throw Failure(path, "is a folder, not a file" + hint);
}

constexpr char kTreeHint[] = "; -r copies folders";

void Cat(Shell& shell, const std::string& path) {
  Drive& drive = shell.TheDrive();
  const Entry entry = drive.Get(path);
  if (entry.folder) {
    RefuseFolder(path, "");
  }
  ReadAll(drive, path, entry.size, [](const char* data, size_t count, uint64_t) {
    if (fwrite(data, 1, count, stdout) != count) {
      throw Failure("Standard output", "cannot be written");
    }
  });
}

std::string BytesCopied(uint64_t bytes) { return GroupedDigits(bytes) + " bytes"; }

/*
 * Where `get` writes: the path itself, or below it when it is a folder. The drive's top folder has
 * no name: what is in it goes there directly.
 */
std::string GetTarget(const Entry& entry, const std::string& local) {
  if (entry.name.empty()) {
    return local.empty() ? "." : local;
  }
  return local.empty() ? entry.name : IsLocalFolder(local) ? local + '\\' + entry.name : local;
}

void Get(Shell& shell, const Transfer& get) {
  Drive& drive = shell.TheDrive();
  const Entry entry = drive.Get(get.from);
  const std::string target = GetTarget(entry, get.to);
  if (entry.folder) {
    if (!get.tree) {
      RefuseFolder(get.from, kTreeHint);
    }
    TreeCopy(drive, shell.Given().progress).Get(get.from, target);
    return;
  }
  const Transferred sum = GetFile(drive, get.from, entry.size, target, shell.Given().progress);
  PrintTransfer(get.from, target, BytesCopied(sum.bytes), sum);
}

/* Where `put` writes: the path itself, or below it when it is, or is written as, a folder. */
std::string PutTarget(Drive& drive, const std::string& local, const std::string& remote) {
  const std::string name = NameOf(AbsolutePath(local));
  if (remote.empty()) {
    return JoinPath("/", name);
  }
  const bool written_as_folder = remote.back() == '/' || remote.back() == '\\';
  const std::optional<Entry> entry = drive.Find(remote);
  return written_as_folder || (entry && entry->folder) ? JoinPath(remote, name) : remote;
}

void Put(Shell& shell, const Transfer& put) {
  const bool folder = IsLocalFolder(put.from);
  if (folder && !put.tree) {
    RefuseFolder(put.from, kTreeHint);
  }
  if (!folder) {
    LocalFile::OpenToRead(put.from); /* what cannot be read needs no drive */
  }
  Drive& drive = shell.TheDrive();
  const std::string target = PutTarget(drive, put.from, put.to);
  if (folder) {
    TreeCopy(drive, shell.Given().progress).Put(put.from, target);
    return;
  }
  const Transferred sum = PutFile(drive, put.from, target, shell.Given().progress);
  PrintTransfer(put.from, target, BytesCopied(sum.bytes), sum);
}

}  // namespace

void DeclareCat(CLI::App* command, Action* action) {
  auto path = std::make_shared<std::string>();
  command->add_option("PATH", *path, "A file of the drive")->required();
  command->callback([=] { *action = [=](Shell& shell) { Cat(shell, *path); }; });
}

void DeclareGet(CLI::App* command, Action* action) {
  auto get = std::make_shared<Transfer>();
  command->add_option("REMOTE", get->from, "A file of the drive, or with -r a folder")->required();
  command->add_option(
      "LOCAL", get->to,
      "The copy, or a folder for it (default: this folder); replaced when complete");
  command->add_flag("-r,--recursive", get->tree, "Copies a folder and all below it");
  command->callback([=] { *action = [=](Shell& shell) { Get(shell, *get); }; });
}

void DeclarePut(CLI::App* command, Action* action) {
  auto put = std::make_shared<Transfer>();
  command->add_option("LOCAL", put->from, "A file of this machine, or with -r a folder")
      ->required();
  command->add_option("REMOTE", put->to,
                      "The copy, or a folder for it (default: the drive's top folder)");
  command->add_flag("-r,--recursive", put->tree, "Copies a folder and all below it");
  command->callback([=] { *action = [=](Shell& shell) { Put(shell, *put); }; });
}

}  // namespace tnwsh
