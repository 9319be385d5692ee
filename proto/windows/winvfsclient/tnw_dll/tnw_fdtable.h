/*
 * An instance's table of open files: fixed at start-up, one entry per possible descriptor.
 * Taking and giving back are constant-time; the descriptor given back last is handed out next.
 */
#ifndef TNW_FDTABLE_H
#define TNW_FDTABLE_H

#include "tnw_fd.h"
#include "vfs_handle.h"

/* 0 or a system error. `vh` is for log prefixes, here and below. */
int tnw_alloc_fdtable(vfs_handle* vh, tnw_files* fdt);
/* Frees the table with all that its entries still own: maps, listings, local files. */
void tnw_free_fdtable(tnw_files* fdt);

/* A reserved entry that carries nothing but its descriptor, or null with `err` 24. */
tnvfd* tnw_getfd(vfs_handle* vh, tnw_files* fdt, int* err);
/* Clears the entry, frees its maps and its listing, and puts it in front of the free list. The
 * local file is the caller's to close before. An entry that is free already is left alone. */
void tnw_putfd(vfs_handle* vh, tnw_files* fdt, tnvfd* fde);
/* Takes the first free entry; null when none is left. The caller holds fdt_lock. */
tnvfd* tnw_fd_dequeue(tnvfdhd* head);

/* Whether a pointer, which is not dereferenced, is an entry of the table. */
bool tnw_is_table_entry(const tnw_files* fdt, const void* ophdl);
/* Closes the local cache file, once: fdt_ofd is invalid from then on. */
void tnw_close_local_file(tnvfd* fde);

#endif
