/*
 * The rows of bench_drive, by subject.
 */
#ifndef DRIVE_ROWS_H
#define DRIVE_ROWS_H

#include "drive.h"

/* Before there is any drive. */
void footprint_rows(Bench& bench);

void read_write_rows(Bench& bench, const Drive& drive);
void own_part_rows(Bench& bench, const Drive& drive);
void exchange_rows(Bench& bench, const Drive& drive);
void listing_rows(Bench& bench, const Drive& drive);
void first_open_rows(Bench& bench, const Drive& drive);
void transfer_rows(Bench& bench, const Drive& drive);
void growth_rows(Bench& bench, const Drive& drive);

#endif
