/*
 * File information from cloud file-list entries, and the translation between the service's error
 * numbers and Windows error codes. None of it keeps anything or fails: any thread may call.
 */
#ifndef TN_UTIL_H
#define TN_UTIL_H

#include "tn_cffl.h"
#include "tnw.h"

OX_BEGIN_DECLS

/*
 * The Windows code for a service error, which counts as the Windows C runtime does (41: a folder
 * is not empty) and has a 133 of its own, the lost connection, which becomes 1467. One that has no
 * code is logged at INFO and returned unchanged, deliberately: the caller sees the raw number.
 * EACCES (13) deliberately becomes 32.
 */
ox_u32 unixerr2winerr(ox_u32 err);
/*
 * The service error for a Windows code; one that has none is logged at INFO and becomes 22. Not the
 * inverse: 5 becomes 13, which goes out as 32.
 */
ox_u32 winerr2unixerr(ox_u32 code);

/*
 * Fills the whole of `fi` (tnw.h) from a list entry, which tn_get_first_cfp or tn_get_next_cfp
 * gave. All three times are the entry's modification time, deliberately. The one attribute is the
 * folder's, also where the user may only read. A name of 245 bytes or more is left without its NUL.
 * The checksum is "version-chunks-chunksize-digest", without chunks the digest alone, and empty for
 * a folder. The fields of locks and collaboration stay zero.
 */
void tn_cfp2fi(tnw_fileinfo* fi, const cfs_path* cfp);

OX_END_DECLS

#endif
