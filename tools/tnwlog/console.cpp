#include "console.h"

#ifdef _WIN32

#include "../tnwsh/console.h"

namespace tnwlog {

std::vector<std::string> set_up_console(int, char**) {
  tnwsh::set_up_console();
  return tnwsh::program_arguments();
}

bool interrupted() { return tnwsh::interrupted(); }

}  // namespace tnwlog

#else

#include <csignal>

namespace tnwlog {
namespace {

volatile std::sig_atomic_t was_interrupted = 0;

void on_interrupt(int) {
  was_interrupted = 1;
  std::signal(SIGINT, SIG_DFL); /* a second one ends the program */
}

}  // namespace

std::vector<std::string> set_up_console(int argc, char** argv) {
  std::signal(SIGINT, on_interrupt);
  return std::vector<std::string>(argv + 1, argv + argc);
}

bool interrupted() { return was_interrupted != 0; }

}  // namespace tnwlog

#endif
