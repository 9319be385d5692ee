#include "files/recovery.h"

#include <algorithm>

#include <vector>

#include "ox_errno.h"
#include "ox_logging.h"
#include "uuid_text.h"
#include "wide_text.h"

namespace tarnd {
namespace {

constexpr std::wstring_view JOURNAL_TAIL = L".journal";

/* The names of the files in a folder. */
std::vector<std::wstring> files_in(const std::wstring& folder) {
  std::vector<std::wstring> names;
  WIN32_FIND_DATAW found;
  const HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &found);
  if (search == INVALID_HANDLE_VALUE) {
    return names;
  }
  do {
    if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
      names.emplace_back(found.cFileName);
    }
  } while (FindNextFileW(search, &found) != 0);
  FindClose(search);
  return names;
}

/* One cache file with its journal. Both may move, so the paths are composed anew. */
struct Leftover {
  const CacheEnvironment& env;
  std::wstring name; /* of the cache file */

  std::wstring local() const { return env.folder + L'\\' + name; }
  std::wstring journal_file() const { return local() + std::wstring(JOURNAL_TAIL); }
  std::string name_text() const {
    std::string text;
    utf8_from_wide(name, &text);
    return text;
  }

  void remove() const {
    DeleteFileW(local().c_str());
    DeleteFileW(journal_file().c_str());
  }

  void keep() const {
    const std::wstring kept = env.folder + L"\\kept";
    CreateDirectoryW(kept.c_str(), nullptr);
    MoveFileExW(local().c_str(), (kept + L'\\' + name).c_str(), 0);
    MoveFileExW(journal_file().c_str(), (kept + L'\\' + name + std::wstring(JOURNAL_TAIL)).c_str(),
                0);
  }
};

enum class Outcome { WRITTEN_BACK, NOTHING_TO_DO, KEPT, LATER };

/* Whether the cloud still has what the leftover is based on: 0, OX_EEXIST when it has not. */
int check_base(const CacheEnvironment& env, const JournalState& state) {
  CloudEntry entry;
  const int err = env.cloud.status(state.path, &entry);
  if (err != 0) {
    return err == OX_ENOENT ? OX_EEXIST : err;
  }
  const bool same = same_id(entry.version, state.base_version) && entry.size == state.base_size;
  return same ? 0 : OX_EEXIST;
}

Outcome recover(const Leftover& leftover) {
  JournalState state;
  if (!Journal::load(leftover.journal_file(), &state)) {
    OX_LOG(OX_ERROR_LEVEL, 0, "A journal cannot be read: kept\\%s", leftover.name_text().c_str());
    return Outcome::KEPT;
  }
  if (GetFileAttributesW(leftover.local().c_str()) == INVALID_FILE_ATTRIBUTES) {
    return Outcome::NOTHING_TO_DO; /* killed before the cache file was made */
  }
  CachedFile file(leftover.env, leftover.local(), leftover.journal_file(), state);
  if (file.same_as_cloud()) {
    return Outcome::NOTHING_TO_DO; /* killed after the write-back */
  }
  int err = check_base(leftover.env, state);
  if (err == OX_EEXIST) {
    OX_LOG(OX_ERROR_LEVEL, 0, "%s was changed in the cloud; what was not written back is kept\\%s",
           state.path.c_str(), leftover.name_text().c_str());
    return Outcome::KEPT;
  }
  err = err != 0 ? err : file.save();
  if (err != 0) {
    OX_LOG(OX_ERROR_LEVEL, err, "%s cannot be written back; left for the next start",
           state.path.c_str());
    return Outcome::LATER;
  }
  OX_LOG(OX_INFO_LEVEL, 0, "%s written back for a service that was killed", state.path.c_str());
  return Outcome::WRITTEN_BACK;
}

}  // namespace

uint32_t recover_cache(const CacheEnvironment& environment) {
  uint32_t written_back = 0;
  std::vector<std::wstring> later;
  for (const std::wstring& name : files_in(environment.folder)) {
    if (!name.ends_with(JOURNAL_TAIL)) {
      continue;
    }
    const Leftover leftover{environment, name.substr(0, name.size() - JOURNAL_TAIL.size())};
    const Outcome outcome = recover(leftover);
    written_back += outcome == Outcome::WRITTEN_BACK ? 1 : 0;
    if (outcome == Outcome::KEPT) {
      leftover.keep();
    } else if (outcome == Outcome::LATER) {
      later.push_back(leftover.name);
    } else {
      leftover.remove();
    }
  }
  for (const std::wstring& name : files_in(environment.folder)) {
    const bool wanted = std::any_of(later.begin(), later.end(), [&](const std::wstring& kept) {
      return name.starts_with(kept);
    });
    if (!wanted) {
      DeleteFileW((environment.folder + L'\\' + name).c_str());
    }
  }
  return written_back;
}

}  // namespace tarnd
