#include "log_files.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "new_file.h"
#include "tools/common/console.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace tnwlog {
namespace {

namespace fs = std::filesystem;

constexpr size_t BLOCK = 1 << 18;

std::string name_of(const fs::path& path) {
  const std::u8string name = path.u8string();
  return std::string(name.begin(), name.end());
}

#ifdef _WIN32

/*
 * The runtime's own calls keep others from renaming the file, and read no further once they have
 * met its end.
 */
HANDLE open_shared(const std::string& file, DWORD access) {
  return CreateFileW(path_of(file).c_str(), access,
                     FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                     FILE_ATTRIBUTE_NORMAL, nullptr);
}

HANDLE handle_of(intptr_t file) { return reinterpret_cast<HANDLE>(file); }

[[noreturn]] void fail(const std::string& name) {
  throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), name);
}

intptr_t open_file(const std::string& name) {
  const HANDLE handle = open_shared(name, GENERIC_READ);
  if (handle == INVALID_HANDLE_VALUE) {
    fail(name);
  }
  return reinterpret_cast<intptr_t>(handle);
}

size_t read_file(intptr_t file, char* buffer, size_t size, const std::string& name) {
  DWORD count = 0;
  if (::ReadFile(handle_of(file), buffer, static_cast<DWORD>(size), &count, nullptr) == 0) {
    fail(name);
  }
  return count;
}

void close_file(intptr_t file) { CloseHandle(handle_of(file)); }

bool leads_to(const std::string& name, intptr_t file) {
  const HANDLE handle = open_shared(name, 0);
  BY_HANDLE_FILE_INFORMATION there;
  BY_HANDLE_FILE_INFORMATION here;
  const bool known = handle != INVALID_HANDLE_VALUE &&
                     GetFileInformationByHandle(handle, &there) != 0 &&
                     (GetFileInformationByHandle(handle_of(file), &here) != 0);
  if (handle != INVALID_HANDLE_VALUE) {
    CloseHandle(handle);
  }
  return known && there.nFileIndexHigh == here.nFileIndexHigh &&
         there.nFileIndexLow == here.nFileIndexLow;
}

#else

[[noreturn]] void fail(const std::string& name) {
  throw std::system_error(errno, std::generic_category(), name);
}

intptr_t open_file(const std::string& name) {
  const int file = open(name.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) {
    fail(name);
  }
  return file;
}

size_t read_file(intptr_t file, char* buffer, size_t size, const std::string& name) {
  const ssize_t count = read(static_cast<int>(file), buffer, size);
  if (count < 0) {
    fail(name);
  }
  return static_cast<size_t>(count);
}

void close_file(intptr_t file) { close(static_cast<int>(file)); }

bool leads_to(const std::string& name, intptr_t file) {
  struct stat there;
  struct stat here;
  return stat(name.c_str(), &there) == 0 && fstat(static_cast<int>(file), &here) == 0 &&
         there.st_dev == here.st_dev && there.st_ino == here.st_ino;
}

#endif

/* "tnvfs.3.log" is number 3 of the log "tnvfs.log", which itself is number 0. */
struct Rotated {
  std::string log;
  unsigned number;
};

Rotated rotated_of(const fs::path& path) {
  const fs::path stem = path.stem();
  const std::string number = name_of(stem.extension());
  unsigned value = 0;
  const auto [end, error] = std::from_chars(number.data() + std::min<size_t>(number.size(), 1),
                                            number.data() + number.size(), value);
  if (number.size() < 2 || error != std::errc() || end != number.data() + number.size()) {
    return {name_of(path), 0};
  }
  return {name_of(path.parent_path() / stem.stem()) + name_of(path.extension()), value};
}

std::vector<std::string> files_of(const std::string& name) {
  if (!fs::is_directory(path_of(name))) {
    return {name};
  }
  std::vector<std::string> files;
  for (const fs::directory_entry& entry : fs::directory_iterator(path_of(name))) {
    if (fs::path(rotated_of(entry.path()).log).filename() == "tnvfs.log") {
      files.push_back(name_of(entry.path()));
    }
  }
  if (files.empty()) {
    throw std::runtime_error(name + ": has no tnvfs.log");
  }
  return files;
}

}  // namespace

std::vector<std::string> find_log_files(const std::vector<std::string>& names) {
  struct Found {
    std::string file;
    size_t log;
    unsigned number;
  };
  std::vector<Found> found;
  std::vector<std::string> logs;
  for (const std::string& name : names) {
    for (const std::string& file : files_of(name)) {
      const Rotated rotated = rotated_of(path_of(file));
      const auto log = std::find(logs.begin(), logs.end(), rotated.log);
      found.push_back({file, static_cast<size_t>(log - logs.begin()), rotated.number});
      if (log == logs.end()) {
        logs.push_back(rotated.log);
      }
    }
  }
  std::stable_sort(found.begin(), found.end(), [](const Found& a, const Found& b) {
    return a.log != b.log ? a.log < b.log : a.number > b.number;
  });
  std::vector<std::string> files;
  files.reserve(found.size());
  for (const Found& file : found) {
    files.push_back(file.file);
  }
  return files;
}

LineReader::LineReader(const std::string& name) : name_(name), file_(open_file(name)) {}

LineReader::~LineReader() { close_file(file_); }

void LineReader::read(const LineSink& sink) {
  for (;;) {
    const size_t kept = rest_.size();
    rest_.resize(kept + BLOCK);
    const size_t count = read_file(file_, rest_.data() + kept, BLOCK, name_);
    rest_.resize(kept + count);
    if (count == 0) {
      return;
    }
    size_t start = 0;
    for (size_t end; (end = rest_.find('\n', std::max(start, kept))) != std::string::npos;) {
      const std::string_view line(rest_.data() + start, end - start);
      sink(line.substr(0, line.size() - (line.ends_with('\r') ? 1 : 0)));
      start = end + 1;
    }
    rest_.erase(0, start);
  }
}

void LineReader::finish(const LineSink& sink) {
  if (!rest_.empty()) {
    sink(rest_);
    rest_.clear();
  }
}

bool LineReader::is_renamed() const { return !leads_to(name_, file_); }

void read_lines(const std::vector<std::string>& files, const LineSink& sink) {
  const auto interruptible = [&sink](std::string_view line) {
    if (tools::interrupted()) {
      throw std::runtime_error("interrupted");
    }
    sink(line);
  };
  for (const std::string& file : files) {
    LineReader reader(file);
    reader.read(interruptible);
    reader.finish(interruptible);
  }
}

void Follower::poll(const LineSink& sink) {
  if (reader_ == nullptr) {
    try {
      reader_ = std::make_unique<LineReader>(file_);
    } catch (const std::system_error&) {
      return; /* the file is missing between the two steps of a rotation */
    }
  }
  const bool is_renamed = reader_->is_renamed();
  reader_->read(sink);
  if (is_renamed) { /* so nothing more will be written to this one */
    reader_->finish(sink);
    reader_.reset();
    poll(sink);
  }
}

}  // namespace tnwlog
