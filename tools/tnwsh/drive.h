/* The drive, by the library's public calls. Failures come as exceptions (failure.h). One thread. */
#ifndef TNWSH_DRIVE_H
#define TNWSH_DRIVE_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "answers.h"
#include "common.h"
#include "options.h"
#include "tnw.h"

namespace tnwsh {

/* The name under which the service knows this program. */
inline constexpr char PROCESS_NAME[] = "tnwsh";

struct Entry {
  std::string name;
  bool folder = false;
  uint64_t size = 0;
  uint64_t modified = 0; /* a Windows file time */
  std::string id;        /* the id of the item, which does not depend on the path */
};

class Drive {
 public:
  /* Starts the service and connects to it; the destructor stops it and waits for its end. */
  explicit Drive(const Options& options) : session_(options) {}

  /* The entries of a folder, sorted by name. */
  std::vector<Entry> list(const std::string& path);
  tnw_fileinfo info(const std::string& path);
  /* What a path names, if anything; a name in another case is found, too. */
  std::optional<Entry> find(const std::string& path);
  /* What a path names. Throws a Failure with the code 2 when there is nothing. */
  Entry get(const std::string& path);

  void rename(const std::string& from, const std::string& to);
  void remove(const std::string& path);
  bool can_delete(const std::string& path);
  void make_folder(const std::string& path);
  /* Makes the folder unless it is there. */
  void ensure_folder(const std::string& path);

  void update_token(std::string token);
  void set_proxy(const std::string& server, const std::string& user, const std::string& password);

 private:
  friend class RemoteFile;

  /* The library's context of a file, shared by all its opens. */
  struct Slot {
    void* context = nullptr;
    int opens = 0;
  };

  /* These two return a Windows code. */
  int try_info(const std::string& path, tnw_fileinfo* info);
  int list_into(const std::string& path, std::vector<Entry>* entries);
  /*
   * Throws for a code. Without one it makes sure that there was an answer at all, since most calls
   * read as success on a broken connection.
   */
  void check_answer(const std::string& path, const char* what, int err, Answers answers);

  DriveSession session_;
  std::map<std::string, Slot> slots_; /* by path_key */
};

/*
 * Deletes the cache of the options' user, for which no drive of ours may run, and tells what it
 * did.
 */
std::string purge_cache(const Options& options);

}  // namespace tnwsh

#endif
