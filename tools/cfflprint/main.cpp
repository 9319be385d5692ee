/* cfflprint: prints, checks and makes cloud file lists. */
#include <fmt/format.h>

#include <CLI/CLI.hpp>

#include <algorithm>

#include "list_check.h"
#include "list_file.h"
#include "list_json.h"
#include "make_list.h"
#include "tn_util.h"
#include "tools/common/console.h"
#include "tools/common/program.h"
#include "tools/common/text.h"

namespace cfflprint {
namespace {

constexpr char DESCRIPTION[] =
    "Prints a cloud file list, as the library's listings show it; or checks or makes one.";

const std::string FOOTER = fmt::format(
    "--make lists the files and folders of DIR, not what is in those. A file's digest is SHA-512 "
    "over the whole file; its checksum has version 1 and counts chunks of {} bytes, none in "
    "an empty file. Identifiers follow from paths and revisions from contents, so they stay the "
    "same as long as those do. Names are UTF-8; one of more than 244 bytes is refused, and then "
    "no list is written. There is no hash table.\n\n"
    "Exit status: 0, 1 when the list is damaged or an operation failed, 2 when the command line "
    "makes no sense.",
    CHUNK_SIZE);

struct Options {
  std::string file;
  bool entries = false;
  bool brief = false;
  bool hash = false;
  bool check = false;
  bool json = false;
  std::string make;
  std::string user = "me";
};

void declare_options(CLI::App* app, Options* options) {
  app->add_option("FILE", options->file, "The list")->required()->option_text(" ");
  const auto flag = [app](const char* name, bool& value, const char* help) {
    return app->add_flag(name, value, help)->option_text(" ");
  };
  std::vector<CLI::Option*> forms = {
      flag("--entries", options->entries, "Shows the entries as a drive would: file information"),
      flag("--brief", options->brief, "Shows the entries with their checksums alone"),
      flag("--hash", options->hash, "Shows the hash table, too"),
      flag("--check", options->check,
           "Checks every offset, length, count and text; says what is wrong and at which byte"),
      app->add_option("--make", options->make, "Writes FILE: the list of a real folder")
          ->option_text("DIR")};
  for (size_t i = 1; i < forms.size(); i++) {
    for (size_t j = 0; j < i; j++) {
      forms[i]->excludes(forms[j]);
    }
  }
  auto* json = flag("--json", options->json, "Writes JSON; with --check, what is wrong");
  for (CLI::Option* form : forms) {
    if (form->get_name() != "--check") {
      json->excludes(form);
    }
  }
  app->add_option("--user", options->user, "With --make: who owns everything, at most 63 bytes")
      ->check([](const std::string& user) {
        return user.size() < 64 ? std::string() : "a user's name takes at most 63 bytes";
      })
      ->needs(forms.back())
      ->option_text("TEXT=me");
}

void print_faults(FILE* stream, const std::string& path, const std::vector<Fault>& faults) {
  for (const Fault& fault : faults) {
    fmt::print(stream, "{}: byte {}, {}: {}\n", path, fault.offset, fault.where, fault.what);
  }
}

tools::ExitStatus check(const Options& options) {
  const std::vector<Fault> faults = check_list(file_bytes(options.file));
  if (options.json) {
    fmt::print("{}", faults_json(options.file, faults));
  } else {
    print_faults(stdout, options.file, faults);
    fmt::print("{}: {}\n", options.file,
               faults.empty() ? "a valid list" : tools::counted(faults.size(), "fault"));
  }
  return faults.empty() ? tools::EXIT_OK : tools::EXIT_FAILED;
}

void print_file_information(const cfs_path* cfp) {
  tnw_fileinfo info;
  tn_cfp2fi(&info, cfp);
  fmt::print("{:>12} {:<6} {} {} {}\n", info.fi_size, info.fi_attr == 16 ? "folder" : "file",
             tools::local_time_text(info.fi_mtime), info.fi_id, tools::field_text(info.fi_name));
  if (info.fi_cksum[0] != '\0') {
    fmt::print("{:>12} {}\n", "", info.fi_cksum);
  }
}

void print(const cfs_cffl* list, const Options& options) {
  if (options.json) {
    fmt::print("{}", list_json(list));
  } else if (options.brief) {
    tn_print_cffl_finfo(list);
  } else if (options.entries) {
    for (auto* cfp = tn_get_first_cfp(list); cfp != nullptr; cfp = tn_get_next_cfp(list, cfp)) {
      print_file_information(cfp);
    }
  } else {
    tn_print_cffl(list, options.hash ? 1 : 0);
  }
}

/* Refuses a damaged list: the library would end the process when it walks over one. */
tools::ExitStatus check_and_print(const Options& options) {
  const List list = read_list(options.file);
  const auto* bytes = reinterpret_cast<const uint8_t*>(list.get());
  const uint64_t size = std::max<uint64_t>(list->cfh_head.cf_size, sizeof(cfs_cffl));
  const std::vector<Fault> faults = check_list({bytes, size});
  if (!can_be_walked(faults)) {
    print_faults(stderr, options.file, faults);
    return tools::EXIT_FAILED;
  }
  print(list.get(), options);
  return tools::EXIT_OK;
}

tools::ExitStatus run(const Options& options) {
  if (!options.make.empty()) {
    make_list(options.make, options.file, options.user);
    return tools::EXIT_OK;
  }
  return options.check ? check(options) : check_and_print(options);
}

tools::ExitStatus run(const std::vector<std::string>& words) {
  Options options;
  CLI::App app(DESCRIPTION, "cfflprint");
  app.footer(FOOTER);
  declare_options(&app, &options);
  const auto status = tools::parse_command_line(&app, words);
  return status ? *status : run(options);
}

}  // namespace
}  // namespace cfflprint

int main(int argc, char** argv) {
  return tools::run_program("cfflprint",
                            [&] { return cfflprint::run(tools::set_up_console(argc, argv)); });
}
