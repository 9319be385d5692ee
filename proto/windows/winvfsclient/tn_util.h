/*
 * File information from cloud file-list entries, and the translation between the service's error
 * numbers and Windows error codes.
 */
#ifndef TN_UTIL_H
#define TN_UTIL_H

#include "tn_cffl.h"
#include "tnw.h"

OX_BEGIN_DECLS

/*
 * The Windows code for a service error; one that has none is logged and returned unchanged,
 * deliberately: the caller sees the raw number. EACCES (13) deliberately becomes 32.
 */
ox_u32 unixerr2winerr(ox_u32 err);
/* The service error for a Windows code; one that has none is logged and becomes 22. Not the
 * inverse. */
ox_u32 winerr2unixerr(ox_u32 code);

/*
 * Fills `fi` from a list entry. All three times are the entry's modification time, deliberately. A
 * name of 245 bytes or more is left without its NUL.
 */
void tn_cfp2fi(tnw_fileinfo* fi, const cfs_path* cfp);

OX_END_DECLS

#endif
