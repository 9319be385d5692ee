/* ls and tree. */
#include <fmt/format.h>

#include <algorithm>

#include "commands.h"
#include "json_line.h"

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

struct LsArguments {
  std::string path = "/";
  bool names_only = false;
  bool json = false;
};

void print_entries_json(const std::vector<Entry>& entries) {
  nlohmann::ordered_json json = nlohmann::ordered_json::array();
  for (const Entry& entry : entries) {
    json.push_back({{"name", entry.name},
                    {"folder", entry.folder},
                    {"size", entry.size},
                    {"modified", utc_text(entry.modified)},
                    {"id", entry.id}});
  }
  print_json(json);
}

void run_ls(Shell& shell, const LsArguments& ls) {
  const Entry named = shell.drive().get(ls.path);
  const std::vector<Entry> entries =
      named.folder ? shell.drive().list(ls.path) : std::vector<Entry>{named};
  if (ls.json) {
    return print_entries_json(entries);
  }
  Totals totals;
  for (const Entry& entry : entries) {
    totals.count(entry);
    if (ls.names_only) {
      fmt::print("{}\n", entry.name);
    } else {
      print_long(entry);
    }
  }
  if (named.folder && !ls.names_only) {
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
  /* A link to a folder that is being printed already. */
  bool leads_back(const Entry& entry) const {
    return std::find(above_.begin(), above_.end(), entry.id) != above_.end();
  }

  Drive& drive_;
  const int depth_;                /* 0: all levels */
  std::vector<std::string> above_; /* the ids of the folders that are being printed */
  Totals totals_;
};

struct TreeArguments {
  std::string path = "/";
  int depth = 0;
};

void run_tree(Shell& shell, const TreeArguments& tree) {
  TreePrinter printer(shell.drive(), tree.depth);
  const Entry top = shell.drive().get(tree.path);
  fmt::print("{}\n", tree.path);
  printer.print(tree.path, top.id);
  printer.sum().print();
}

}  // namespace

void declare_listings(CLI::App* app, Action* action) {
  auto [ls, listed] = add_command(app, action, "ls", "Lists a folder, or shows one file", run_ls,
                                  {LIST_ANSWERS, PATH_ANSWERS, DRIVE_ANSWERS});
  ls->add_option("PATH", listed->path, "A folder or file of the drive");
  ls->add_flag("-1,--names", listed->names_only, "Names only, one a line");
  ls->add_flag("--json", listed->json, JSON_HELP)->excludes("--names");

  auto [tree, top] = add_command(app, action, "tree", "Lists a folder and all below it", run_tree,
                                 {LIST_ANSWERS, PATH_ANSWERS, DRIVE_ANSWERS});
  tree->add_option("PATH", top->path, "A folder of the drive");
  tree->add_option("-d,--depth", top->depth, "Levels of folders to show (0: all)")
      ->check(CLI::NonNegativeNumber);
}

}  // namespace tnwsh
