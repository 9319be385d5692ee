#include "kill_checks.h"

#include <windows.h>

#include <algorithm>

namespace fs = std::filesystem;

namespace {

constexpr ULONGLONG PATIENCE_MS = 60'000;

/* -1 when it is not just that. */
int version_in(int number, const std::string& text) {
  int file = 0;
  int version = 0;
  return begins_like(text, &file, &version) && text == content_of(number, version) ? version : -1;
}

bool is_conflict(const fs::path& path) {
  return path.filename().string().find("(conflict of ") != std::string::npos;
}

}  // namespace

/* The start of a round. */
void KillChecks::note_what_is_there() {
  notes_.killing = notes_.killed = false;
  for (int file = 0; file < KILL_FILES; file++) {
    const std::vector<std::string> paths = paths_of(file);
    KillFile& notes = notes_.files[file];
    before_[file] = paths.empty() ? 0 : version_in(file, drive_.get(paths[0]));
    notes.closed = notes.asked = before_[file];
    notes.begun = std::max(notes.begun.load(), before_[file]);
    notes.written = 0;
    notes_.places[file].now = notes_.places[file].next =
        !paths.empty() && paths[0].ends_with(" moved") ? 1 : 0;
  }
  for (int folder = 0; folder < KILL_FOLDERS; folder++) {
    notes_.folders[folder].now = notes_.folders[folder].next =
        fs::exists(drive_.in_cloud(kill_folder(folder, 1))) ? 1 : 0;
  }
  for (const auto& entry : fs::recursive_directory_iterator(drive_.in_cloud(""))) {
    if (is_conflict(entry.path())) {
      fs::remove(entry.path());
    }
  }
}

/* Where the file is, of the places where it may be. */
std::vector<std::string> KillChecks::paths_of(int file) const {
  std::vector<std::string> found;
  for (const int way : {0, 1, 2, 3}) {
    const std::string path = kill_path(file, way / 2, way % 2);
    const auto allows = [](const KillPlace& place, int at) {
      return place.now == at || place.next == at;
    };
    if (allows(notes_.folders[file % KILL_FOLDERS], way / 2) &&
        allows(notes_.places[file], way % 2) && fs::exists(drive_.in_cloud(path))) {
      found.push_back(path);
    }
  }
  return found;
}

/*
 * Whether a conflict copy has what was written of the newest version, or the service has kept it
 * aside: it does so when the client cut the file before the service had that on record.
 */
bool KillChecks::is_kept_beside(int number) const {
  const std::string written =
      content_of(number, notes_.files[number].begun)
          .substr(0, static_cast<size_t>(notes_.files[number].written) * KILL_PIECE);
  bool kept = written.empty();
  for (const auto& entry : fs::recursive_directory_iterator(drive_.in_cloud(""))) {
    kept = kept || (is_conflict(entry.path()) && read_file(entry.path()).starts_with(written));
  }
  const fs::path aside = fs::path(cache_dir(drive_.record)) / "files" / "kept";
  for (const auto& entry : fs::directory_iterator(aside)) {
    kept = kept || read_file(entry.path()).starts_with(written);
  }
  return kept;
}

/* What is wrong with the cloud; empty when nothing is. `settled`: nothing waits any more. */
std::string KillChecks::complaint(bool settled, bool writes_stay) const {
  for (int file = 0; file < KILL_FILES; file++) {
    const KillFile& notes = notes_.files[file];
    const std::vector<std::string> paths = paths_of(file);
    if (settled && paths.size() != 1 && (notes.closed > 0 || paths.size() > 1)) {
      return std::to_string(file) + " is there " + std::to_string(paths.size()) + " times";
    }
    int version = 0;
    for (const std::string& path : paths) {
      version = version_in(file, drive_.get(path));
      if (version < (settled ? notes.closed.load() : before_[file]) || version > notes.asked) {
        return path + " is version " + std::to_string(version) + ", was " +
               std::to_string(before_[file]) + ", closed " + std::to_string(notes.closed) +
               ", asked " + std::to_string(notes.asked);
      }
    }
    if (settled && writes_stay && version != notes.begun && !is_kept_beside(file)) {
      return std::to_string(notes.written) + " pieces of " + std::to_string(file) + " version " +
             std::to_string(notes.begun) + " are lost";
    }
  }
  return "";
}

std::string KillChecks::complaint_of_reads() const {
  for (int file = 0; file < KILL_FILES; file++) {
    for (const std::string& path : paths_of(file)) {
      DriveFile open(drive_, path);
      const bool fine = open.error() == 0 &&
                        version_in(file, open.read_all()) == version_in(file, drive_.get(path));
      if (const int closed = open.close(); !fine || closed != 0) {
        return path + ": open gives " + std::to_string(open.error()) + ", close " +
               std::to_string(closed);
      }
    }
  }
  return "";
}

/* A read that fails in good weather is a fault at once. */
std::string KillChecks::complaint_when_settled(bool writes_stay) const {
  std::string wrong;
  const ULONGLONG end = GetTickCount64() + PATIENCE_MS;
  do {
    Sleep(20);
    wrong = complaint(true, writes_stay);
    if (wrong.empty()) {
      wrong = complaint_of_reads();
      if (!notes_.weather) {
        break;
      }
    }
  } while (!wrong.empty() && GetTickCount64() < end);
  return wrong;
}

std::string KillChecks::what_the_services_said() const {
  std::string said;
  for (const auto& entry : fs::directory_iterator(drive_.folder / "log")) {
    for (const std::string& line : lines_of(read_file(entry.path()))) {
      const bool counts =
          line.find("ERR:") != std::string::npos && line.find("tnv_connio") == std::string::npos;
      said += counts || line.find("main.cpp") != std::string::npos ? line + '\n' : "";
    }
  }
  return said;
}
