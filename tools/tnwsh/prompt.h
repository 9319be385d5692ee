/* The prompt: one command a line, from a terminal, a file or a pipe. */
#ifndef TNWSH_PROMPT_H
#define TNWSH_PROMPT_H

#include "shell.h"

namespace tnwsh {

/*
 * Runs lines until `exit` or the end of the input. Words are quoted as on every command line of
 * Windows; a word that begins with '#' ends the line.
 *
 * The status is the worst of all lines; on a terminal, where each was seen as it happened, always
 * success.
 */
ExitStatus run_prompt(Shell* shell);

}  // namespace tnwsh

#endif
