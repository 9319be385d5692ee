/* What ends a program or a command: an operation on a path, and the Windows code that it gave. */
#ifndef TOOLS_COMMON_FAILURE_H
#define TOOLS_COMMON_FAILURE_H

#include <cstdint>
#include <stdexcept>
#include <string>

namespace tools {

/* What a Windows code means to a user; UTF-8, one line. */
std::string meaning_of(uint32_t code);

class Failure : public std::runtime_error {
 public:
  /*
   * "PATH: cannot open: error 2: The system cannot find the file specified." `what` is "cannot
   * open", and `meaning` the text behind the code.
   */
  Failure(const std::string& path, const std::string& what, uint32_t code,
          const std::string& meaning)
      : std::runtime_error(path + ": " + what + ": error " + std::to_string(code) + ": " + meaning),
        code_(code) {}
  Failure(const std::string& path, const std::string& what, uint32_t code)
      : Failure(path, what, code, meaning_of(code)) {}
  /* A failure that this program has found by itself. It has no Windows code. */
  Failure(const std::string& path, const std::string& what)
      : std::runtime_error(path + ": " + what), code_(0) {}

  uint32_t code() const { return code_; }

 private:
  uint32_t code_;
};

}  // namespace tools

#endif
