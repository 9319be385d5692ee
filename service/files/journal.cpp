#include "files/journal.h"

#include <cstdio>
#include <sstream>
#include <vector>

#include "ox_errno.h"
#include "uuid_text.h"

namespace tarnd {
namespace {

std::string encode_path(const std::string& path) {
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

std::string decode_path(const std::string& text) {
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

std::string base_line(const JournalState& state) {
  return "base " + text_of_id(state.base_version) + ' ' + std::to_string(state.base_size) + '\n';
}
std::string path_line(const std::string& path) { return "path " + encode_path(path) + '\n'; }
std::string limit_line(uint64_t limit) { return "limit " + std::to_string(limit) + '\n'; }
std::string dirty_line(Run run) {
  return "dirty " + std::to_string(run.first) + ' ' + std::to_string(run.end) + '\n';
}

/* A number that may stand in a journal, or the end of the line's reading. */
bool read_number(std::istringstream& words, uint64_t* number) {
  return static_cast<bool>(words >> *number);
}

struct Loader {
  JournalState* state;
  bool has_head = false;
  bool has_base = false;
  bool has_path = false;

  bool line(const std::string& line) {
    std::istringstream words(line);
    std::string kind;
    words >> kind;
    if (kind == "path" && line.size() > 5) {
      state->path = decode_path(line.substr(5));
      return has_path = true;
    }
    return kind == "tarnd-journal" ? head(words)
           : kind == "base"        ? base(words)
           : kind == "limit"       ? limit(words)
           : kind == "dirty"       ? dirty(words)
                                   : false;
  }

  bool head(std::istringstream& words) {
    uint64_t version = 0;
    uint64_t shift = 0;
    has_head =
        read_number(words, &version) && read_number(words, &shift) && version == 1 && shift <= 62;
    state->store = RegionStore(static_cast<int>(shift));
    return has_head;
  }

  bool base(std::istringstream& words) {
    std::string id;
    words >> id;
    has_base = id_of_text(id, &state->base_version) && read_number(words, &state->base_size);
    state->store.fill(state->base_size);
    return has_base;
  }

  bool limit(std::istringstream& words) {
    uint64_t limit = 0;
    const bool good = read_number(words, &limit);
    if (good) {
      state->store.truncate(limit);
    }
    return good;
  }

  bool dirty(std::istringstream& words) {
    Run run;
    const bool good =
        read_number(words, &run.first) && read_number(words, &run.end) && !run.empty();
    if (good) {
      state->store.mark_dirty(run);
    }
    return good;
  }
};

bool read_all(const std::wstring& path, std::string* text) {
  const FileHandle file(CreateFileW(path.c_str(), GENERIC_READ, SHARE_ALL, nullptr, OPEN_EXISTING,
                                    FILE_ATTRIBUTE_NORMAL, nullptr));
  std::vector<char> buffer(1 << 16);
  DWORD got = 0;
  do {
    if (!file.valid() || (ReadFile(file.get(), buffer.data(), static_cast<DWORD>(buffer.size()),
                                   &got, nullptr) == 0)) {
      return false;
    }
    text->append(buffer.data(), got);
  } while (got > 0);
  return true;
}

}  // namespace

int Journal::append(const std::string& lines) {
  DWORD written = 0;
  if (WriteFile(file_.get(), lines.data(), static_cast<DWORD>(lines.size()), &written, nullptr) ==
      0) {
    return last_error();
  }
  return written == lines.size() ? 0 : OX_ENOSPC;
}

int Journal::start(const JournalState& state) {
  /* A new file moved over the old one: a process that ends in between leaves one of them. */
  const std::wstring fresh = path_ + L".new";
  file_ = FileHandle(CreateFileW(fresh.c_str(), GENERIC_WRITE | DELETE, SHARE_ALL, nullptr,
                                 CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file_.valid()) {
    return last_error();
  }
  std::string lines = "tarnd-journal 1 " + std::to_string(state.store.shift()) + '\n' +
                      base_line(state) + path_line(state.path) + limit_line(state.store.limit());
  const Run all{0, UINT64_MAX};
  for (Run run = state.store.dirty().next_present(all); !run.empty();
       run = state.store.dirty().next_present({run.end, all.end})) {
    lines += dirty_line(run);
  }
  limit_ = state.store.limit();
  int err = append(lines);
  file_.close();
  if (err == 0 && (MoveFileExW(fresh.c_str(), path_.c_str(), MOVEFILE_REPLACE_EXISTING) == 0)) {
    err = last_error();
  }
  if (err == 0) {
    file_ = FileHandle(CreateFileW(path_.c_str(), FILE_APPEND_DATA, SHARE_ALL, nullptr,
                                   OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    err = file_.valid() ? 0 : last_error();
  }
  return err;
}

int Journal::add(uint64_t limit, Run dirty) {
  std::string lines = limit == limit_ ? "" : limit_line(limit);
  lines += dirty.empty() ? "" : dirty_line(dirty);
  const int err = lines.empty() ? 0 : append(lines);
  limit_ = err == 0 ? limit : limit_;
  return err;
}

void Journal::remove() {
  file_.close();
  DeleteFileW(path_.c_str());
}

bool Journal::load(const std::wstring& path, JournalState* state) {
  std::string text;
  if (!read_all(path, &text)) {
    return false;
  }
  Loader loader{state};
  size_t start = 0;
  for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
    if (!loader.line(text.substr(start, end - start)) && !loader.has_head) {
      return false;
    }
  }
  return loader.has_head && loader.has_base && loader.has_path;
}

}  // namespace tarnd
