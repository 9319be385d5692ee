/* The console: UTF-8 in both directions, bytes as they are when it is a file or a pipe. */
#ifndef TNWSH_CONSOLE_H
#define TNWSH_CONSOLE_H

#include <cstdio>
#include <string>
#include <vector>

namespace tnwsh {

/* Call once, first. */
void SetUpConsole();

/* The words of the process's command line after the program's name, UTF-8. */
std::vector<std::string> ProgramArguments();
/* The folder of the running program, UTF-8, with its last backslash. */
std::string ProgramFolder();

bool IsTerminal(FILE* stream);
int TerminalWidth();

/* The next line of standard input without its end; false at the end of the input. */
bool ReadLine(std::string* line);

/* The same, not shown on a terminal. */
bool ReadSecret(std::string* line);
/* Asks on a terminal; elsewhere the answer is no. */
bool Confirm(const std::string& question);

/*
 * Whether Ctrl-C was pressed since the last call of ForgetInterrupt. A second Ctrl-C ends the
 * program.
 */
bool Interrupted();
void ForgetInterrupt();

}  // namespace tnwsh

#endif
