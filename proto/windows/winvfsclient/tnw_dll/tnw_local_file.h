/*
 * The local cache file of an open file. The library reads, writes and resizes it itself, through
 * the handle that the service's answer carried. Any number of reads and writes may run at the same
 * time; no other call may run while tnw_close_local_file does. Results are 0 or a Windows error.
 */
#ifndef TNW_LOCAL_FILE_H
#define TNW_LOCAL_FILE_H

#include <windows.h>

#include "tnw_fd.h"

/* Gives a reserved entry its local file, or INVALID_HANDLE_VALUE for none. */
void tnw_take_local_file(tnvfd* fde, ox_handle file);
/* Closes the local file, if there is one. The entry has none from then on. */
void tnw_close_local_file(tnvfd* fde);

/* Sets the size of the local file of a reserved entry to 0. */
DWORD tnw_empty_local_file(tnvfd* fde);
/* Sets the size of the local file. */
DWORD tnw_set_local_size(const tnvfd* fde, ox_u64 size);

/*
 * Read or write `len` bytes at an offset of the local file. `count` receives the number of bytes.
 * They return when the transfer is over, also for a handle that was opened for overlapped I/O. The
 * handle's own position is not used.
 */
DWORD tnw_read_local_file(const tnvfd* fde, void* buffer, DWORD len, ox_off off, DWORD* count);
DWORD tnw_write_local_file(const tnvfd* fde, const void* buffer, DWORD len, ox_off off,
                           DWORD* count);

#endif
