/* An instance's pool and its connections: one socket per worker slot, for the instance's life. */

#include <cstdio>
#include <cstring>

#include <algorithm>

#include "ox_assert.h"
#include "ox_errno.h"
#include "ox_util.h"
#include "tn_text.h"
#include "tnv_connio_win.h"
#include "tnw_connect.h"
#include "tnw_log.h"
#include "tnw_start.h"

namespace {

/* Instance fields as the texts that the handshake takes. */
struct ConnectTexts {
  char domain[sizeof(tnw_tninstance::tni_domain) + 1];
  char user[sizeof(tnw_tninstance::tni_username) + 1];
  char cachedir[sizeof(tnw_tninstance::tni_cachedir) + 1];
  char sock[sizeof(tnw_tninstance::tni_sock) + 1];
  char devid[sizeof(tnw_tninstance::tni_da_device_id) + 1];
};

template <size_t N, size_t M>
void to_text(char (&text)[N], const char (&field)[M]) {
  static_assert(N == M + 1);
  memcpy(text, field, M);
  text[M] = '\0';
}

ox_u32 slots(const tnw_tninstance* tni) { return tni->tni_tpool->tp_nblocks; }

}  // namespace

int tnw_create_pool(tnw_tninstance* tni, const tnw_tninit* tninit) {
  OX_ASSERT_HELD(&tnw_glock);
  char name[512];
  snprintf(name, sizeof name, "TNWIN_VFSC_%.*s@%.*s", TN_FIELD(tninit->tnw_username),
           TN_FIELD(tninit->tnw_domain));
  const int wanted = tninit->tnw_max_threads;
  if (wanted < 1) {
    return OX_EINVAL;
  }
  const ox_u32 max_threads = std::min<ox_u32>(static_cast<ox_u32>(wanted), OX_TPOOL_MAX_SLOTS);
  const ox_u32 min_threads =
      tninit->tnw_min_threads > 0 ? static_cast<ox_u32>(tninit->tnw_min_threads) : 0;
  tni->tni_tpool =
      ox_tpool_create(name, nullptr, nullptr, 0, sizeof(vfs_handle), min_threads, max_threads);
  if (tni->tni_tpool == nullptr) {
    return OX_ENOMEM;
  }
  for (ox_u32 i = 0; i < slots(tni); i++) {
    tnw_connection(tni, i)->vfs_fd = -1;
    tnw_connection(tni, i)->vfs_private = &tni->tni_watch;
  }
  return 0;
}

int tnw_tp_init_vfshandle(tnw_tninstance* tni, const char* sharepath, const char* drive_id) {
  OX_ASSERT_HELD(&tnw_glock);
  ConnectTexts t;
  to_text(t.domain, tni->tni_domain);
  to_text(t.user, tni->tni_username);
  to_text(t.cachedir, tni->tni_cachedir);
  to_text(t.sock, tni->tni_sock);
  to_text(t.devid, tni->tni_da_device_id);
  int code = 0;
  for (ox_u32 i = 0; i < slots(tni) && code == 0; i++) {
    code = tnw_vfs_connect(tnw_connection(tni, i), t.domain, t.user, t.cachedir, t.sock, sharepath,
                           t.devid, drive_id);
  }
  memcpy(tnw_connection(tni, 0)->vfs_sock_path, tni->tni_sock, sizeof tni->tni_sock);
  return code;
}

int tnw_tp_deinit_vfshandle(tnw_tninstance* tni) {
  OX_ASSERT_HELD(&tnw_glock);
  for (ox_u32 i = 0; i < slots(tni); i++) {
    vfs_handle* vh = tnw_connection(tni, i);
    tnv_conn_break(vh);
    ox_free_safe(vh->vfs_share_path);
    vh->vfs_share_path = nullptr;
  }
  return 0;
}
