/*
 * Whole directory trees, and where paths lead. Not exported from the DLL. Windows only.
 *
 * Paths are narrow texts in the process's code page; what lies below may have any name and depth.
 */
#ifndef OX_DIRTREE_H
#define OX_DIRTREE_H

#include "ox_types.h"

OX_BEGIN_DECLS

/*
 * Removes what `path` names: a file, or a directory with all below it. Links and junctions are
 * removed, never followed; read-only files go too. Goes on past what cannot be removed. 0, or the
 * first error, which is in errno too (2: there is nothing).
 */
int ox_rmrf(const char* path);

/*
 * Moves a directory into the system's temporary folder under a new name, which is written to
 * `moved` (`size` bytes). 0, or -1 with errno after an ERROR line: 22 for a path without a
 * backslash, 38 when the name does not fit. A directory does not cross volumes.
 */
int ox_movedir2tmp(const char* path, char* moved, size_t size);

/*
 * Whether `path` names something below `folder`, not the folder itself, as the system reads both:
 * ".." leads up, dots and spaces at the end are dropped, case does not matter. Neither need exist,
 * and links are not followed. False when one of them cannot be read as a path.
 */
bool ox_is_below(const char* path, const char* folder);

OX_END_DECLS

#endif
