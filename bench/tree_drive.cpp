/*
 * The tree through our drive. Its listings always have the attributes.
 */
#include <windows.h>

#include <memory>

#include "drive.h"
#include "tree_floor.h"

namespace {

class DriveTree : public Tree {
 public:
  explicit DriveTree(const std::string& folder) : drive_(folder) {}

  size_t list(const std::string& path) override {
    tnw_fileinfo entry;
    int err = 0;
    void* listing = tnw_findfirst(drive_.handle(), path.c_str(), &entry, "bench", &err);
    size_t count = 0;
    for (; err == 0; err = tnw_findnext(listing, &entry)) {
      count++;
    }
    must(tnw_findclose(listing) == 0, "tnw_findclose");
    return count;
  }
  size_t list_with_attributes(const std::string& path) override { return list(path); }

  void look_up(const std::string& path) override {
    tnw_fileinfo info;
    must(tnw_getfileinfo(drive_.handle(), path.c_str(), &info, "bench") == 0, "tnw_getfileinfo");
  }

  void read_small(const std::string& path, size_t size) override {
    std::vector<char> buffer(size);
    const File file(drive_, path, TNW_DISP_OPEN, TNW_ACC_READ);
    ox_s64 count = 0;
    must(tnw_read(file.handle(), buffer.data(), size, 0, &count, nullptr) == 0, "tnw_read");
  }

  void make(const std::string& path, const std::string& content) override {
    const File file(drive_, path, TNW_DISP_CREATE);
    must(tnw_write(file.handle(), const_cast<char*>(content.data()), content.size(), 0, nullptr,
                   nullptr) == 0,
         "tnw_write");
  }

  void open(const std::string& path) override { file_ = std::make_unique<File>(drive_, path); }
  void read(char* buffer, size_t size, uint64_t off) override {
    must(tnw_read(file_->handle(), buffer, size, static_cast<ox_off>(off), nullptr, nullptr) == 0,
         "tnw_read");
  }
  bool read_bare(char* buffer, size_t size, uint64_t off) override {
    OVERLAPPED where = {};
    where.Offset = static_cast<DWORD>(off);
    DWORD count = 0;
    return ReadFile(file_->local(), buffer, static_cast<DWORD>(size), &count, &where) != 0;
  }

 private:
  Drive drive_;
  std::unique_ptr<File> file_;
};

}  // namespace

std::unique_ptr<Tree> make_tree(const Bench& bench) {
  return std::make_unique<DriveTree>(bench.folder());
}

std::unique_ptr<Tree> make_floor(const Bench& bench) {
  return std::make_unique<TreeFloor>(bench.folder());
}
