/*
 * What a process holds, to be compared before and after.
 */
#ifndef PROCESS_STATE_H
#define PROCESS_STATE_H

#include <cstddef>

/* The highest place in the process's table of handles that one of 64 new handles gets: it climbs
 * with every handle that stays, also with one that fills a gap. It stands for a count of the
 * handles, which is not to be had under Wine. */
size_t fresh_handle();
/* The same for the runtime's descriptors. */
int fresh_descriptor();
/* Bytes in use on all heaps of the process, exact to a block. */
size_t heap_bytes();

bool is_open_handle(const void* handle);

#endif
