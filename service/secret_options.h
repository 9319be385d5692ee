/*
 * The secrets of the command line (the user's token, the proxy's password). Other programs can read
 * a process's command line at any time: they are overwritten once they have been read.
 */
#ifndef SERVICE_SECRET_OPTIONS_H
#define SERVICE_SECRET_OPTIONS_H

namespace tarnd {

/* In a command line that split_command_line takes: each character of such values becomes a '*'. */
void hide_secret_options(char* line);
void hide_secret_options(wchar_t* line);

/* The same in all that this process has of its own command line. `words`: those that main() got. */
void hide_own_secret_options(int count, char** words);

}  // namespace tarnd

#endif
