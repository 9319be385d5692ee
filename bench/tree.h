/*
 * One folder tree, walked by the same steps through our drive (tree_drive.cpp) and through the
 * mount of another program (tree_mount.cpp).
 */
#ifndef TREE_H
#define TREE_H

#include <cstdint>
#include <memory>
#include <string>

#include "bench.h"

/* Paths begin with a slash. Whatever fails ends the program. */
class Tree {
 public:
  virtual ~Tree() = default;

  /* Both give the number of entries. */
  virtual size_t list(const std::string& path) = 0;
  virtual size_t list_with_attributes(const std::string& path) = 0;
  virtual void look_up(const std::string& path) = 0;
  /* Opens, reads up to `size` bytes and closes. */
  virtual void read_small(const std::string& path, size_t size) = 0;
  /* Creates, writes and closes. */
  virtual void make(const std::string& path, const std::string& content) = 0;

  /* One file stays open for these. */
  virtual void open(const std::string& path) = 0;
  virtual void read(char* buffer, size_t size, uint64_t off) = 0;
  /* The call below it, where there is one: false without. */
  virtual bool read_bare(char* /*buffer*/, size_t /*size*/, uint64_t /*off*/) { return false; }
};

std::unique_ptr<Tree> make_tree(const Bench& bench);
/* What the same steps cost at least, or null where nobody has said. */
std::unique_ptr<Tree> make_floor(const Bench& bench);

#endif
