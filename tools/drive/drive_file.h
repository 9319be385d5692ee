/* Reads and writes of an open file, as programs want them. Both return 0 or a Windows code. */
#ifndef TOOLS_DRIVE_FILE_H
#define TOOLS_DRIVE_FILE_H

#include <cstddef>
#include <cstdint>

namespace tools {

/* Counts 0 bytes at the end of the file. A region that cannot be fetched is ERROR_READ_FAULT. */
int read_at(void* file, uint64_t offset, void* buffer, size_t size, size_t* count);
/* Writes all of the bytes, or fails. */
int write_at(void* file, uint64_t offset, const void* data, size_t size);

}  // namespace tools

#endif
