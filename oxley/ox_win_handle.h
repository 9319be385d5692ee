/*
 * Descriptors and Windows handles, for the Windows sources of this folder only.
 */
#ifndef OX_WIN_HANDLE_H
#define OX_WIN_HANDLE_H

#include <windows.h>

/* The handle behind a descriptor, or INVALID_HANDLE_VALUE. Leaves errno alone. */
HANDLE ox_fd_handle(int fd);

/* Sets errno from the thread's last Windows error; call it in the statement after the failure. */
void ox_set_errno(void);

#endif
