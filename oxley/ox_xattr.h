/**
 * @file
 * @ingroup portability
 * POSIX-like extended attributes of files and directories, kept in NTFS alternate data streams.
 *
 * The attribute `name` of what lies at `path` is the stream "path:name". Its value is the stream's
 * whole content: raw bytes, without header, length or type. A stream goes with its file when that
 * is renamed or deleted; a copy carries it only where the copying program says so.
 *
 * Arguments. Paths and names are narrow texts in the process's code page. Together with the colon
 * and the NUL they hold at most OX_MAXPATH_LEN (5000) bytes, else errno is 7. Without a `\\?\` lead
 * Windows itself takes paths of 260 characters. An empty path or name is refused as Windows refuses
 * it (2 where the path is looked up, 123 elsewhere). A name with a colon, slash or backslash is
 * refused with 22: ":$DATA" would be the content of the file itself. A null path or name, and a
 * null value with a size, are refused with 22 and no line in the log. Memory stays the caller's.
 *
 * Failures: -1 with errno from the Windows error (2 and 3 become 2, 183 becomes 17, 50 becomes 130,
 * every other code stays as it is: 5 is access denied, 33 another's lock), and an ERROR line in the
 * log. These lines have the built-in prefix with the source "ox_platform_win", also where a prefix
 * callback is installed. On a volume without streams (FAT) Windows refuses the names.
 *
 * Threads and processes: any may call at any time. A call that transfers a value holds an exclusive
 * lock on the whole stream, for which it waits without a limit. So two transfers of one attribute
 * never mix. Nothing else is locked: a value that is being set for the first time may be read as
 * empty, and anyone may remove a value at any time.
 *
 * What may surprise:
 *  - Setting a shorter value over a longer one leaves the old tail, and with it the old length.
 *    Remove the attribute first where that matters.
 *  - Getting ignores the buffer's size; see ox_getxattr.
 *  - A path of one letter is a drive: "a" with "b" is the file b on drive A. Write `.\a`.
 *  - Write a folder without a separator at the end, and a drive's root with it (`C:\`).
 *  - A read-only file refuses new and changed attributes (errno 5).
 */
#ifndef OX_XATTR_H
#define OX_XATTR_H

#include "ox_platform.h"
#include "ox_types.h"

OX_BEGIN_DECLS

/**
 * Writes "path:name" into `out`, a buffer of OX_MAXPATH_LEN bytes: 0, or -1 with errno 7 (and a
 * WARNING line) or 22. Whether the texts can name a stream is not looked at. The result can be
 * given to ox_open and ox_creat.
 */
int ox_get_stream_name(const char* path, const char* name, char* out);

/**
 * Writes `size` bytes over the beginning of the value, which is made if there is none; `size` 0
 * makes an empty one. `flags` is ignored: there is no create-only and no replace-only. 0 when every
 * byte was written; after a failure in the middle the value may hold a part.
 */
int ox_setxattr(const char* path, const char* name, const void* value, size_t size, int flags);

/**
 * Reads the whole value into `value` and returns its length in bytes.
 *
 * THE BUFFER'S SIZE IS NOT LOOKED AT: a longer value is written past the buffer's end. Give a
 * buffer that holds the longest value that anybody may have set. To learn the length, open the
 * stream's name (ox_get_stream_name, ox_open) and seek to its end; it holds until the next set.
 * With a null `value` the call tells whether there is an attribute: 0 when its value is empty, else
 * -1, and errno is 998 when it is not empty.
 *
 * The length is what the value takes on the disk, its low 32 bits: of a value of 4 GiB or more only
 * the remainder is read, and in a compressed or sparse stream less than was set. An attribute that
 * does not exist is -1 with errno 2.
 */
ox_s64 ox_getxattr(const char* path, const char* name, void* value, size_t size);

/** Removes the attribute: 0, also when it or the file does not exist. */
int ox_removexattr(const char* path, const char* name);

/**
 * The same for the file behind a descriptor of this library's ox_open, ox_creat or
 * ox_open_directory. They use the descriptor's path; its position stays. An invalid descriptor, or
 * a path that does not fit OX_MAXPATH_LEN, is -1 with an "ox_fd2path" line.
 */
int ox_fsetxattr(int fd, const char* name, const void* value, size_t size, int flags);
/** The same for a descriptor, see ox_getxattr and ox_fsetxattr. */
ox_s64 ox_fgetxattr(int fd, const char* name, void* value, size_t size);

/** Does nothing: -1 with errno 22. Find the path with ox_fd2path and use ox_removexattr. */
int ox_fremovexattr(int fd, const char* name);

/** Always 0: a copy of a file need not carry its attributes. Copy them with these calls. */
int is_native_xattr_copy_supported(const char* path);

OX_END_DECLS

#endif
