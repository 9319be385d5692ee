/*
 * What a process holds, to be compared before and after.
 */
#ifndef PROCESS_STATE_H
#define PROCESS_STATE_H

#include <cstddef>
#include <string>
#include <vector>

/* The highest place in the process's table of handles that one of 64 new handles gets: it climbs
 * with every handle that stays, also with one that fills a gap. It stands for a count of the
 * handles, which is not to be had under Wine. */
size_t fresh_handle();
/* The same for the runtime's descriptors. */
int fresh_descriptor();
/* Bytes in use on all heaps of the process, exact to a block. */
size_t heap_bytes();

/* One thing that a process holds: how much of it, and how much more is no growth yet. */
struct Held {
  const char* name;
  size_t slack;
  size_t now;
};
using Holding = std::vector<Held>;

/* What this process holds: all of the above, and what every process can be asked for. `working`:
 * other threads hold something just now, and at another time something else. */
Holding own_holding(size_t heap_slack, bool working = false);
/* What a process holds: committed memory, which is also threads' stacks and whatever else is not on
 * a heap; the highest place of 64 handles that are put there and taken back; threads. */
Holding holding_of(void* process);
/* What grew by more than the slack of `before`, with both figures; empty when nothing did. */
std::string growth(const Holding& before, const Holding& now);

bool is_open_handle(const void* handle);

#endif
