#include "shell.h"

#include <fmt/format.h>

#include "console.h"
#include "text.h"

namespace tnwsh {

Drive& Shell::TheDrive() {
  if (drive_ == nullptr) {
    drive_ = std::make_unique<Drive>(options_);
  }
  return *drive_;
}

void Shell::StopDrive() {
  if (!locks_.empty()) {
    fmt::print(stderr, "tnwsh: {} gone with the drive\n", Counted(locks_.size(), "lock"));
  }
  locks_.clear();
  drive_.reset();
}

ExitStatus Shell::Run(const std::function<void(Shell&)>& action) {
  ExitStatus status = kSuccess;
  ForgetInterrupt();
  try {
    action(*this);
    if (fflush(stdout) != 0) {
      throw Failure("Standard output", "cannot be written");
    }
  } catch (const UsageError& error) {
    status = kUsage;
    fmt::print(stderr, "tnwsh: {}\n", error.what());
  } catch (const Failure& failure) {
    status = kFailed;
    fflush(stdout);
    fmt::print(stderr, "tnwsh: {}\n", failure.what());
    if (failure.Code() == kConnectionBroken) {
      StopDrive();
    }
  }
  return status;
}

}  // namespace tnwsh
