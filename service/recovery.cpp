#include "recovery.h"

#include <algorithm>

#include <vector>

#include "ox_errno.h"
#include "ox_logging.h"
#include "uuid_text.h"
#include "wide_text.h"

namespace tarnd {
namespace {

constexpr std::wstring_view kJournalTail = L".journal";

/* The names of the files in a folder. */
std::vector<std::wstring> FilesIn(const std::wstring& folder) {
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

  std::wstring Local() const { return env.folder + L'\\' + name; }
  std::wstring JournalFile() const { return Local() + std::wstring(kJournalTail); }
  std::string NameText() const {
    std::string text;
    Utf8FromWide(name, &text);
    return text;
  }

  void Remove() const {
    DeleteFileW(Local().c_str());
    DeleteFileW(JournalFile().c_str());
  }

  void Keep() const {
    const std::wstring kept = env.folder + L"\\kept";
    CreateDirectoryW(kept.c_str(), nullptr);
    MoveFileExW(Local().c_str(), (kept + L'\\' + name).c_str(), 0);
    MoveFileExW(JournalFile().c_str(), (kept + L'\\' + name + std::wstring(kJournalTail)).c_str(),
                0);
  }
};

enum class Outcome { kWrittenBack, kNothingToDo, kKept, kLater };

/* Whether the cloud still has what the leftover is based on: 0, OX_EEXIST when it has not. */
int CheckBase(const CacheEnvironment& env, const JournalState& state) {
  CloudEntry entry;
  const int err = env.cloud.Status(state.path, &entry);
  if (err != 0) {
    return err == OX_ENOENT ? OX_EEXIST : err;
  }
  const bool same = SameId(entry.version, state.base_version) && entry.size == state.base_size;
  return same ? 0 : OX_EEXIST;
}

Outcome Recover(const Leftover& leftover) {
  JournalState state;
  if (!Journal::Load(leftover.JournalFile(), &state)) {
    OX_LOG(OX_ERROR_LEVEL, 0, "A journal cannot be read: kept\\%s", leftover.NameText().c_str());
    return Outcome::kKept;
  }
  if (GetFileAttributesW(leftover.Local().c_str()) == INVALID_FILE_ATTRIBUTES) {
    return Outcome::kNothingToDo; /* killed before the cache file was made */
  }
  CachedFile file(leftover.env, leftover.Local(), leftover.JournalFile(), state);
  if (file.SameAsCloud()) {
    return Outcome::kNothingToDo; /* killed after the write-back */
  }
  int err = CheckBase(leftover.env, state);
  if (err == OX_EEXIST) {
    OX_LOG(OX_ERROR_LEVEL, 0, "%s was changed in the cloud; what was not written back is kept\\%s",
           state.path.c_str(), leftover.NameText().c_str());
    return Outcome::kKept;
  }
  err = err != 0 ? err : file.Save();
  if (err != 0) {
    OX_LOG(OX_ERROR_LEVEL, err, "%s cannot be written back; left for the next start",
           state.path.c_str());
    return Outcome::kLater;
  }
  OX_LOG(OX_INFO_LEVEL, 0, "%s written back for a service that was killed", state.path.c_str());
  return Outcome::kWrittenBack;
}

}  // namespace

uint32_t RecoverCache(const CacheEnvironment& environment) {
  uint32_t written_back = 0;
  std::vector<std::wstring> later;
  for (const std::wstring& name : FilesIn(environment.folder)) {
    if (!name.ends_with(kJournalTail)) {
      continue;
    }
    const Leftover leftover{environment, name.substr(0, name.size() - kJournalTail.size())};
    const Outcome outcome = Recover(leftover);
    written_back += outcome == Outcome::kWrittenBack ? 1 : 0;
    if (outcome == Outcome::kKept) {
      leftover.Keep();
    } else if (outcome == Outcome::kLater) {
      later.push_back(leftover.name);
    } else {
      leftover.Remove();
    }
  }
  for (const std::wstring& name : FilesIn(environment.folder)) {
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
