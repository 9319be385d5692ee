#include "log_capture.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "line_mask.h"
#include "ox_logging.h"
#include "test_folder.h"

namespace fs = std::filesystem;

namespace {

/* A log of another process that still runs stays where the system does not let it go. */
void remove_logs_of_earlier_runs(const fs::path& folder, const std::string& prefix) {
  for (const auto& entry : fs::directory_iterator(folder)) {
    const std::string name = entry.path().filename().string();
    std::error_code ignored;
    if (name.starts_with(prefix) && name.ends_with(".log")) {
      fs::remove(entry.path(), ignored);
    }
  }
}

/*
 * In the temporary folder, since each Wine server has its own: two of them may give one number to
 * two processes of the same program, and neither knows what the other one has open.
 */
const std::string& log_path() {
  static const std::string OPENED = [] {
    const std::string program = test_program().filename().string() + ".";
    const fs::path folder = fs::temp_directory_path();
    remove_logs_of_earlier_runs(folder, program);
    const std::string path = (folder / (program + std::to_string(getpid()) + ".log")).string();
    ox_init_logging("TEST", path.c_str(), nullptr, nullptr);
    return path;
  }();
  return OPENED;
}

}  // namespace

LogCapture::LogCapture() : start_(fs::file_size(log_path())) {}

std::string LogCapture::content() const {
  std::ifstream file(log_path(), std::ios::binary);
  file.seekg(static_cast<std::streamoff>(start_));
  return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<std::string> LogCapture::lines() const { return lines_of(content()); }

std::vector<std::string> LogCapture::brief_lines() const {
  std::vector<std::string> found = lines();
  std::transform(found.begin(), found.end(), found.begin(), brief_line);
  return found;
}

size_t LogCapture::count(const std::string& text) const {
  const auto found = lines();
  return static_cast<size_t>(std::count_if(found.begin(), found.end(), [&](const auto& line) {
    return line.find(text) != std::string::npos;
  }));
}

size_t LogCapture::count(int err, const std::string& message) const {
  const std::string error = "\"errno\":" + std::to_string(err) + ", ";
  const std::string end = "\"message\":\"" + message + "\"}";
  const auto found = lines();
  return static_cast<size_t>(std::count_if(found.begin(), found.end(), [&](const auto& line) {
    return line.ends_with(end) && line.find(error) != std::string::npos;
  }));
}
