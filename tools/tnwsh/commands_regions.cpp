/* regions: what of a file is in the local cache, and what the service still has to write back. */
#include <fmt/format.h>

#include <algorithm>

#include "commands.h"
#include "json_line.h"
#include "region_maps.h"
#include "transfer.h"

namespace tnwsh {
namespace {

struct Arguments {
  std::string path;
  std::vector<uint64_t> read;    /* empty, or the offset and the length */
  std::vector<uint64_t> rewrite; /* empty, or the offset and the length */
  bool json = false;
};

/* Goes over a range of the file as a program would, so that its maps change. */
void touch(RemoteFile& file, const std::string& path, const std::vector<uint64_t>& range,
           bool write) {
  constexpr uint64_t CHUNK = 1 << 20;
  std::vector<char> buffer(CHUNK);
  uint64_t done = 0;
  while (done < range[1]) {
    stop_when_interrupted(path);
    const size_t want = static_cast<size_t>(std::min(CHUNK, range[1] - done));
    const size_t count = file.read(range[0] + done, buffer.data(), want);
    if (count == 0) {
      return;
    }
    if (write) {
      file.write(range[0] + done, buffer.data(), count);
    }
    done += count;
  }
}

void print_maps_json(const std::string& path, const RegionMaps& maps) {
  nlohmann::ordered_json json = {{"file", path}, {"size", maps.file_size}, {"maps", maps.there}};
  if (maps.there) {
    json["region_size"] = maps.region_size;
    json["regions"] = maps.regions;
    json["cached"] = maps.cached;
    json["dirty"] = maps.dirty;
  }
  print_json(json);
}

void print_map(const char* name, const std::vector<RegionRun>& runs, uint64_t regions,
               uint64_t cells) {
  fmt::print("{:<7}[{}]  {} of {}\n", name, strip(runs, regions, cells),
             grouped_digits(count_of(runs)), grouped_digits(regions));
}

void print_text(const std::string& path, const RegionMaps& maps) {
  constexpr int NUMBERS_WIDTH = 34; /* the columns beside the strip */
  const std::string size = grouped_digits(maps.file_size) + " bytes";
  if (!maps.there) {
    fmt::print("{}: {}, without region maps: all of it counts as cached and dirty\n", path, size);
    return;
  }
  const uint64_t width = static_cast<uint64_t>(std::max(terminal_width() - NUMBERS_WIDTH, 8));
  const uint64_t cells = std::min(maps.regions, width);
  fmt::print("{}: {}, {} of {}\n", path, size, counted(maps.regions, "region"),
             bytes_text(static_cast<double>(maps.region_size)));
  print_map("cached", maps.cached, maps.regions, cells);
  print_map("dirty", maps.dirty, maps.regions, cells);
  if (cells < maps.regions) {
    fmt::print("A character is {} to {} regions: # all, + some, . none\n", maps.regions / cells,
               (maps.regions + cells - 1) / cells);
  }
}

RemoteFile* held_file(Shell& shell, const std::string& path) {
  for (const HeldLock& lock : shell.locks()) {
    if (path_key(lock.path) == path_key(path)) {
      return lock.file.get();
    }
  }
  return nullptr;
}

/* The handle of a lock shows its own maps. A write needs a handle that may write. */
void run_regions(Shell& shell, const Arguments& arguments) {
  const bool write = !arguments.rewrite.empty();
  Drive& drive = shell.drive();
  std::unique_ptr<RemoteFile> own;
  RemoteFile* file = write ? nullptr : held_file(shell, arguments.path);
  if (file == nullptr) {
    own = std::make_unique<RemoteFile>(drive, arguments.path,
                                       write ? RemoteFile::Mode::CHANGE : RemoteFile::Mode::HOLD);
    file = own.get();
  }
  if (!arguments.read.empty()) {
    touch(*file, arguments.path, arguments.read, false);
  }
  if (write) {
    touch(*file, arguments.path, arguments.rewrite, true);
  }
  const RegionMaps maps(file->handle());
  (arguments.json ? print_maps_json : print_text)(arguments.path, maps);
  if (own != nullptr) {
    own->close();
  }
}

}  // namespace

void declare_regions(CLI::App* app, Action* action) {
  auto [regions, arguments] = add_command(
      app, action, "regions", "Draws which regions of a file are cached here, and which are dirty",
      run_regions, {READ_ANSWERS, PATH_ANSWERS, DRIVE_ANSWERS},
      "These are the maps of an open: of the one that a lock of the prompt holds, or of a new "
      "one.\n"
      "Dirty regions are those that the service expects to be written; only an open that writes "
      "knows them. One character is one region, or several: # all of them, + some, . none.\n"
      "In JSON a map is a list of [first region, count].");
  const auto range = [command = regions](const char* name, std::vector<uint64_t>& value,
                                         const char* help) {
    command->add_option(name, value, help)
        ->expected(2)
        ->transform(CLI::AsSizeValue(false).description(""))
        ->option_text("OFFSET LENGTH");
  };
  regions->add_option("FILE", arguments->path, "A file of the drive")->required();
  range("--read", arguments->read, "Reads a range first");
  range("--rewrite", arguments->rewrite,
        "Reads a range first and writes the same bytes again, in an open of its own");
  regions->add_flag("--json", arguments->json, JSON_HELP);
}

}  // namespace tnwsh
