/*
 * Appending in builds for the development host.
 */
#include <fcntl.h>

#include "ox_native_append.h"

int ox_native_append_to(FILE* stream) { return fcntl(fileno(stream), F_DUPFD_CLOEXEC, 0); }
