/* What differs between Windows and the development host. */
#ifndef TNWLOG_CONSOLE_H
#define TNWLOG_CONSOLE_H

#include <string>
#include <vector>

namespace tnwlog {

/* Call once, first. The words of the command line after the program's name, UTF-8. */
std::vector<std::string> set_up_console(int argc, char** argv);

/* Whether Ctrl-C was pressed. */
bool interrupted();

}  // namespace tnwlog

#endif
