/* What ends a command: an operation on a path, and the Windows code that it gave. */
#ifndef TNWSH_FAILURE_H
#define TNWSH_FAILURE_H

#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>

#include "tools/program.h"

namespace tnwsh {

using tools::ExitStatus;
using enum tools::ExitStatus;

/* What a code means as the answer of one operation; without a text, what it always means. */
struct Answer {
  uint32_t code;
  const char* meaning;
};
using Answers = std::span<const Answer>;

/* What a Windows code means to the user of a drive; UTF-8, one line. */
std::string meaning_of(uint32_t code, Answers answers = {});

class Failure : public std::runtime_error {
 public:
  /*
   * "PATH: cannot open: error 2: The system cannot find the file specified." `what` is "cannot
   * open".
   */
  Failure(const std::string& path, const std::string& what, uint32_t code, Answers answers = {});
  /* A failure of our own finding, without a code. */
  Failure(const std::string& path, const std::string& what)
      : std::runtime_error(path + ": " + what), code_(0) {}

  uint32_t code() const { return code_; }

 private:
  uint32_t code_;
};

/* A command line, or a line of the prompt, that makes no sense. */
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/* Codes that the library gives a meaning of its own. */
inline constexpr uint32_t CONNECTION_BROKEN = 1467;
inline constexpr uint32_t UNAUTHORISED = 1326;
inline constexpr uint32_t END_OF_FILE = 38;
inline constexpr uint32_t NO_MORE_FILES = 18;

}  // namespace tnwsh

#endif
