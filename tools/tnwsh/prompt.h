/* The prompt: one command a line, from a terminal, a file or a pipe. */
#ifndef TNWSH_PROMPT_H
#define TNWSH_PROMPT_H

#include <string>
#include <vector>

#include "shell.h"

namespace tnwsh {

/*
 * Splits a line at blanks. Words, or pieces of them, stand in double quotes where they hold blanks;
 * whole words also in single ones (inside a word that is an apostrophe). A backslash is only a
 * separator of paths. A word that begins with '#' ends the line. Throws a UsageError for a quote
 * that is not closed.
 */
std::vector<std::string> split_words(const std::string& line);

/*
 * Runs lines until `exit` or the end of the input. The status is the worst of all lines; on a
 * terminal, where each was seen as it happened, always success.
 */
ExitStatus run_prompt(Shell* shell);

}  // namespace tnwsh

#endif
