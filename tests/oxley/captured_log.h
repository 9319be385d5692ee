/*
 * The log lines of a test: a fresh folder and, in it, a log file that everything is written to
 * until the next capture begins. (The logger itself lives as long as the process.)
 */
#ifndef CAPTURED_LOG_H
#define CAPTURED_LOG_H

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

/* A folder of its own in the system's temporary folder, removed at the end as far as possible. */
class temp_folder {
 public:
  temp_folder();
  ~temp_folder();
  std::string file(const char* name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

std::string file_content(const std::string& path);
/* The lines of a file, without their line endings. */
std::vector<std::string> file_lines(const std::string& path);

class captured_log {
 public:
  explicit captured_log(size_t max_size = 52428800, size_t max_files = 10);
  std::string path() const { return folder_.file("log.txt"); }
  std::string content() const { return file_content(path()); }
  std::vector<std::string> lines() const { return file_lines(path()); }

 private:
  temp_folder folder_;
};

#endif
