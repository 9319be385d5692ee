/* ls and tree. */
#include <fmt/format.h>

#include <CLI/CLI.hpp>

#include <algorithm>

#include "commands.h"

namespace tnwsh {
namespace {

struct Totals {
  uint64_t files = 0;
  uint64_t folders = 0;
  uint64_t bytes = 0;

  void count(const Entry& entry) {
    (entry.folder ? folders : files)++;
    bytes += entry.size;
  }
  void print() const {
    fmt::print("{} and {}, {}\n", counted(files, "file"), counted(folders, "folder"),
               bytes_text(static_cast<double>(bytes)));
  }
};

void print_long(const Entry& entry) {
  fmt::print("{}  {:>17}  {}{}\n", local_time_text(entry.modified),
             entry.folder ? "folder" : grouped_digits(entry.size), entry.name,
             entry.folder ? "/" : "");
}

void run_ls(Shell& shell, const std::string& path, bool names_only) {
  const Entry named = shell.drive().get(path);
  const std::vector<Entry> entries =
      named.folder ? shell.drive().list(path) : std::vector<Entry>{named};
  Totals totals;
  for (const Entry& entry : entries) {
    totals.count(entry);
    if (names_only) {
      fmt::print("{}\n", entry.name);
    } else {
      print_long(entry);
    }
  }
  if (named.folder && !names_only) {
    totals.print();
  }
}

class TreePrinter {
 public:
  TreePrinter(Drive& drive, int depth) : drive_(drive), depth_(depth) {}

  void print(const std::string& path, const std::string& id, const std::string& lead = "",
             int level = 1) {
    const std::vector<Entry> entries = drive_.list(path);
    above_.push_back(id);
    for (const Entry& entry : entries) {
      if (interrupted()) {
        throw Failure(path, "interrupted");
      }
      const bool last = &entry == &entries.back();
      fmt::print("{}{}{}{}\n", lead, last ? "└── " : "├── ", entry.name, entry.folder ? "/" : "");
      totals_.count(entry);
      if (entry.folder && level != depth_ && !leads_back(entry)) {
        print(join_path(path, entry.name), entry.id, lead + (last ? "    " : "│   "), level + 1);
      }
    }
    above_.pop_back();
  }
  const Totals& sum() const { return totals_; }

 private:
  /* A link to a folder that leads to it. */
  bool leads_back(const Entry& entry) const {
    return std::find(above_.begin(), above_.end(), entry.id) != above_.end();
  }

  Drive& drive_;
  const int depth_;                /* 0: all */
  std::vector<std::string> above_; /* the ids of the folders that are being printed */
  Totals totals_;
};

void run_tree(Shell& shell, const std::string& path, int depth) {
  TreePrinter printer(shell.drive(), depth);
  const Entry top = shell.drive().get(path);
  fmt::print("{}\n", path);
  printer.print(path, top.id);
  printer.sum().print();
}

}  // namespace

void declare_ls(CLI::App* command, Action* action) {
  struct Arguments {
    std::string path = "/";
    bool names_only = false;
  };
  auto arguments = std::make_shared<Arguments>();
  command->add_option("PATH", arguments->path, "A folder or file of the drive");
  command->add_flag("-1,--names", arguments->names_only, "Names only, one a line");
  command->callback([=] {
    *action = [=](Shell& shell) { run_ls(shell, arguments->path, arguments->names_only); };
  });
}

void declare_tree(CLI::App* command, Action* action) {
  struct Arguments {
    std::string path = "/";
    int depth = 0;
  };
  auto arguments = std::make_shared<Arguments>();
  command->add_option("PATH", arguments->path, "A folder of the drive");
  command->add_option("-d,--depth", arguments->depth, "Levels of folders to show (0: all)")
      ->check(CLI::NonNegativeNumber);
  command->callback(
      [=] { *action = [=](Shell& shell) { run_tree(shell, arguments->path, arguments->depth); }; });
}

}  // namespace tnwsh
