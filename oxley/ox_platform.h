/**
 * @file
 * @ingroup portability
 * POSIX-like descriptor calls over Windows file handles.
 *
 * A descriptor is a number of the DLL's own C runtime, wrapped around a Windows handle; closing it
 * closes the handle. Each runtime of a process has its own descriptors, its own streams and its own
 * errno. So a descriptor of the program's own open, _open_osfhandle or fopen is refused here or,
 * what is worse, names another file; and a descriptor of this library must not go to the program's
 * own read or close. Every descriptor comes from ox_open, ox_creat or ox_open_directory and goes to
 * ox_close. A program that has a Windows handle uses the calls that take one. Paths are narrow
 * strings in the process's code page.
 *
 * Failures: -1 with errno set from the Windows error by one rule (2 and 3 become 2, 183 becomes
 * 17, 50 becomes 130, every other code stays as it is), unless said otherwise. Any thread may call.
 * Two threads that use one descriptor see to the order of their calls themselves.
 */
#ifndef OX_PLATFORM_H
#define OX_PLATFORM_H

#include "ox_types.h"

OX_BEGIN_DECLS

/** Open flags: the runtime's (access mode in the low two bits) and two of this layer. */
enum {
  OX_O_RDONLY = 0x0,
  OX_O_WRONLY = 0x1,
  OX_O_RDWR = 0x2,
  OX_O_CREAT = 0x100,
  OX_O_TRUNC = 0x200,
  OX_O_EXCL = 0x400, /**< ignored */
  /** Unbuffered: offsets, counts and buffers are then multiples of the sector, else errno is 87.
   * With both flags the file is unbuffered, and not write-through. */
  OX_O_DIRECT = 0x20000000
};
/** An open flag, too: write-through. */
#define OX_O_SYNC 0x80000000u

/** The longest path, in bytes with the NUL, that any call of the family handles. */
enum { OX_MAXPATH_LEN = 5000 };

/**
 * The CreateFile disposition for open flags. Unlike POSIX, a read-only open with the create flag
 * fails when the file exists (CREATE_NEW): programs of the family rely on it to make a file once.
 */
ox_u32 ox_create_disposition(ox_u32 flags);

/**
 * Opens or creates `path`, shared for reading, writing and deleting. `mode` without any write bit
 * (octal 0222) creates a read-only file. Logs nothing.
 */
int ox_creat(const char* path, ox_u32 flags, ox_u32 mode);
/** Opens an existing file, never creating or truncating one; logs a failure. */
int ox_open(const char* path, ox_u32 flags);
/** Opens a folder, or a stream of one (the create flag makes the stream); logs nothing. A folder's
 * descriptor gives its path and its attributes (ox_xattr.h); it cannot be read or locked. */
int ox_open_directory(const char* path, ox_u32 flags);
/** Closes a descriptor of this library: 0 or -1 with errno. */
int ox_close(int fd);
/** Closes a Windows handle that no descriptor wraps: 0 or -1 with errno. */
int ox_close_fhdl(ox_handle handle);

/** The new position, or -1 with errno. A whence other than 0, 1, 2 gives 22 as the result itself,
 * which callers compare with. */
ox_off ox_lseek(int fd, ox_off offset, int whence);
/** Sets the size and leaves the file position at `length` (unlike POSIX). 0 or -1 with errno. */
int ox_ftruncate(int fd, ox_off length);
/** One read at the file's position, of up to 4 GiB - 1 bytes: the count, 0 at the end; or -1. */
ox_s64 ox_read(int fd, void* buf, size_t count);
/**
 * One positional transfer of up to 4 GiB - 1 bytes: the count, or -1. Reading at or past the end
 * of the file is -1 with errno 38 (unlike POSIX's 0). An invalid descriptor leaves errno alone.
 */
ox_s64 ox_pread(int fd, void* buf, size_t count, ox_off offset);
/** Writes at `offset`, see ox_pread. */
ox_s64 ox_pwrite(int fd, const void* buf, size_t count, ox_off offset);

/**
 * Writes the path behind a descriptor or handle as the system gives it (with its `\\?\` lead) into
 * `buf` of `size` bytes. With `name` a backslash and the name follow, and every slash becomes a
 * backslash. 1, or 0 with errno, which is 7 when the path or the name does not fit. ox_handle2path
 * makes `buf` empty on failure and keeps no descriptor.
 */
int ox_fd2path(int fd, char* buf, size_t size, const char* name);
/** The same for a Windows handle, see ox_fd2path. */
int ox_handle2path(ox_handle handle, char* buf, size_t size, const char* name);

/** How many streams the DLL's own runtime can have open at a time (_getmaxstdio). */
int ox_get_max_openfiles(void);

OX_END_DECLS

#endif
