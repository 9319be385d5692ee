/*
 * POSIX-like extended attributes of files and directories, kept in NTFS alternate data streams.
 *
 * The attribute `name` of what lies at `path` is the stream "path:name". Its value is the stream's
 * whole content: raw bytes, without header, length or type. A stream goes with its file when that
 * is renamed or deleted; a copy carries it only where the copying program says so.
 *
 * Arguments. Paths and names are narrow texts in the process's code page; together with the colon
 * and the NUL they hold at most OX_MAXPATH_LEN (5000) bytes, else -1 with errno 7. Without a \\?\
 * lead Windows itself takes paths of 260 characters. An attribute's name is not empty and holds no
 * colon, slash or backslash: ":$DATA" would be the file itself. Such a name, a null text and a null
 * value are refused with errno 22. Memory stays the caller's.
 *
 * Failures: -1 with errno from the Windows error (2 and 3 become 2, 183 becomes 17, 50 becomes 130,
 * every other code stays as it is: 5 is access denied, 33 another's lock), and an ERROR line in the
 * log. These lines have the built-in prefix, as of the source "ox_platform_win", even where a
 * prefix callback is installed. A volume without streams (FAT) refuses the names.
 *
 * Threads and processes: any may call at any time. Whoever transfers a value holds an exclusive
 * lock on the whole stream and waits, without a limit, for another's; so two transfers of one
 * attribute never mix. Nothing else is locked: a value may be read between the making of its stream
 * and the first write, as empty, or be removed by anyone at any time.
 *
 * What may surprise:
 *  - Setting a shorter value over a longer one leaves the old tail, and with it the old length.
 *    Remove the attribute first where that matters.
 *  - Getting ignores the buffer's size; see ox_getxattr.
 *  - A path of one letter is a drive: "a" with "b" is the file b on drive A. Write ".\a".
 *  - A folder is named without a separator at the end, a drive's root ("C:\") with it.
 *  - A read-only file refuses new and changed attributes (errno 5).
 */
#ifndef OX_XATTR_H
#define OX_XATTR_H

#include "ox_platform.h"
#include "ox_types.h"

OX_BEGIN_DECLS

/*
 * Writes "path:name" into `out`, a buffer of OX_MAXPATH_LEN bytes: 0, or -1 with errno 7 (and a
 * WARNING line) or 22. The result can be given to ox_open and ox_creat.
 */
int ox_get_stream_name(const char* path, const char* name, char* out);

/*
 * Writes `size` bytes over the beginning of the value, which is made if there is none; `size` 0
 * makes an empty one. `flags` is ignored: there is no create-only and no replace-only. 0 when every
 * byte was written; after a failure in the middle the value may hold a part.
 */
int ox_setxattr(const char* path, const char* name, const void* value, size_t size, int flags);

/*
 * Reads the whole value into `value` and returns its length in bytes.
 *
 * THE BUFFER'S SIZE IS NOT LOOKED AT: a longer value is written past the buffer's end. Give a
 * buffer that holds the longest value that anybody may have set. To learn the length, open the
 * stream's name (ox_get_stream_name, ox_open) and seek to its end; it holds until the next set.
 *
 * The length is what the value takes on the disk, its low 32 bits: of a value of 4 GiB or more only
 * the remainder is read, and in a compressed or sparse stream less than was set. An attribute that
 * does not exist is -1 with errno 2.
 */
ox_s64 ox_getxattr(const char* path, const char* name, void* value, size_t size);

/* Removes the attribute: 0, also when it or the file does not exist. */
int ox_removexattr(const char* path, const char* name);

/*
 * The same by the path of a descriptor, which comes from this library's ox_open, ox_creat or
 * ox_open_directory; the descriptor itself is neither read nor moved. A path that does not fit
 * OX_MAXPATH_LEN, or an invalid descriptor, is -1 and an "ox_fd2path" line.
 */
int ox_fsetxattr(int fd, const char* name, const void* value, size_t size, int flags);
ox_s64 ox_fgetxattr(int fd, const char* name, void* value, size_t size);

/* Not offered: always -1 with errno 22. Find the path with ox_fd2path and use ox_removexattr. */
int ox_fremovexattr(int fd, const char* name);

/*
 * Always 0: do not rely on a copy of a file to carry its attributes. A copy that must keep them
 * copies them with these calls.
 */
int is_native_xattr_copy_supported(const char* path);

OX_END_DECLS

#endif
