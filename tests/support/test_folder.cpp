#include "test_folder.h"

#ifdef _WIN32
#include <windows.h>
#endif
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

namespace fs = std::filesystem;

fs::path test_program() {
#ifdef _WIN32
  wchar_t path[MAX_PATH] = L"";
  GetModuleFileNameW(nullptr, path, MAX_PATH);
  return path;
#else
  return fs::read_symlink("/proc/self/exe");
#endif
}

TestFolder::TestFolder() {
  static std::atomic<int> next = 0;
  do {
    path_ =
        fs::temp_directory_path() / ("t" + std::to_string(getpid()) + "-" + std::to_string(next++));
  } while (!fs::create_directory(path_));
}

namespace {

/* Not fs::remove_all: it tries for ever when a file stays because some process has it open. */
bool remove_whole(const fs::path& folder) {
  std::error_code failed;
  for (const auto& entry : fs::directory_iterator(folder, failed)) {
    std::error_code ignored;
    entry.is_directory() ? remove_whole(entry) : fs::remove(entry, ignored);
  }
  return fs::remove(folder, failed);
}

}  // namespace

/* Under Wine a process that has ended may hold a file for a moment still. */
TestFolder::~TestFolder() {
  for (int tries = 0; tries < 5 && !remove_whole(path_); tries++) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

void write_file(const fs::path& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

std::string read_file(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

bool file_exists(const fs::path& path) { return fs::exists(path); }

std::vector<std::string> lines_of(const std::string& text) {
  std::istringstream in(text);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line); lines.push_back(line)) {
    if (line.ends_with('\r')) {
      line.pop_back();
    }
  }
  return lines;
}

std::string beside_test(const std::string& name) {
  return test_program().replace_filename(name).string();
}
