/*
 * An instance's table of open files: fixed at start-up, one entry per possible descriptor.
 * Taking and giving back are constant-time; the descriptor given back last is handed out next. Any
 * thread may call; two calls on one entry do not overlap.
 */
#ifndef TNW_FDTABLE_H
#define TNW_FDTABLE_H

#include "tnw_fd.h"
#include "vfs_handle.h"

/*
 * Makes the table of an instance that is not listed yet: 0 or a system error. `vh` is for log
 * prefixes, here and below. No entry has the address of an entry of any table before.
 */
int tnw_alloc_fdtable(vfs_handle* vh, tnw_files* fdt);
/*
 * Frees the table of an instance that is no longer listed, with all that its entries still own:
 * maps, listings, local files.
 */
void tnw_free_fdtable(tnw_files* fdt);

/* A reserved entry that carries nothing but its descriptor, or null with `err` 24. */
tnvfd* tnw_getfd(vfs_handle* vh, tnw_files* fdt, int* err);
/* Makes a reserved entry one that is open on a drive: from now on it is an operation handle. */
void tnw_use_fd(tnw_files* fdt, tnvfd* fde, void* drvhdl);
/*
 * Frees the entry's maps and its listing, clears it and puts it in front of the free list. The
 * local file is the caller's to close before. An entry that is free already is left alone.
 */
void tnw_putfd(vfs_handle* vh, tnw_files* fdt, tnvfd* fde);
/*
 * The same for an entry whose drive handle goes, but it is put at the end of the free list. Until
 * the entry is taken again, calls on it are told that the drive is unknown (1467), not that the
 * file was closed; and it is taken as late as can be, since a late call through its handle would
 * then reach another drive's file.
 */
void tnw_putfd_of_gone_drive(vfs_handle* vh, tnw_files* fdt, tnvfd* fde);
/* Takes the first free entry; null when none is left. The caller holds fdt_lock. */
tnvfd* tnw_fd_dequeue(tnvfdhd* head);
/*
 * The first entry from *index on that is open on the drive, or with null on any drive; null when
 * there is none. *index moves behind it.
 */
tnvfd* tnw_next_in_use(tnw_files* fdt, const void* drvhdl, int* index);

/* Whether a pointer, which is not dereferenced, is an entry of the table. */
bool tnw_is_table_entry(const tnw_files* fdt, const void* ophdl);

#endif
