/*
 * What the library logs while one of these lives. All of a program's log goes to one file beside
 * the program, since the log facility is one-shot; each run begins it anew.
 */
#ifndef LOG_CAPTURE_H
#define LOG_CAPTURE_H

#include <fstream>
#include <string>
#include <vector>

#include "ox_logging.h"

class LogCapture {
 public:
  LogCapture() : start_(size()) {}

  /* The lines written since, without their ends. */
  std::vector<std::string> lines() const {
    std::ifstream file(path());
    file.seekg(start_);
    std::vector<std::string> found;
    for (std::string line; std::getline(file, line);) {
      found.push_back(line);
    }
    return found;
  }

  /* How many of them contain `text`. */
  size_t count(const std::string& text) const { return count_both(text, ""); }
  /* How many tell exactly this, with this error in their prefix. */
  size_t count(int err, const std::string& message) const {
    return count_both("\"errno\":" + std::to_string(err) + ", ",
                      "\"message\":\"" + message + "\"}");
  }

 private:
  size_t count_both(const std::string& one, const std::string& other) const {
    size_t found = 0;
    for (const std::string& line : lines()) {
      found += static_cast<size_t>(static_cast<size_t>(line.find(one) != std::string::npos &&
                                                       line.find(other) != std::string::npos));
    }
    return found;
  }
  static const std::string& path();
  static std::streamoff size() {
    std::ifstream file(path(), std::ios::ate);
    return file ? static_cast<std::streamoff>(file.tellg()) : 0;
  }

  const std::streamoff start_;
};

#endif
