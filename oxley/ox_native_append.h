/*
 * Writing at the end of a log file, with as few calls to the system as there can be. Not exported.
 *
 * A stream that appends, and its descriptor, move their position before each write on Windows,
 * which takes longer than the write. There a handle that can do nothing but append needs no move.
 */
#ifndef OX_NATIVE_APPEND_H
#define OX_NATIVE_APPEND_H

#include <cstdio>

/* A second descriptor of the file of this stream, which was opened for appending. Whatever is
 * written to it goes to the file's end at once. No child gets it. -1 with errno. */
int ox_native_append_to(FILE* stream);

#endif
