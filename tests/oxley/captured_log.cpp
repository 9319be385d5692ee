#include "captured_log.h"

#include <fstream>
#include <random>
#include <sstream>

#include "ox_logging.h"

temp_folder::temp_folder() {
  std::random_device random;
  do {
    path_ = std::filesystem::temp_directory_path() / ("ox" + std::to_string(random()));
  } while (!std::filesystem::create_directory(path_));
}

temp_folder::~temp_folder() {
  std::error_code ignored; /* on Windows the open log file stays */
  std::filesystem::remove_all(path_, ignored);
}

std::string file_content(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

std::vector<std::string> file_lines(const std::string& path) {
  std::istringstream in(file_content(path));
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) {
    if (!line.empty() && line.back() == '\r') {
      line.pop_back();
    }
    lines.push_back(line);
  }
  return lines;
}

captured_log::captured_log(size_t max_size, size_t max_files) {
  ox_init_spdlogger(path().c_str(), path().c_str(), max_size, max_files);
}
