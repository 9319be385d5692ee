/*
 * What the steps through the tree cost at least where our drive runs: for each request a bare
 * exchange over a socket, and the bare calls of the system on the files.
 */
#ifndef TREE_FLOOR_H
#define TREE_FLOOR_H

#include "bare_exchange.h"
#include "tree.h"

class TreeFloor : public Tree {
 public:
  /* The tree lies in folder\cloud, what is cached in folder\floor. */
  explicit TreeFloor(const std::string& folder);

  size_t list(const std::string& path) override;
  size_t list_with_attributes(const std::string& path) override { return list(path); }
  void look_up(const std::string& path) override;
  void read_small(const std::string& path, size_t size) override;
  void make(const std::string& path, const std::string& content) override;
  void open(const std::string& /*path*/) override {}
  void read(char* /*buffer*/, size_t /*size*/, uint64_t /*off*/) override {}

 private:
  std::string in_cloud(const std::string& path) const { return folder_ + "\\cloud" + path; }
  /* A new file of the cache with this content. */
  void cache(const std::string& content);

  std::string folder_;
  BareExchange exchange_;
  int cached_ = 0;
};

#endif
