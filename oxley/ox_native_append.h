/*
 * Writing at the end of a log file, with as few calls to the system as there can be. Not exported.
 *
 * A stream that appends moves its position before each write on Windows, which takes longer than
 * the write. There a handle that can do nothing but append writes instead.
 */
#ifndef OX_NATIVE_APPEND_H
#define OX_NATIVE_APPEND_H

#include <cstdio>

/* What writes to the file of this stream, which was opened for appending and is not written to
 * itself. Null with errno when there are no more handles. */
void* ox_native_append_open(FILE* stream);
/* Before the stream is closed. Takes null. */
void ox_native_append_close(void* appender);
/* Writes everything out at once, or gives false with errno: the beginning may have been written.
 * One thread at a time. */
bool ox_native_append(void* appender, const char* data, size_t size);

#endif
