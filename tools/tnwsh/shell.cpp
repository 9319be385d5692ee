#include "shell.h"

#include <fmt/format.h>

#include "console.h"
#include "text.h"

namespace tnwsh {

Drive& Shell::drive() {
  if (drive_ == nullptr) {
    drive_ = std::make_unique<Drive>(options_);
  }
  return *drive_;
}

void Shell::stop_drive() {
  if (!locks_.empty()) {
    fmt::print(stderr, "tnwsh: {} gone with the drive\n", counted(locks_.size(), "lock"));
  }
  locks_.clear();
  drive_.reset();
}

ExitStatus Shell::run(const std::function<void(Shell&)>& action) {
  ExitStatus status = EXIT_OK;
  forget_interrupt();
  try {
    action(*this);
    if (fflush(stdout) != 0) {
      throw Failure("Standard output", "cannot be written");
    }
  } catch (const UsageError& error) {
    status = EXIT_USAGE;
    fmt::print(stderr, "tnwsh: {}\n", error.what());
  } catch (const Failure& failure) {
    status = EXIT_FAILED;
    fflush(stdout);
    fmt::print(stderr, "tnwsh: {}\n", failure.what());
    if (failure.code() == CONNECTION_BROKEN) {
      stop_drive();
    }
  }
  return status;
}

}  // namespace tnwsh
