/*
 * A drive in plain memory: what the calls are to answer, and what the files are to hold.
 */
#ifndef PLAIN_DRIVE_H
#define PLAIN_DRIVE_H

#include <map>
#include <memory>
#include <string>

#include "real_drive.h"

/* Outlives its name while it is open. */
struct PlainFile {
  std::string bytes;
  /* What the cloud may have under its name: the last content that surely went there comes first. */
  std::vector<std::string> closed = {};
  bool dirty = false; /* changed since that */
  bool lost = false;  /* deleted when only mapped views were left: they may read anything */
};

/* An open lives in a slot of the caller's choice. Results are Windows codes. Calls for a slot want
 * an open in it. Not thread-safe. */
class PlainDrive {
 public:
  /* A file that came past the drive, over an older one. */
  void put(const std::string& name, const std::string& bytes);

  /* `last_error`: the thread's, after a success. */
  int open(size_t slot, const std::string& name, const OpenHow& how, ox_u32* last_error);
  void cleanup(size_t slot) { opens_.at(slot).cleaned = true; }
  void close(size_t slot);
  void close_all() { opens_.clear(); }

  /* `got`: what there is of it. */
  int read(size_t slot, size_t off, size_t len, std::string* got) const;
  void write(size_t slot, size_t off, const std::string& data);
  void resize(size_t slot, size_t size);

  int rename(const std::string& from, const std::string& to);
  int remove(const std::string& name);
  int may_remove(const std::string& name) const;

  /* Null when there is none. */
  std::shared_ptr<PlainFile> named(const std::string& name) const;
  std::shared_ptr<PlainFile> opened(size_t slot) const;
  bool is_open(const std::string& name) const;
  const std::map<std::string, std::shared_ptr<PlainFile>>& files() const { return files_; }

 private:
  struct Open {
    std::shared_ptr<PlainFile> file;
    ox_u32 access;
    ox_u32 share;
    bool cleaned;
    bool wrote = false;
    bool counts() const { return access != 0 && !cleaned; }
  };

  bool shares(const std::shared_ptr<PlainFile>& file, ox_u32 wants, ox_u32 share) const;

  std::map<std::string, std::shared_ptr<PlainFile>> files_;
  std::map<size_t, Open> opens_;
};

#endif
