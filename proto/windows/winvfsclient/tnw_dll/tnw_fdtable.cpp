#include "tnw_fdtable.h"

#include <windows.h>

#include <cerrno>
#include <cstring>

#include "ox_errno.h"
#include "ox_list.h"
#include "ox_platform.h"
#include "ox_util.h"
#include "tnw_local_file.h"
#include "tnw_log.h"
#include "vfstnw_bmap.h"

namespace {

/*
 * Clears all of an entry but its descriptor number and its locks, which live as long as the table.
 */
void clear_entry(tnvfd* fde) {
  const int fd = fde->fdt_fd;
  ox_u8* bytes = reinterpret_cast<ox_u8*>(fde);
  memset(bytes, 0, offsetof(tnvfd, fdt_rmap_lock));
  memset(bytes + offsetof(tnvfd, fdt_procname), 0, sizeof(tnvfd) - offsetof(tnvfd, fdt_procname));
  fde->fdt_fd = fd;
  fde->fdt_ofd = INVALID_HANDLE_VALUE;
  fde->fdt_osfd = -1;
}

/*
 * Memory at an address that no other table of the process ever had or gets: a caller may still hold
 * a handle of a session that is over, which must not become another file's. So the addresses stay
 * reserved for good, half a megabyte of address space for a session of 512 entries; the memory goes
 * back.
 */
tnvfd* alloc_entries(size_t count) {
  return static_cast<tnvfd*>(
      VirtualAlloc(nullptr, count * sizeof(tnvfd), MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
}

void free_entries(tnvfd* entries) { VirtualFree(entries, 0, MEM_DECOMMIT); }

void free_entry_memory(tnvfd* fde) {
  vfstnw_remove_bmaps(fde);
  ox_free_safe(fde->fdt_dir.dir_fi);
  ox_aligned_free_safe(fde->fdt_dir.dir_cffl);
}

int init_entry(tnvfd* fde, int fd) {
  fde->fdt_fd = fd;
  clear_entry(fde);
  const int err = ox_init_rwlock(&fde->fdt_rmap_lock);
  const int err2 = ox_init_rwlock(&fde->fdt_dmap_lock);
  const int err3 = ox_init_lock(&fde->fdt_psdo2io_lock);
  return err != 0 ? err : err2 != 0 ? err2 : err3;
}

void deinit_entry(tnvfd* fde) {
  tnw_close_local_file(fde);
  free_entry_memory(fde);
  ox_deinit_rwlock(&fde->fdt_rmap_lock);
  ox_deinit_rwlock(&fde->fdt_dmap_lock);
  ox_deinit_lock(&fde->fdt_psdo2io_lock);
}

/* `gone_drive` is what the free entry keeps as its drive; such an entry is the last to be taken. */
void put(vfs_handle* vh, tnw_files* fdt, tnvfd* fde, void* gone_drive) {
  if (fde->fdt_state == TNV_FD_FREE) {
    return;
  }
  free_entry_memory(fde);
  const int fd = fde->fdt_fd;
  tnvfdhd* head = &fdt->vfs_free_fds;
  ox_lock(&head->fdt_lock);
  clear_entry(fde);
  fde->fdt_drv = gone_drive;
  if (gone_drive != nullptr) {
    ox_list_append(head, fde);
  } else {
    ox_list_push_front(head, fde);
  }
  const ox_s32 count = ++head->fdt_count;
  ox_unlock(&head->fdt_lock);
  TNW_DEBUG(vh, 2, "putting fd %d, state %d, free count %d", fd, TNV_FD_FREE, count);
}

}  // namespace

int tnw_alloc_fdtable(vfs_handle* vh, tnw_files* fdt) {
  errno = 0;
  const int n = ox_get_max_openfiles();
  if (n <= 0) {
    const int err = errno != 0 ? errno : OX_EINVAL;
    return TNW_REFUSE(err, vh, err, "Failed to get limit for max open files.");
  }
  fdt->vfs_files = alloc_entries(static_cast<size_t>(n));
  if (fdt->vfs_files == nullptr) {
    return TNW_REFUSE(OX_ENOMEM, vh, OX_ENOMEM, "Not enough memory for fd table.");
  }
  tnvfdhd* head = &fdt->vfs_free_fds;
  ox_list_init(head);
  int err = ox_init_lock(&head->fdt_lock);
  for (int i = 0; i < n && err == 0; i++) {
    err = init_entry(&fdt->vfs_files[i], i);
    ox_list_append(head, &fdt->vfs_files[i]);
    head->fdt_count++;
    fdt->vfs_nfiles++;
  }
  if (err != 0) {
    return TNW_REFUSE(err, vh, err, "Cannot initialize the locks of the fd table.");
  }
  /*
   * With debug logging on, the log statement raises the count once more: from then on the log shows
   * one more than there are free entries. Nothing decides on the count; the links tell whether the
   * list is empty.
   */
  TNW_DEBUG(vh, 2, "File descriptor table %d:%d files allocated", n, head->fdt_count++);
  return 0;
}

void tnw_free_fdtable(tnw_files* fdt) {
  if (fdt->vfs_files == nullptr) {
    return;
  }
  for (int i = 0; i < fdt->vfs_nfiles; i++) {
    deinit_entry(&fdt->vfs_files[i]);
  }
  ox_deinit_lock(&fdt->vfs_free_fds.fdt_lock);
  free_entries(fdt->vfs_files);
  memset(fdt, 0, sizeof *fdt);
}

tnvfd* tnw_fd_dequeue(tnvfdhd* head) {
  if (ox_list_empty(head)) {
    return nullptr;
  }
  tnvfd* fde = head->fdt_fnext;
  ox_list_unlink(fde);
  head->fdt_count--;
  clear_entry(fde);
  fde->fdt_state = TNV_FD_RESERVED;
  return fde;
}

tnvfd* tnw_getfd(vfs_handle* vh, tnw_files* fdt, int* err) {
  tnvfdhd* head = &fdt->vfs_free_fds;
  ox_lock(&head->fdt_lock);
  tnvfd* fde = tnw_fd_dequeue(head);
  const ox_s32 count = head->fdt_count;
  ox_unlock(&head->fdt_lock);
  if (fde == nullptr) {
    *err = TNW_REFUSE(OX_EMFILE, vh, OX_EMFILE, "Too many open files");
    return nullptr;
  }
  TNW_DEBUG(vh, 2, "Allocated fd %d, state %d, free count %d, cffl %p", fde->fdt_fd, fde->fdt_state,
            count, static_cast<void*>(fde->fdt_dir.dir_cffl));
  return fde;
}

void tnw_putfd(vfs_handle* vh, tnw_files* fdt, tnvfd* fde) { put(vh, fdt, fde, nullptr); }

void tnw_putfd_of_gone_drive(vfs_handle* vh, tnw_files* fdt, tnvfd* fde) {
  put(vh, fdt, fde, fde->fdt_drv);
}

void tnw_use_fd(tnw_files* fdt, tnvfd* fde, void* drvhdl) {
  ox_lock(&fdt->vfs_free_fds.fdt_lock);
  fde->fdt_drv = drvhdl;
  fde->fdt_state = TNV_FD_INUSE;
  ox_unlock(&fdt->vfs_free_fds.fdt_lock);
}

tnvfd* tnw_next_in_use(tnw_files* fdt, const void* drvhdl, int* index) {
  tnvfd* found = nullptr;
  ox_lock(&fdt->vfs_free_fds.fdt_lock);
  while (found == nullptr && *index < fdt->vfs_nfiles) {
    tnvfd* fde = &fdt->vfs_files[(*index)++];
    if (fde->fdt_state == TNV_FD_INUSE && (drvhdl == nullptr || fde->fdt_drv == drvhdl)) {
      found = fde;
    }
  }
  ox_unlock(&fdt->vfs_free_fds.fdt_lock);
  return found;
}

bool tnw_is_table_entry(const tnw_files* fdt, const void* ophdl) {
  const uintptr_t first = reinterpret_cast<uintptr_t>(fdt->vfs_files);
  const uintptr_t at = reinterpret_cast<uintptr_t>(ophdl);
  if (first == 0 || at < first) {
    return false;
  }
  const uintptr_t offset = at - first;
  return offset % sizeof(tnvfd) == 0 &&
         offset / sizeof(tnvfd) < static_cast<uintptr_t>(fdt->vfs_nfiles);
}
