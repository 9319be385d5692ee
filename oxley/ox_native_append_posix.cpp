/*
 * Appending in builds for the development host: the descriptor below the stream.
 */
#include "ox_native_append.h"

#include <unistd.h>

void* ox_native_append_open(FILE* stream) { return stream; }

void ox_native_append_close(void* /*appender*/) {}

bool ox_native_append(void* appender, const char* data, size_t size) {
  return write(fileno(static_cast<FILE*>(appender)), data, size) == static_cast<ssize_t>(size);
}
