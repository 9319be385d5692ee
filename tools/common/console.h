/* The console: UTF-8 in both directions, bytes as they are when it is a file or a pipe. */
#ifndef TOOLS_COMMON_CONSOLE_H
#define TOOLS_COMMON_CONSOLE_H

#include <cstdio>
#include <string>
#include <vector>

namespace tools {

/* Call once, first. The words of the command line after the program's name, UTF-8. */
std::vector<std::string> set_up_console(int argc, char** argv);

/*
 * Whether Ctrl-C was pressed since the last call of forget_interrupt. A second Ctrl-C ends the
 * program.
 */
bool interrupted();
void forget_interrupt();

/* ------------------------------------------------------------------- Windows only */

/* The words of a Windows command line, UTF-8. Throws a UsageError for what is no Unicode text. */
std::vector<std::string> words_of(const wchar_t* command_line);

/* The folder of the running program, UTF-8, with its last backslash. */
std::string program_folder();

bool is_terminal(FILE* stream);
int terminal_width();

/* The next line of standard input without its end; false at the end of the input. */
bool read_line(std::string* line);

/* Reads a line in the same way. A terminal does not show what is typed. */
bool read_secret(std::string* line);
/* Asks the user on a terminal. Where there is no terminal, the answer is no. */
bool confirm(const std::string& question);

}  // namespace tools

#endif
