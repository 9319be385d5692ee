/*
 * Folders and start-up records for tests of the whole client.
 */
#ifndef DRIVE_FILES_H
#define DRIVE_FILES_H

#include <filesystem>
#include <string>

#include "tnw.h"

/* A fresh folder with a short path (a socket's path ends at 107), removed with all in it. */
class TestFolder {
 public:
  TestFolder();
  ~TestFolder();
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "\\" + name; }

 private:
  std::string path_;
};

void write_file(const std::filesystem::path& path, const std::string& content);
/* The content, or an empty text when there is none. */
std::string read_file(const std::filesystem::path& path);
bool file_exists(const std::filesystem::path& path);

/* The path of a program of this build, which stands beside the test's own. */
std::string beside_test(const std::string& program);

/* A start-up record on `folder`: no retry, two threads, user and drive id, `program` to serve. */
tnw_tninit start_record(const TestFolder& folder, const std::string& program);
template <size_t N>
void set_field(char (&field)[N], const std::string& text) {
  for (size_t i = 0; i < N; i++) {
    field[i] = i < text.size() ? text[i] : '\0';
  }
}

/* tnw_init, and once more where Wine failed to create the service's process for a reason of its
 * own: under load it does so once in some thousand times, with "internal error" (1359). */
void* init_drive(tnw_tninit* record, int* error);

/* Where the service of such a record keeps its things. */
std::string cache_dir(const tnw_tninit& record);
std::string socket_path(const tnw_tninit& record);

#endif
