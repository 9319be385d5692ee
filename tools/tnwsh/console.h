/* The console: UTF-8 in both directions, bytes as they are when it is a file or a pipe. */
#ifndef TNWSH_CONSOLE_H
#define TNWSH_CONSOLE_H

#include <cstdio>
#include <string>
#include <vector>

namespace tnwsh {

/* Call once, first. */
void set_up_console();

/* The words of the process's command line after the program's name, UTF-8. */
std::vector<std::string> program_arguments();
/* The folder of the running program, UTF-8, with its last backslash. */
std::string program_folder();

bool is_terminal(FILE* stream);
int terminal_width();

/* The next line of standard input without its end; false at the end of the input. */
bool read_line(std::string* line);

/* The same, not shown on a terminal. */
bool read_secret(std::string* line);
/* Asks on a terminal; elsewhere the answer is no. */
bool confirm(const std::string& question);

/*
 * Whether Ctrl-C was pressed since the last call of forget_interrupt. A second Ctrl-C ends the
 * program.
 */
bool interrupted();
void forget_interrupt();

}  // namespace tnwsh

#endif
