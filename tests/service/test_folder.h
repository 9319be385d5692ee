/* A fresh folder with a short path (a socket's path ends at 107), removed with all in it. */
#ifndef SERVICE_TEST_FOLDER_H
#define SERVICE_TEST_FOLDER_H

#include <windows.h>

#include <filesystem>
#include <string>
#include <system_error>

class TestFolder {
 public:
  TestFolder() {
    static int count = 0;
    path_ = std::filesystem::temp_directory_path() /
            ("s" + std::to_string(GetCurrentProcessId()) + "_" + std::to_string(++count));
    std::filesystem::create_directories(path_);
  }
  ~TestFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

#endif
