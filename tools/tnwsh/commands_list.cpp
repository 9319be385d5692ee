/* ls and tree. */
#include <fmt/format.h>

#include <CLI/CLI.hpp>

#include <algorithm>

#include "commands.h"
#include "console.h"
#include "text.h"

namespace tnwsh {
namespace {

struct Totals {
  uint64_t files = 0;
  uint64_t folders = 0;
  uint64_t bytes = 0;

  void Count(const Entry& entry) {
    (entry.folder ? folders : files)++;
    bytes += entry.size;
  }
  void Print() const {
    fmt::print("{} and {}, {}\n", Counted(files, "file"), Counted(folders, "folder"),
               BytesText(static_cast<double>(bytes)));
  }
};

void PrintLong(const Entry& entry) {
  fmt::print("{}  {:>17}  {}{}\n", LocalTimeText(entry.modified),
             entry.folder ? "folder" : GroupedDigits(entry.size), entry.name,
             entry.folder ? "/" : "");
}

void Ls(Shell& shell, const std::string& path, bool names_only) {
  const Entry named = shell.TheDrive().Get(path);
  const std::vector<Entry> entries =
      named.folder ? shell.TheDrive().List(path) : std::vector<Entry>{named};
  Totals totals;
  for (const Entry& entry : entries) {
    totals.Count(entry);
    if (names_only) {
      fmt::print("{}\n", entry.name);
    } else {
      PrintLong(entry);
    }
  }
  if (named.folder && !names_only) {
    totals.Print();
  }
}

class TreePrinter {
 public:
  TreePrinter(Drive& drive, int depth) : drive_(drive), depth_(depth) {}

  void Print(const std::string& path, const std::string& id, const std::string& lead = "",
             int level = 1) {
    const std::vector<Entry> entries = drive_.List(path);
    above_.push_back(id);
    for (const Entry& entry : entries) {
      if (Interrupted()) {
        throw Failure(path, "interrupted");
      }
      const bool last = &entry == &entries.back();
      fmt::print("{}{}{}{}\n", lead, last ? "└── " : "├── ", entry.name, entry.folder ? "/" : "");
      totals_.Count(entry);
      if (entry.folder && level != depth_ && !LeadsBack(entry)) {
        Print(JoinPath(path, entry.name), entry.id, lead + (last ? "    " : "│   "), level + 1);
      }
    }
    above_.pop_back();
  }
  const Totals& Sum() const { return totals_; }

 private:
  /* A link to a folder that leads to it. */
  bool LeadsBack(const Entry& entry) const {
    return std::find(above_.begin(), above_.end(), entry.id) != above_.end();
  }

  Drive& drive_;
  const int depth_;                /* 0: all */
  std::vector<std::string> above_; /* the ids of the folders that are being printed */
  Totals totals_;
};

void Tree(Shell& shell, const std::string& path, int depth) {
  TreePrinter printer(shell.TheDrive(), depth);
  const Entry top = shell.TheDrive().Get(path);
  fmt::print("{}\n", path);
  printer.Print(path, top.id);
  printer.Sum().Print();
}

}  // namespace

void DeclareLs(CLI::App* command, Action* action) {
  struct Arguments {
    std::string path = "/";
    bool names_only = false;
  };
  auto arguments = std::make_shared<Arguments>();
  command->add_option("PATH", arguments->path, "A folder or file of the drive");
  command->add_flag("-1,--names", arguments->names_only, "Names only, one a line");
  command->callback(
      [=] { *action = [=](Shell& shell) { Ls(shell, arguments->path, arguments->names_only); }; });
}

void DeclareTree(CLI::App* command, Action* action) {
  struct Arguments {
    std::string path = "/";
    int depth = 0;
  };
  auto arguments = std::make_shared<Arguments>();
  command->add_option("PATH", arguments->path, "A folder of the drive");
  command->add_option("-d,--depth", arguments->depth, "Levels of folders to show (0: all)")
      ->check(CLI::NonNegativeNumber);
  command->callback(
      [=] { *action = [=](Shell& shell) { Tree(shell, arguments->path, arguments->depth); }; });
}

}  // namespace tnwsh
