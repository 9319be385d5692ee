/*
 * A folder for one test, and small files.
 */
#ifndef TEST_FOLDER_H
#define TEST_FOLDER_H

#include <filesystem>
#include <string>
#include <vector>

/* A new, empty folder in the temporary folder, removed with all that is in it. No other test and no
 * other run has the same one. Its path is short, since a socket's path ends at 107 characters. */
class TestFolder {
 public:
  TestFolder();
  ~TestFolder();
  TestFolder(const TestFolder&) = delete;
  TestFolder& operator=(const TestFolder&) = delete;

  const std::filesystem::path& path() const { return path_; }
  /* The path of what is called `name` in it. */
  std::string operator/(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

void write_file(const std::filesystem::path& path, const std::string& content);
/* The content, or an empty text when there is no such file. */
std::string read_file(const std::filesystem::path& path);
bool file_exists(const std::filesystem::path& path);
/* The lines of a text without their ends, "\n" or "\r\n". */
std::vector<std::string> lines_of(const std::string& text);

/* The path of the test's own program, and of what is called `name` beside it. */
std::filesystem::path test_program();
std::string beside_test(const std::string& name);

#endif
