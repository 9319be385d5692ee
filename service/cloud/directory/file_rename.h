/*
 * Renaming and deleting open files by their handles, so that what was looked at is what is moved.
 *
 * Windows 10 can do both as POSIX does, also while somebody has the target open; older systems and
 * other disks refuse that, and delete a file only when its last handle closes.
 */
#ifndef SERVICE_FILE_RENAME_H
#define SERVICE_FILE_RENAME_H

#include <string>

#include "files/windows_file.h"

namespace tarnd {

/* All return 0 or a Windows error. The file is open with DELETE access; the place is verbatim. */

/* ERROR_ALREADY_EXISTS when something is there. */
DWORD rename_file(HANDLE file, const std::wstring& place);
/*
 * Replaces the file that is there. `target` is an open handle of it, which denies others to write
 * and shares deletion. Where the system cannot replace an open file it is closed for that; so
 * another program may put a file in its place in between, which is then lost.
 */
DWORD replace_file(HANDLE file, const std::wstring& place, FileHandle* target);
/* Its name is free when this returns, or, on older systems, when its last handle closes. */
DWORD delete_file(HANDLE file);

}  // namespace tarnd

#endif
