/*
 * The tree through a mount, as programs on this machine see it.
 */
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "tree.h"

namespace {

class Mount : public Tree {
 public:
  explicit Mount(std::string root) : root_(std::move(root)) {}
  ~Mount() override { close(file_); }

  size_t list(const std::string& path) override { return walk(path, false); }
  size_t list_with_attributes(const std::string& path) override { return walk(path, true); }

  void look_up(const std::string& path) override {
    struct stat status;
    must(stat((root_ + path).c_str(), &status) == 0, "stat");
  }

  void read_small(const std::string& path, size_t size) override {
    std::vector<char> buffer(size);
    const int file = opened(path, O_RDONLY);
    must(::read(file, buffer.data(), size) == static_cast<ssize_t>(size), "read");
    must(close(file) == 0, "close");
  }

  void make(const std::string& path, const std::string& content) override {
    const int file = opened(path, O_WRONLY | O_CREAT | O_EXCL);
    must(write(file, content.data(), content.size()) == static_cast<ssize_t>(content.size()),
         "write");
    must(close(file) == 0, "close");
  }

  void open(const std::string& path) override { file_ = opened(path, O_RDONLY); }
  void read(char* buffer, size_t size, uint64_t off) override {
    must(pread(file_, buffer, size, static_cast<off_t>(off)) == static_cast<ssize_t>(size),
         "pread");
  }

 private:
  size_t walk(const std::string& path, bool with_attributes) const {
    DIR* folder = opendir((root_ + path).c_str());
    if (folder == nullptr) {
      give_up("failed: opendir");
    }
    size_t count = 0;
    struct stat status;
    while (const dirent* entry = readdir(folder)) {
      if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) {
        count++;
        must(!with_attributes || fstatat(dirfd(folder), entry->d_name, &status, 0) == 0, "fstatat");
      }
    }
    closedir(folder);
    return count;
  }

  int opened(const std::string& path, int flags) const {
    const int file = ::open((root_ + path).c_str(), flags | O_CLOEXEC, 0666);
    must(file >= 0, "open");
    return file;
  }

  std::string root_;
  int file_ = -1;
};

}  // namespace

std::unique_ptr<Tree> make_tree(const Bench& bench) {
  return std::make_unique<Mount>(bench.folder());
}

std::unique_ptr<Tree> make_floor(const Bench& /*bench*/) { return nullptr; }
