/* The lists of service instances and drive handles, and the lookups that guard every call. */

#include "tnw_instance.h"

#include <winsock2.h>
#include <cstring>

#include <atomic>
#include <cstdio>

#include "ox_dirtree.h"
#include "ox_list.h"
#include "ox_util.h"
#include "tnw_fdtable.h"

namespace {

bool has_handle(tnw_tninstance* tni, const void* drvhdl) {
  tnw_dhhd* head = &tni->tni_drive_handles;
  ox_rwlock_shared(&head->tnwh_lock);
  const bool found = ox_list_find<tnw_drive_handle>(
                         head, [&](tnw_drive_handle* dh) { return dh == drvhdl; }) != nullptr;
  ox_rwunlock(&head->tnwh_lock);
  return found;
}

/* The first listed instance for which `match` holds, or null. */
template <class Match>
tnw_tninstance* find_instance(Match match) {
  ox_rwlock_shared(&tnw_tninstances.tni_lock);
  tnw_tninstance* tni = ox_list_find<tnw_tninstance>(&tnw_tninstances, match);
  ox_rwunlock(&tnw_tninstances.tni_lock);
  return tni;
}

/* Whether a fixed field, which may have no NUL, holds this text. */
template <size_t N>
bool field_equals(const char (&field)[N], const char* text) {
  const size_t len = ox_field_len(field, N);
  return ox_field_len(text, N) == len && memcmp(field, text, len) == 0;
}

/* A file in the inner folder is below the outer one in both cases. It need not exist. */
bool is_same_or_below(const char* inner, const char* outer) {
  char file[sizeof(tnw_tninstance::tni_cachedir) + 2];
  snprintf(file, sizeof file, "%s\\x", inner);
  return ox_is_below(file, outer);
}

}  // namespace

tnw_tninstance* tnw_get_tninstance(const void* drvhdl) {
  if (drvhdl == nullptr) {
    return nullptr;
  }
  return find_instance([&](tnw_tninstance* tni) { return has_handle(tni, drvhdl); });
}

tnw_tninstance* tnw_get_entry_instance(const tnvfd* fde, bool* on_drive) {
  *on_drive = false;
  return find_instance([&](tnw_tninstance* tni) {
    if (!tnw_is_table_entry(&tni->tni_files, fde)) {
      return false;
    }
    *on_drive = fde->fdt_state == TNV_FD_INUSE && has_handle(tni, fde->fdt_drv);
    return true;
  });
}

const char* tnw_get_tninstance_id(void* drvhdl) {
  const tnw_tninstance* tni = tnw_get_tninstance(drvhdl);
  return tni != nullptr ? tni->tni_id : "";
}

tnw_tninstance* tnw_find_tn_instance(const char* domain, const char* username) {
  return find_instance([&](tnw_tninstance* tni) {
    return field_equals(tni->tni_domain, domain) && field_equals(tni->tni_username, username);
  });
}

bool tnw_is_cache_in_use(const char* domain, const char* username, const char* cachedir) {
  return find_instance([&](tnw_tninstance* tni) {
           const bool serves_user =
               _strnicmp(tni->tni_domain, domain, sizeof tni->tni_domain) == 0 &&
               _strnicmp(tni->tni_username, username, sizeof tni->tni_username) == 0;
           return serves_user || is_same_or_below(tni->tni_cachedir, cachedir) ||
                  is_same_or_below(cachedir, tni->tni_cachedir);
         }) != nullptr;
}

tnw_drive_handle* tnw_find_handle(tnw_tninstance* tni, const char* drive_id) {
  tnw_dhhd* head = &tni->tni_drive_handles;
  ox_rwlock_shared(&head->tnwh_lock);
  tnw_drive_handle* dh = ox_list_find<tnw_drive_handle>(
      head, [&](tnw_drive_handle* h) { return field_equals(h->tnw_drive_uuid, drive_id); });
  ox_rwunlock(&head->tnwh_lock);
  return dh;
}

void tnw_add_tninstance(tnw_tnihd* head, tnw_tninstance* tni) {
  ox_rwlock_excl(&head->tni_lock);
  ox_list_append(head, tni);
  head->tni_cnt++;
  ox_rwunlock(&head->tni_lock);
}

void tnw_remove_tninstance(tnw_tnihd* head, tnw_tninstance* tni) {
  ox_rwlock_excl(&head->tni_lock);
  ox_list_unlink(tni);
  head->tni_cnt--;
  ox_rwunlock(&head->tni_lock);
}

void tnw_add_handle(tnw_tninstance* tni, tnw_drive_handle* dh) {
  tnw_dhhd* head = &tni->tni_drive_handles;
  ox_rwlock_excl(&head->tnwh_lock);
  dh->tnw_tni = tni;
  ox_list_append(head, dh);
  head->tnwh_cnt++;
  ox_rwunlock(&head->tnwh_lock);
}

void tnw_remove_handle(tnw_tninstance* tni, tnw_drive_handle* dh) {
  tnw_dhhd* head = &tni->tni_drive_handles;
  ox_rwlock_excl(&head->tnwh_lock);
  ox_list_unlink(dh);
  head->tnwh_cnt--;
  ox_rwunlock(&head->tnwh_lock);
}

tnw_tninstance* tnw_alloc_tninstance(void) {
  tnw_tninstance* tni = static_cast<tnw_tninstance*>(ox_zalloc(sizeof(tnw_tninstance)));
  if (tni == nullptr) {
    return nullptr;
  }
  ox_list_init(&tni->tni_drive_handles);
  if (ox_init_rwlock(&tni->tni_drive_handles.tnwh_lock) != 0) {
    ox_free_safe(tni);
    return nullptr;
  }
  return tni;
}

void tnw_free_handles(tnw_tninstance* tni) {
  tnw_dhhd* handles = &tni->tni_drive_handles;
  ox_rwlock_excl(&handles->tnwh_lock);
  while (!ox_list_empty(handles)) {
    tnw_drive_handle* dh = handles->tnw_dhnext;
    ox_list_unlink(dh);
    handles->tnwh_cnt--;
    ox_free_safe(dh);
  }
  ox_rwunlock(&handles->tnwh_lock);
}

void tnw_free_tninstance(tnw_tninstance* tni) {
  tnw_free_handles(tni);
  ox_deinit_rwlock(&tni->tni_drive_handles.tnwh_lock);
  tnw_free_fdtable(&tni->tni_files);
  if (tni->tni_ready_event != nullptr) {
    CloseHandle(tni->tni_ready_event);
  }
  tnw_end_watch(&tni->tni_watch);
  if (tni->tni_winsock) {
    WSACleanup();
  }
  ox_free_safe(tni);
}

vfs_handle* tnw_connection(tnw_tninstance* tni, ox_u32 slot) {
  if (tni->tni_tpool == nullptr) {
    return nullptr;
  }
  return static_cast<vfs_handle*>(tni->tni_tpool->tp_priv.ox_priv) + slot;
}

bool tnw_is_unauthorized(tnw_tninstance* tni) {
  return std::atomic_ref(tni->tni_is_tn_unauthorized).load(std::memory_order_relaxed);
}

void tnw_set_unauthorized(tnw_tninstance* tni, bool unauthorized) {
  std::atomic_ref(tni->tni_is_tn_unauthorized).store(unauthorized, std::memory_order_relaxed);
}
