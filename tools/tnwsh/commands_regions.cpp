/* regions: what of a file is in the local cache, and what the service still has to write back. */
#include <fmt/format.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "console.h"
#include "region_maps.h"
#include "text.h"
#include "transfer.h"

namespace tnwsh {
namespace {

struct Arguments {
  std::string path;
  std::vector<uint64_t> read;    /* none, or offset and length */
  std::vector<uint64_t> rewrite; /* the same */
  bool json = false;
};

/* Goes over a range of the file as a program would, so that its maps change. */
void Touch(RemoteFile& file, const std::string& path, const std::vector<uint64_t>& range,
           bool write) {
  constexpr uint64_t kChunk = 1 << 20;
  std::vector<char> buffer(kChunk);
  uint64_t done = 0;
  while (done < range[1]) {
    StopWhenInterrupted(path);
    const size_t want = static_cast<size_t>(std::min(kChunk, range[1] - done));
    const size_t count = file.Read(range[0] + done, buffer.data(), want);
    if (count == 0) {
      return;
    }
    if (write) {
      file.Write(range[0] + done, buffer.data(), count);
    }
    done += count;
  }
}

void PrintJson(const std::string& path, const RegionMaps& maps) {
  nlohmann::ordered_json json = {{"file", path}, {"size", maps.file_size}, {"maps", maps.there}};
  if (maps.there) {
    json["region_size"] = maps.region_size;
    json["regions"] = maps.regions;
    json["cached"] = maps.cached;
    json["dirty"] = maps.dirty;
  }
  constexpr auto kReplace = nlohmann::ordered_json::error_handler_t::replace;
  fmt::print("{}\n", json.dump(-1, ' ', false, kReplace));
}

void PrintMap(const char* name, const std::vector<RegionRun>& runs, uint64_t regions,
              uint64_t cells) {
  fmt::print("{:<7}[{}]  {} of {}\n", name, Strip(runs, regions, cells),
             GroupedDigits(CountOf(runs)), GroupedDigits(regions));
}

void PrintText(const std::string& path, const RegionMaps& maps) {
  constexpr int kNumbersWidth = 34; /* beside the strip */
  const std::string size = GroupedDigits(maps.file_size) + " bytes";
  if (!maps.there) {
    fmt::print("{}: {}, without region maps: all of it counts as cached and dirty\n", path, size);
    return;
  }
  const uint64_t width = static_cast<uint64_t>(std::max(TerminalWidth() - kNumbersWidth, 8));
  const uint64_t cells = std::min(maps.regions, width);
  fmt::print("{}: {}, {} of {}\n", path, size, Counted(maps.regions, "region"),
             BytesText(static_cast<double>(maps.region_size)));
  PrintMap("cached", maps.cached, maps.regions, cells);
  PrintMap("dirty", maps.dirty, maps.regions, cells);
  if (cells < maps.regions) {
    fmt::print("A character is {} to {} regions: # all, + some, . none\n", maps.regions / cells,
               (maps.regions + cells - 1) / cells);
  }
}

RemoteFile* HeldFile(Shell& shell, const std::string& path) {
  for (const HeldLock& lock : shell.Locks()) {
    if (PathKey(lock.path) == PathKey(path)) {
      return lock.file.get();
    }
  }
  return nullptr;
}

/* The open of a lock shows its own maps; a write wants an open of its own. */
void Regions(Shell& shell, const Arguments& arguments) {
  const bool write = !arguments.rewrite.empty();
  Drive& drive = shell.TheDrive();
  std::unique_ptr<RemoteFile> own;
  RemoteFile* file = write ? nullptr : HeldFile(shell, arguments.path);
  if (file == nullptr) {
    own = std::make_unique<RemoteFile>(drive, arguments.path,
                                       write ? RemoteFile::Mode::kChange : RemoteFile::Mode::kHold);
    file = own.get();
  }
  if (!arguments.read.empty()) {
    Touch(*file, arguments.path, arguments.read, false);
  }
  if (write) {
    Touch(*file, arguments.path, arguments.rewrite, true);
  }
  const RegionMaps maps(file->Handle());
  (arguments.json ? PrintJson : PrintText)(arguments.path, maps);
  if (own != nullptr) {
    own->Close();
  }
}

}  // namespace

void DeclareRegions(CLI::App* command, Action* action) {
  auto arguments = std::make_shared<Arguments>();
  const auto range = [&](const char* name, std::vector<uint64_t>& value, const char* help) {
    command->add_option(name, value, help)
        ->expected(2)
        ->transform(CLI::AsSizeValue(false).description(""))
        ->option_text("OFFSET LENGTH");
  };
  command->add_option("FILE", arguments->path, "A file of the drive")->required();
  range("--read", arguments->read, "Reads a range first");
  range("--rewrite", arguments->rewrite,
        "Reads a range first and writes the same bytes again, in an open of its own");
  command->add_flag("--json", arguments->json, "For programs: one line of JSON");
  command->callback([=] { *action = [=](Shell& shell) { Regions(shell, *arguments); }; });
}

}  // namespace tnwsh
