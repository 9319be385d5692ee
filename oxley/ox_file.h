/*
 * Files by their path: size and kind, and removal. Not exported from the DLL. Windows only.
 *
 * Paths are narrow texts in the process's code page. Failures: -1 with errno from the Windows error
 * (see ox_platform.h). Any thread may call.
 */
#ifndef OX_FILE_H
#define OX_FILE_H

#include "ox_types.h"

OX_BEGIN_DECLS

typedef struct ox_stat {
  ox_u64 st_size; /* bytes */
  bool st_isdir;
} ox_stat_t;

/* The size and kind of the file or folder at `path`. 0 or -1. */
int ox_stat(const char* path, ox_stat_t* st);
/* Removes a file. 0 or -1. */
int ox_unlink(const char* path);

OX_END_DECLS

#endif
