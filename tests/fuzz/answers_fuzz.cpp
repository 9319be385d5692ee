/*
 * What a service sends, as the client reads it: the input comes over a connection as the answers to
 * an open or a listing and to requests for regions, and then the stream ends.
 */
#include "fuzz.h"
#include "ox_util.h"
#include "tnv_connio_win.h"
#include "tnw_connect.h"
#include "tnw_fd.h"
#include "vfstnw_bmap.h"
#include "windows.h"

namespace {

/* Runs the first job. What it took is as large as the answer says. */
void open(vfs_handle* vh, tnvfd* entry, bool lists) {
  tnv_msg msg = {};
  msg.hdr.hdr_opcode = lists ? TNV_OP_WIN_DENUM : TNV_OP_WIN_OPEN;
  msg.hdr.hdr_len = TNV_MSG_FIXED;
  tnv_resp resp = {};
  tnw_evwi work = {&msg, &resp, entry, CreateEventA(nullptr, FALSE, FALSE, nullptr), false};
  (lists ? tnw_sync_send_denum_msg : tnw_sync_send_open_msg)(&work, nullptr, vh);
  CloseHandle(work.ev_hdl);
  const auto* infos = reinterpret_cast<const char*>(entry->fdt_dir.dir_fi);
  if (infos != nullptr) {
    (void)std::string(infos, resp.u.wdenum.wde_fi_len * sizeof(tnw_fileinfo));
  } else {
    require(!lists || resp.rhdr.rhdr_errno != 0 || resp.u.wdenum.wde_fi_len == 0);
  }
}

void ask_for_regions(vfs_handle* vh, tnvfd* entry) {
  for (ox_off off = 1; off < ox_off{1} << 40; off *= 1000) {
    ox_u64 size = 0;
    vfstnw_cache_regions(vh, entry, off, 70000, false, &size, nullptr);
    vfstnw_dirty_regions(vh, entry, off, 70000);
    vfstnw_mark_regions(entry, off, size, (off & 8) != 0);
    (void)vfstnw_is_cached(entry, off, size);
  }
}

}  // namespace

/* There is no memory for more than a mebibyte: such an answer is read and dropped. */
extern "C" void* __wrap_ox_zalloc(size_t size) {
  return size > size_t{1} << 20 ? nullptr : calloc(1, size);
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string answers(text_of(data, size));
  constexpr size_t HANDLE_AT = 1 + TNV_RESP_HDR + offsetof(tnv_wopen_resp, wopen_resp_handle);
  if (size >= HANDLE_AT + sizeof(ox_u64)) {
    answers.replace(HANDLE_AT, sizeof(ox_u64), sizeof(ox_u64), '\0'); /* it would be closed */
  }
  int ends[2] = {};
  require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) == 0);
  require(size == 0 ||
          write(ends[1], answers.data() + 1, size - 1) == static_cast<ssize_t>(size - 1));
  shutdown(ends[1], SHUT_WR);
  tnw_watch watch = {nullptr, 1}; /* all has come already: a millisecond is long */
  vfs_handle vh = {};
  vh.vfs_fd = ends[0];
  vh.vfs_private = &watch;
  tnvfd entry = {};
  ox_init_rwlock(&entry.fdt_rmap_lock);
  ox_init_rwlock(&entry.fdt_dmap_lock);
  open(&vh, &entry, size != 0 && data[0] % 2 != 0);
  ask_for_regions(&vh, &entry);
  vfstnw_remove_bmaps(&entry);
  ox_free_safe(entry.fdt_dir.dir_fi);
  ox_deinit_rwlock(&entry.fdt_rmap_lock);
  ox_deinit_rwlock(&entry.fdt_dmap_lock);
  tnv_conn_break(&vh);
  close(ends[1]);
  return 0;
}
