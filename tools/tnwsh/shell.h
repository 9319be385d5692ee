// Runs commands on the drive, which is started when the first one needs it.
#ifndef TNWSH_SHELL_H
#define TNWSH_SHELL_H

#include <functional>
#include <memory>

#include "drive.h"
#include "failure.h"
#include "options.h"

namespace tnwsh {

class Shell {
 public:
  explicit Shell(Options options) : options_(std::move(options)) {}

  // Throws a Failure when the drive cannot be started.
  Drive& TheDrive();
  ProgressMode ProgressOfTransfers() const { return options_.progress; }

  // The exit status of an action; what it throws is told on standard error. After a broken
  // connection the next action starts the drive anew.
  ExitStatus Run(const std::function<void(Shell&)>& action);

 private:
  const Options options_;
  std::unique_ptr<Drive> drive_;
};

}  // namespace tnwsh

#endif
