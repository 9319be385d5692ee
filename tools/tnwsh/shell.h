/* Runs commands on the drive, which is started when the first one needs it. */
#ifndef TNWSH_SHELL_H
#define TNWSH_SHELL_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "drive.h"
#include "options.h"
#include "remote_file.h"

namespace tnwsh {

/* A lock that outlives its command: it lives as long as its open. */
struct HeldLock {
  std::string path; /* as typed */
  FileRange range;
  bool exclusive = false;
  std::unique_ptr<RemoteFile> file = nullptr;
};

class Shell {
 public:
  explicit Shell(Options options) : options_(std::move(options)) {}

  /* Throws a Failure when the drive cannot be started. */
  Drive& drive();
  /*
   * Releases what is held, and ends the service; the next command that needs the drive starts it.
   */
  void stop_drive();

  const Options& options() const { return options_; }
  /* Changes the options for the next start of the drive. */
  void change(Options options) { options_ = std::move(options); }

  /* Whether a lock may stay. On the command line it would end with the command. */
  bool at_prompt() const { return at_prompt_; }
  void enter_prompt() { at_prompt_ = true; }
  std::vector<HeldLock>& locks() { return locks_; }
  const std::vector<HeldLock>& locks() const { return locks_; }

  /*
   * The exit status of an action; what it throws is told on standard error. After a broken
   * connection the next action starts the drive anew.
   */
  ExitStatus run(const std::function<void(Shell&)>& action);

 private:
  Options options_;
  bool at_prompt_ = false;
  std::unique_ptr<Drive> drive_;
  std::vector<HeldLock> locks_; /* these are destroyed before the drive */
};

}  // namespace tnwsh

#endif
