/* How bytes of a content get into a file of a cloud that is a directory. */
#ifndef SERVICE_RANGE_WRITER_H
#define SERVICE_RANGE_WRITER_H

#include <windows.h>

#include "cloud/cloud.h"

namespace tarnd {

/*
 * Writes a range of the content at the same place of the file, which is open for writing. After a
 * failure any part of the range may be written.
 */
CloudResult write_range(HANDLE file, const CloudContext& context, Snapshot& content,
                        ByteRange range);

}  // namespace tarnd

#endif
