#include "shell.h"

#include <fmt/format.h>

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
  forget_interrupt();
  bool is_broken = false;
  const ExitStatus status = run_program("tnwsh", [&] {
    try {
      action(*this);
    } catch (const Failure& failure) {
      is_broken = failure.code() == TNW_ERROR_NO_SERVICE;
      throw;
    }
    return EXIT_OK;
  });
  if (is_broken) {
    stop_drive();
  }
  return status;
}

}  // namespace tnwsh
