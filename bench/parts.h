/*
 * The rows of bench_parts, by subject.
 */
#ifndef PARTS_H
#define PARTS_H

#include "bench.h"

void regions_rows(Bench& bench);
void log_rows(Bench& bench);
void burst_rows(Bench& bench);
#ifndef _WIN32
void pool_rows(Bench& bench);
void names_rows(Bench& bench);
#endif

#endif
