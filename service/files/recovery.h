/*
 * What a killed service left behind.
 *
 * The cache begins empty at each start. But a cache file with a journal holds data that was never
 * written back: it is written back now, when the cloud's file is still the one that it was based
 * on. When it is not (somebody changed it since), both files go to the folder "kept" beside the
 * cache files, with a line in the log that names them: nothing is overwritten and nothing is lost.
 */
#ifndef SERVICE_RECOVERY_H
#define SERVICE_RECOVERY_H

#include "files/cached_file.h"

namespace tarnd {

/*
 * Recovers what the folder of cache files holds, and empties it. Returns how many files were
 * written back. Files that the cloud does not take now stay for the next start.
 */
uint32_t recover_cache(const CacheEnvironment& environment);

}  // namespace tarnd

#endif
