/* tnw_init: joins the running service of a domain and user, or starts one, with retries. */

#include <winsock2.h>

#include <cstdio>
#include <cstring>

#include "ox_errno.h"
#include "ox_platform.h"
#include "ox_util.h"
#include "tn_util.h"
#include "tnv_connio_win.h"
#include "tnw_fdtable.h"
#include "tnw_log.h"
#include "tnw_start.h"
#include "vfstnw_client.h"

namespace {

/*
 * Where the attempt counter ends. Two starts are tried: the counter reaches this number before a
 * third one. The log lines of a start say 3.
 */
constexpr int INIT_ATTEMPTS = 3;
constexpr int RETRY_PAUSE_SECS = 5;

/* Texts of the start-up record, each with a NUL, which a full field of the record lacks. */
struct InitTexts {
  char domain[sizeof(tnw_tninit::tnw_domain) + 1];
  char username[sizeof(tnw_tninit::tnw_username) + 1];
  char sharepath[sizeof(tnw_tninit::tnw_sharepath) + 1];
  char drive_id[sizeof(tnw_tninit::tnw_da_drive_id) + 1];
  char logdir[sizeof(tnw_tninit::tnw_logdir) + 1];
};

/* One tnw_init call. All that an attempt has made, and its failure must undo, is in `tni`. */
struct Start {
  tnw_tninit* init;
  InitTexts texts;
  int attempt;
  bool winsock; /* this call has started Windows Sockets, and is to end them again */
  tnw_tninstance* tni;
};

void copy_texts(const tnw_tninit* init, InitTexts* texts) {
  memset(texts, 0, sizeof *texts);
  memcpy(texts->domain, init->tnw_domain, sizeof init->tnw_domain);
  memcpy(texts->username, init->tnw_username, sizeof init->tnw_username);
  memcpy(texts->sharepath, init->tnw_sharepath, sizeof init->tnw_sharepath);
  memcpy(texts->drive_id, init->tnw_da_drive_id, sizeof init->tnw_da_drive_id);
  memcpy(texts->logdir, init->tnw_logdir, sizeof init->tnw_logdir);
}

/* Makes the folder of the log, and opens the log. Its path is never cut. */
int open_log(const char* logdir) {
  const int made = tnw_make_folder(logdir);
  if (made != 0) {
    return TNW_REFUSE(made, nullptr, made, "Failed to create dir %s", logdir);
  }
  char path[OX_MAXPATH_LEN + 16];
  snprintf(path, sizeof path, "%s/%s", logdir, "tnvfs.log");
  ox_init_logging("VFS_LOGGER", path, nullptr, nullptr);
  TNW_INFO(nullptr, "Client log initialized at %s", path);
  return 0;
}

/*
 * What every start needs of the process. Done once in a call; a start attempt tries it again when
 * it failed before.
 */
int open_libraries(Start* s) {
  if (s->winsock) {
    return 0;
  }
  int code = ox_init_tpool();
  if (code != 0) {
    return TNW_REFUSE(code, nullptr, code, "Cannot initialize thread pool");
  }
  code = tnv_sock_init();
  if (code != 0) {
    return TNW_REFUSE(code, nullptr, code, "Cannot initialize socket lib");
  }
  s->winsock = true;
  return 0;
}

tnw_drive_handle* make_handle(const Start& s, tnw_tninstance* tni) {
  tnw_drive_handle* dh = static_cast<tnw_drive_handle*>(ox_zalloc(sizeof(tnw_drive_handle)));
  if (dh == nullptr) {
    return nullptr;
  }
  memcpy(dh->tnw_drive_uuid, s.init->tnw_da_drive_id, sizeof dh->tnw_drive_uuid);
  memcpy(dh->tnw_drive_start_path, s.init->tnw_sharepath, sizeof dh->tnw_drive_start_path);
  dh->tnw_flags = s.init->tnw_flags;
  tnw_add_handle(tni, dh);
  return dh;
}

void log_joined(const Start& s, tnw_tninstance* tni, const char* what) {
  TNW_INFO(tnw_connection(tni, 0), "%s for %s@%s, drive handle count %d, drive uuid %s", what,
           s.texts.username, s.texts.domain, tni->tni_drive_handles.tnwh_cnt, s.texts.drive_id);
}

/*
 * A drive on an instance that runs: the handle that it has for this drive, or a new one; null when
 * there is no memory for it.
 */
tnw_drive_handle* join_instance(const Start& s, tnw_tninstance* tni) {
  tnw_drive_handle* dh = tnw_find_handle(tni, s.texts.drive_id);
  if (dh != nullptr) {
    log_joined(s, tni, "Return existing handle");
    return dh;
  }
  dh = make_handle(s, tni);
  if (dh != nullptr) {
    log_joined(s, tni, "Created new handle");
  } else {
    TNW_ERROR(tnw_connection(tni, 0), OX_ENOMEM, "Cannot allocate memory for tnw_drive_handle");
  }
  return dh;
}

int start_service(Start* s) {
  int code = tnw_check_texts(s->init); /* the first attempt's check stopped nothing but itself */
  if (code != 0) {
    return code;
  }
  code = tnw_setup_tn_device_id(s->texts.domain, s->texts.username, s->init->tnw_tn_device_id);
  if (code != 0) {
    return TNW_REFUSE(code, nullptr, code, "Failed to set-get TN device id from registry");
  }
  code = tnw_check_instance(s->init);
  if (code != 0) {
    return code;
  }
  s->tni = tnw_tnstart(s->init, &code);
  if (s->tni == nullptr) {
    return TNW_REFUSE(code, nullptr, code, "Failed to start tarnd");
  }
  return 0;
}

int connect_service(Start* s) {
  int code = tnw_create_pool(s->tni, s->init);
  if (code != 0) {
    return TNW_REFUSE(code, nullptr, code, "Cannot create thread pool");
  }
  s->tni->tni_watch.tw_limit_ms = tnw_start_limit_ms;
  vfs_handle* vh = tnw_connection(s->tni, 0);
  code = tnw_tp_init_vfshandle(s->tni, s->texts.sharepath, s->texts.drive_id);
  if (code != 0) {
    return TNW_REFUSE(code, vh, code, "Cannot setup VFS handles");
  }
  ox_get_version_t version;
  code = vfstnw_get_version(vh, &version);
  if (code != 0) {
    return TNW_REFUSE(code, vh, code, "Failed to call get_version");
  }
  code = tnw_alloc_fdtable(vh, &s->tni->tni_files);
  if (code != 0) {
    return TNW_REFUSE(code, vh, code, "Failed to allocate fd table.");
  }
  s->tni->tni_watch.tw_limit_ms = 0;
  return 0;
}

/* One start attempt: a drive handle on a new instance, or null. */
tnw_drive_handle* try_start(Start* s) {
  if (open_libraries(s) != 0 || start_service(s) != 0 || connect_service(s) != 0) {
    return nullptr;
  }
  tnw_drive_handle* dh = make_handle(*s, s->tni);
  if (dh == nullptr) {
    TNW_ERROR(tnw_connection(s->tni, 0), OX_ENOMEM, "Cannot allocate memory for vfs handles");
    return nullptr;
  }
  s->tni->tni_winsock = s->winsock; /* from now on the instance's, until it is freed */
  s->winsock = false;
  /* Last: lookups of other threads read the table of every instance on the list. */
  tnw_add_tninstance(&tnw_tninstances, s->tni);
  return dh;
}

/*
 * All that a failed attempt undoes, in one list. A line does nothing for what was not made. The
 * instance is on no list yet. The pool is aborted, which waits for nobody; so its record stays.
 */
void undo_attempt(Start* s) {
  tnw_tninstance* tni = s->tni;
  if (tni == nullptr) {
    return;
  }
  tnw_terminate_service(tnw_connection(tni, 0), &tni->tni_pi);
  if (tni->tni_tpool != nullptr) {
    tnw_tp_deinit_vfshandle(tni);
    ox_destroy_tpool(tni->tni_tpool, OX_TPOOL_FL_ABORT);
  }
  tnw_free_tninstance(tni);
  s->tni = nullptr;
}

/* Whether another attempt is to be made; then returns after the pause. */
bool pause_before_retry(const Start& s) {
  if (s.attempt >= INIT_ATTEMPTS || ((s.init->tnw_flags & TNW_INIT_NO_RETRY) != 0)) {
    TNW_ERROR(nullptr, 0, "%d tarnd init attempts exhausted. Requesting for classic DA fallback",
              INIT_ATTEMPTS);
    return false;
  }
  TNW_WARN(nullptr, 0, "tarnd init %d of %d failed. Retrying after %d seconds.", s.attempt,
           INIT_ATTEMPTS, RETRY_PAUSE_SECS);
  Sleep(RETRY_PAUSE_SECS * 1000);
  return true;
}

tnw_drive_handle* start_with_retries(Start* s) {
  while (pause_before_retry(*s)) {
    if (++s->attempt == INIT_ATTEMPTS) {
      continue;
    }
    tnw_drive_handle* dh = try_start(s);
    if (dh != nullptr) {
      return dh;
    }
    undo_attempt(s);
  }
  return nullptr;
}

tnw_drive_handle* first_attempt(Start* s) {
  if (tnw_check_texts(s->init) != 0 || open_log(s->texts.logdir) != 0 || open_libraries(s) != 0) {
    return nullptr;
  }
  tnw_tninstance* running = tnw_find_tn_instance(s->texts.domain, s->texts.username);
  if (running != nullptr) {
    return join_instance(*s, running);
  }
  s->attempt = 1;
  tnw_drive_handle* dh = try_start(s);
  if (dh == nullptr) {
    undo_attempt(s);
  }
  return dh;
}

}  // namespace

void* tnw_init(tnw_tninit* tninit, int* err) {
  int code = ERROR_GEN_FAILURE;
  tnw_drive_handle* dh = nullptr;
  if (tninit != nullptr) {
    Start s = {tninit, {}, 0, false, nullptr};
    copy_texts(tninit, &s.texts);
    ox_rwlock_excl(&tnw_glock);
    dh = first_attempt(&s);
    if (dh == nullptr) {
      dh = start_with_retries(&s);
    }
    if (s.winsock) {
      WSACleanup();
    }
    ox_rwunlock(&tnw_glock);
  } else {
    TNW_ERROR(nullptr, OX_EINVAL, "No start-up record given");
  }
  if (dh != nullptr) {
    code = 0;
  }
  if (err != nullptr) {
    *err = code;
  }
  return dh;
}
