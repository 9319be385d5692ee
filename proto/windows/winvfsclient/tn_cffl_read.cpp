/*
 * Reading a cloud file list from a descriptor.
 */
#include <cerrno>
#include <cstring>
#include <thread>

#include "ox_errno.h"
#include "ox_logging.h"
#include "ox_platform.h"
#include "ox_util.h"
#include "tn_cffl.h"

namespace {

/* How far tn_cfp2fi reads from the name of the last entry on, if its record length lies. */
constexpr size_t READ_BEHIND = sizeof(tnw_fileinfo::fi_name);

/*
 * Allocates a list that says that it has `size` bytes; the memory is zero, has at least a header
 * block, and READ_BEHIND more bytes. Lengths are signed 32-bit counts: for a list that is longer
 * there is no memory.
 */
cfs_cffl* allocate(ox_u64 size, size_t sectsz) {
  cfs_cffl* list = nullptr;
  if (size > INT32_MAX) {
    errno = OX_ENOMEM;
  } else {
    const size_t least = size < sizeof(cfs_cffl) ? sizeof(cfs_cffl) : static_cast<size_t>(size);
    list = tn_zalloc_cffl_internal(least + READ_BEHIND, sectsz);
  }
  if (list == nullptr) {
    OX_LOG(OX_ERROR_LEVEL, errno, "cannot allocate %d bytes for cffl", static_cast<int>(size));
  }
  return list;
}

/* Reads `size` bytes from the start of the file, and waits for bytes that are not written yet. */
bool read_from_start(int fd, char* buf, ox_u64 size) {
  if (ox_lseek(fd, 0, 0) < 0) {
    return false;
  }
  while (size > 0) {
    const ox_s64 count = ox_read(fd, buf, size);
    if (count < 0) {
      return false;
    }
    if (count == 0) {
      std::this_thread::yield(); /* the end of the file is not an end: tn_cffl.h says why */
    }
    buf += count;
    size -= static_cast<ox_u64>(count);
  }
  return true;
}

/*
 * Reads the whole list. The file may have got a longer list since its header was read; that one is
 * not complete here.
 */
bool read_whole(int fd, cfs_cffl* list, ox_u64 size) {
  if (!read_from_start(fd, reinterpret_cast<char*>(list), size)) {
    return false;
  }
  if (list->cfh_head.cf_size > size) {
    errno = OX_EAGAIN;
    return false;
  }
  return true;
}

}  // namespace

cfs_cffl* tn_alloc_cffl_internal(size_t size, size_t sectsz) {
  return static_cast<cfs_cffl*>(ox_aligned_malloc(size, sectsz));
}

cfs_cffl* tn_zalloc_cffl_internal(size_t size, size_t sectsz) {
  return static_cast<cfs_cffl*>(ox_aligned_zmalloc(size, sectsz));
}

void tn_free_cffl(cfs_cffl** cffl) {
  if (cffl != nullptr) {
    ox_aligned_free_safe(*cffl);
    *cffl = nullptr;
  }
}

cfs_cffl* tn_fread_cffl(int fd, size_t sectsz, bool read_data) {
  cfs_cffl header;
  if (ox_read(fd, &header, sizeof(header)) < static_cast<ox_s64>(sizeof(header))) {
    OX_LOG(OX_ERROR_LEVEL, errno, "error reading cffl header from fd %d", fd);
    return nullptr;
  }
  const ox_u64 size = read_data ? header.cfh_head.cf_size : sizeof(header);
  cfs_cffl* list = allocate(size, sectsz);
  if (list == nullptr) {
    return nullptr;
  }
  if (!read_data) {
    memcpy(list, &header, sizeof(header));
  } else if (!read_whole(fd, list, size)) {
    OX_LOG(OX_ERROR_LEVEL, errno, "error reading %llu bytes cffl from fd %d",
           static_cast<unsigned long long>(size), fd);
    tn_free_cffl(&list);
  }
  return list;
}
