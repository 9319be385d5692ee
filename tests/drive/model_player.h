/*
 * Applies steps to a drive and to plain memory, and compares after each one.
 */
#ifndef MODEL_PLAYER_H
#define MODEL_PLAYER_H

#include <array>
#include <memory>
#include <string>

#include "model_steps.h"
#include "plain_drive.h"
#include "real_drive.h"

/* Plays one sequence in a folder of its own. Several may play on one drive at the same time, each
 * by one thread, if none of them kills the service. */
class ModelPlayer {
 public:
  /* `alone`: nobody else uses the drive, so that what a closed handle answers is known. */
  ModelPlayer(RealDrive& drive, const std::string& folder, bool alone);

  /* All steps, then the closes of what is open: how many steps a failure took, 0 without one. */
  size_t play(const Steps& steps);
  /* What differed first; empty without a failure. */
  const std::string& failure() const { return failure_; }

 private:
  void apply(const Step& step);
  void put(const Step& step);
  void open(const Step& step);
  void close(const Step& step);
  void cleanup(const Step& step);
  void read(const Step& step);
  void read_all(const Step& step);
  void write(const Step& step);
  void resize(const Step& step);
  void rename(const Step& step);
  void remove(const Step& step);
  void ask_remove(const Step& step);
  void kill(const Step&);
  std::string differs_after_kill() const;
  bool has_beside(const std::string& name, const std::string& bytes) const;
  void close_all();

  std::string path(size_t name) const;
  std::unique_ptr<DriveFile> open_drive_file(const Step& step, const std::string& name) const;
  bool is_playable(const Step& step) const;

  void read(size_t slot, size_t off, size_t len);
  /* A range and what is around it, through one of the file's opens. */
  void look_around(const Step& step, size_t off, size_t len);
  void compare_size(const std::string& name);
  void compare_cloud(const std::string& name);
  /* The cloud's names and contents. */
  void compare_folder();
  void expect_code(const char* call, int got, int want);
  void expect_bytes(const char* where, const std::string& got, const std::string& want);
  void fail(const std::string& text);

  RealDrive& drive_;
  const std::string folder_;
  const bool alone_;
  PlainDrive plain_;
  std::array<std::unique_ptr<DriveFile>, MODEL_SLOTS> files_;
  bool killed_ = false; /* the service was, at the end: the folder was looked at already */
  std::string failure_;
};

#endif
