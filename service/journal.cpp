#include "journal.h"

#include <cstdio>
#include <sstream>
#include <vector>

#include "ox_errno.h"
#include "uuid_text.h"

namespace tarnd {
namespace {

std::string EncodePath(const std::string& path) {
  std::string text;
  for (const char c : path) {
    if (static_cast<unsigned char>(c) < 0x20 || c == '%') {
      char code[4];
      snprintf(code, sizeof code, "%%%02x", static_cast<unsigned>(static_cast<unsigned char>(c)));
      text += code;
    } else {
      text += c;
    }
  }
  return text;
}

std::string DecodePath(const std::string& text) {
  std::string path;
  for (size_t i = 0; i < text.size(); i++) {
    unsigned code = 0;
    if (text[i] == '%' && sscanf(text.c_str() + i + 1, "%2x", &code) == 1) {
      path += static_cast<char>(code);
      i += 2;
    } else {
      path += text[i];
    }
  }
  return path;
}

std::string BaseLine(const JournalState& state) {
  return "base " + TextOfId(state.base_version) + ' ' + std::to_string(state.base_size) + '\n';
}
std::string PathLine(const std::string& path) { return "path " + EncodePath(path) + '\n'; }
std::string LimitLine(uint64_t limit) { return "limit " + std::to_string(limit) + '\n'; }
std::string DirtyLine(Run run) {
  return "dirty " + std::to_string(run.first) + ' ' + std::to_string(run.end) + '\n';
}

/* A number that may stand in a journal, or the end of the line's reading. */
bool ReadNumber(std::istringstream& words, uint64_t* number) {
  return static_cast<bool>(words >> *number);
}

struct Loader {
  JournalState* state;
  bool has_head = false;
  bool has_base = false;
  bool has_path = false;

  bool Line(const std::string& line) {
    std::istringstream words(line);
    std::string kind;
    words >> kind;
    if (kind == "path" && line.size() > 5) {
      state->path = DecodePath(line.substr(5));
      return has_path = true;
    }
    return kind == "tarnd-journal" ? Head(words)
           : kind == "base"        ? Base(words)
           : kind == "limit"       ? Limit(words)
           : kind == "dirty"       ? Dirty(words)
                                   : false;
  }

  bool Head(std::istringstream& words) {
    uint64_t version = 0;
    uint64_t shift = 0;
    has_head =
        ReadNumber(words, &version) && ReadNumber(words, &shift) && version == 1 && shift <= 62;
    state->store = RegionStore(static_cast<int>(shift));
    return has_head;
  }

  bool Base(std::istringstream& words) {
    std::string id;
    words >> id;
    has_base = IdOfText(id, &state->base_version) && ReadNumber(words, &state->base_size);
    state->store.Fill(state->base_size);
    return has_base;
  }

  bool Limit(std::istringstream& words) {
    uint64_t limit = 0;
    const bool good = ReadNumber(words, &limit);
    if (good) {
      state->store.Truncate(limit);
    }
    return good;
  }

  bool Dirty(std::istringstream& words) {
    Run run;
    const bool good = ReadNumber(words, &run.first) && ReadNumber(words, &run.end) && !run.empty();
    if (good) {
      state->store.MarkDirty(run);
    }
    return good;
  }
};

bool ReadAll(const std::wstring& path, std::string* text) {
  const FileHandle file(CreateFileW(path.c_str(), GENERIC_READ, kShareAll, nullptr, OPEN_EXISTING,
                                    FILE_ATTRIBUTE_NORMAL, nullptr));
  std::vector<char> buffer(1 << 16);
  DWORD got = 0;
  do {
    if (!file.Valid() || (ReadFile(file.Get(), buffer.data(), static_cast<DWORD>(buffer.size()),
                                   &got, nullptr) == 0)) {
      return false;
    }
    text->append(buffer.data(), got);
  } while (got > 0);
  return true;
}

}  // namespace

int Journal::Append(const std::string& lines) {
  DWORD written = 0;
  if (WriteFile(file_.Get(), lines.data(), static_cast<DWORD>(lines.size()), &written, nullptr) ==
      0) {
    return LastError();
  }
  return written == lines.size() ? 0 : OX_ENOSPC;
}

int Journal::Start(const JournalState& state) {
  /* A new file moved over the old one: a process that ends in between leaves one of them. */
  const std::wstring fresh = path_ + L".new";
  file_ = FileHandle(CreateFileW(fresh.c_str(), GENERIC_WRITE | DELETE, kShareAll, nullptr,
                                 CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file_.Valid()) {
    return LastError();
  }
  std::string lines = "tarnd-journal 1 " + std::to_string(state.store.shift()) + '\n' +
                      BaseLine(state) + PathLine(state.path) + LimitLine(state.store.limit());
  const Run all{0, UINT64_MAX};
  for (Run run = state.store.dirty().NextPresent(all); !run.empty();
       run = state.store.dirty().NextPresent({run.end, all.end})) {
    lines += DirtyLine(run);
  }
  limit_ = state.store.limit();
  int err = Append(lines);
  file_.Close();
  if (err == 0 && (MoveFileExW(fresh.c_str(), path_.c_str(), MOVEFILE_REPLACE_EXISTING) == 0)) {
    err = LastError();
  }
  if (err == 0) {
    file_ = FileHandle(CreateFileW(path_.c_str(), FILE_APPEND_DATA, kShareAll, nullptr,
                                   OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    err = file_.Valid() ? 0 : LastError();
  }
  return err;
}

int Journal::Add(uint64_t limit, Run dirty) {
  std::string lines = limit == limit_ ? "" : LimitLine(limit);
  lines += dirty.empty() ? "" : DirtyLine(dirty);
  const int err = lines.empty() ? 0 : Append(lines);
  limit_ = err == 0 ? limit : limit_;
  return err;
}

void Journal::Remove() {
  file_.Close();
  DeleteFileW(path_.c_str());
}

bool Journal::Load(const std::wstring& path, JournalState* state) {
  std::string text;
  if (!ReadAll(path, &text)) {
    return false;
  }
  Loader loader{state};
  size_t start = 0;
  for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
    if (!loader.Line(text.substr(start, end - start)) && !loader.has_head) {
      return false;
    }
  }
  return loader.has_head && loader.has_base && loader.has_path;
}

}  // namespace tarnd
