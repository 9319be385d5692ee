/* The console of the development host. */
#include <csignal>

#include "tools/common/console.h"

namespace tools {
namespace {

volatile std::sig_atomic_t was_interrupted = 0;

void on_interrupt(int) {
  was_interrupted = 1;
  std::signal(SIGINT, SIG_DFL); /* a second Ctrl-C ends the program */
}

}  // namespace

std::vector<std::string> set_up_console(int argc, char** argv) {
  std::signal(SIGINT, on_interrupt);
  return std::vector<std::string>(argv + 1, argv + argc);
}

bool interrupted() { return was_interrupted != 0; }
void forget_interrupt() { was_interrupted = 0; }

}  // namespace tools
