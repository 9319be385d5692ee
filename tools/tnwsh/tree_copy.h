/* Whole folders between the drive and this machine. */
#ifndef TNWSH_TREE_COPY_H
#define TNWSH_TREE_COPY_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "drive.h"
#include "progress.h"
#include "transfer.h"

namespace tnwsh {

/*
 * Copies one folder into one that is there or is made. What is to be copied is looked up first, so
 * that a copy into the folder itself ends. A failed item is told at once and again at the end; the
 * others go on, unless nothing could succeed any more. Links to folders of this machine, and those
 * in the cloud that lead back, are not followed and count as failed.
 */
class TreeCopy {
 public:
  TreeCopy(Drive& drive, ProgressMode mode) : drive_(drive), mode_(mode) {}

  /* Both print the sum, and throw a Failure that lists what failed. */
  void get(const std::string& remote, const std::string& local);
  void put(const std::string& local, const std::string& remote);

 private:
  struct Item {
    std::string path; /* below the folder, with slashes */
    bool folder = false;
    uint64_t size = 0; /* in the cloud */
    bool failed = false;
  };
  using Step = std::function<void()>;

  void collect_remote(const std::string& folder, const std::string& below,
                      std::vector<std::string>* above);
  void collect_local(const std::string& folder, const std::string& below);
  /* Adds an item, and what `collect` finds below it. */
  void add(Item item, const Step& collect);
  void copy_all(const std::string& from, const std::string& to,
                const std::function<void(const Item& item)>& copy);
  /* Whether it went well; throws what ends the work. */
  bool attempt(const Step& step);
  void finish(const std::string& from, const std::string& to, double seconds) const;
  std::string failures_text() const;

  Drive& drive_;
  const ProgressMode mode_;
  std::vector<Item> items_; /* a folder before what is below it */
  std::vector<std::string> failures_;
  uint64_t left_out_ = 0; /* items below folders that failed */
  uint64_t files_ = 0;
  uint64_t folders_ = 0;
  uint64_t bytes_ = 0;
};

}  // namespace tnwsh

#endif
