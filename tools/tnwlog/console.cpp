#include "console.h"

#ifdef _WIN32

#include "../tnwsh/console.h"

namespace tnwlog {

std::vector<std::string> SetUpConsole(int, char**) {
  tnwsh::SetUpConsole();
  return tnwsh::ProgramArguments();
}

bool Interrupted() { return tnwsh::Interrupted(); }

}  // namespace tnwlog

#else

#include <csignal>

namespace tnwlog {
namespace {

volatile std::sig_atomic_t interrupted = 0;

void OnInterrupt(int) {
  interrupted = 1;
  std::signal(SIGINT, SIG_DFL); /* a second one ends the program */
}

}  // namespace

std::vector<std::string> SetUpConsole(int argc, char** argv) {
  std::signal(SIGINT, OnInterrupt);
  return std::vector<std::string>(argv + 1, argv + argc);
}

bool Interrupted() { return interrupted != 0; }

}  // namespace tnwlog

#endif
