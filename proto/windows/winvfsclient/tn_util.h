/**
 * @file
 * @ingroup lists
 * File information from the entries of cloud file lists, and the translation between the service's
 * error numbers and Windows error codes. These calls do not fail and keep no state; any thread may
 * call them at any time.
 */
#ifndef TN_UTIL_H
#define TN_UTIL_H

#include "tn_cffl.h"
#include "tnw.h"

OX_BEGIN_DECLS

/**
 * The Windows code for an error number of the service. The service uses the numbers of the Windows
 * C runtime (41 says that a folder is not empty), and 133 for a broken connection, which becomes
 * 1467. A number that has no code is logged at INFO and returned as it is, so that the caller sees
 * the raw number. EACCES (13) becomes 32 ERROR_SHARING_VIOLATION: the service answers it for a file
 * that is in use.
 */
ox_u32 unixerr2winerr(ox_u32 err);
/**
 * The error number of the service for a Windows code. A code that has none is logged at INFO and
 * becomes 22. This is not the inverse of the call above: 5 becomes 13, and 13 becomes 32.
 */
ox_u32 winerr2unixerr(ox_u32 code);

/**
 * Fills all of `fi` (tnw.h) from an entry that tn_get_first_cfp or tn_get_next_cfp gave. All three
 * times become the entry's modification time, so that the creation time a user sees is not the one
 * in the cloud. The only attribute is that of a folder: a file that the user may only read has
 * none. A name of 245 bytes or more has no NUL. The checksum is "version-chunks-chunksize-digest",
 * or the digest alone for a file without chunks; it is empty for a folder. The fields of locks and
 * collaboration stay zero.
 *
 * A record length that lies makes the call read up to 245 bytes from the entry's name on. A list
 * that tn_fread_cffl read has room for that; a list from elsewhere needs 245 bytes behind its end.
 */
void tn_cfp2fi(tnw_fileinfo* fi, const cfs_path* cfp);

OX_END_DECLS

#endif
