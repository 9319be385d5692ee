/* tnw_purge_cache: deletes a user's cache directory while no service uses it. */

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "ox_assert.h"
#include "ox_dirtree.h"
#include "ox_errno.h"
#include "ox_lock.h"
#include "ox_platform.h"
#include "ox_util.h"
#include "tn_text.h"
#include "tn_util.h"
#include "tnw_instance.h"
#include "tnw_log.h"
#include "tnw_start.h"

namespace {

constexpr size_t CACHEDIR_SIZE = sizeof(tnw_tninstance::tni_cachedir);

/* What is purged. Each text has a NUL. */
struct Purge {
  char cachedir[CACHEDIR_SIZE];
  char domain[51 + 1];
  char username[64 + 1];
};

/* A name with a colon is a stream, which no cache can be in, or one more name of a whole folder. */
bool names_a_folder(const char* name) { return name[0] != '\0' && strchr(name, ':') == nullptr; }

/*
 * Whether both names lead down, as the system reads the whole path: ".." as a user name would
 * delete the caches of all users, and so might "...", since the system drops dots and spaces at a
 * path's end. Names that tnw_init takes lead down, also "CORP\ada", which leads down two folders.
 */
bool leads_down(const tnw_purge_opt_t* po, const Purge& p) {
  char domain_folder[CACHEDIR_SIZE + 64];
  snprintf(domain_folder, sizeof domain_folder, "%.*s\\%s\\x\\..", TN_FIELD(po->po_workdir),
           p.domain);
  char workdir[sizeof po->po_workdir + 1] = {};
  memcpy(workdir, po->po_workdir, sizeof po->po_workdir);
  return names_a_folder(p.domain) && names_a_folder(p.username) &&
         ox_is_below(domain_folder, workdir) && ox_is_below(p.cachedir, domain_folder);
}

/* Fills in what is purged: 0, or an error number after its line. */
int prepare(const tnw_purge_opt_t* po, Purge* p) {
  memcpy(p->domain, po->po_domain, sizeof po->po_domain);
  memcpy(p->username, po->po_username, sizeof po->po_username);
  if (!tnw_compose_cachedir(po->po_workdir, po->po_domain, po->po_username, p->cachedir)) {
    return TNW_REFUSE(OX_ENAMETOOLONG, nullptr, OX_ENAMETOOLONG, "Failed to purge cachedir %s",
                      p->cachedir);
  }
  if (po->po_workdir[0] == '\0' || !leads_down(po, *p)) {
    return TNW_REFUSE(OX_EINVAL, nullptr, OX_EINVAL,
                      "Cannot purge a cache of %s@%s in work directory %.*s", p->username,
                      p->domain, TN_FIELD(po->po_workdir));
  }
  return 0;
}

int log_failure(const char* what, const char* path) {
  const int err = static_cast<int>(winerr2unixerr(static_cast<ox_u32>(errno)));
  return TNW_REFUSE(err, nullptr, err, "Failed to purge %s %s", what, path);
}

/*
 * Removes what is left at the path. After a move that is normally nothing, and that is a success.
 * After a move that failed (`move_err`) it is the whole cache; the failure of the move stays the
 * result even when all of it could be removed here.
 */
int remove_in_place(const Purge& p, int move_err) {
  if (ox_rmrf(p.cachedir) == 0) {
    return move_err;
  }
  if (move_err == 0 && errno == OX_ENOENT) {
    return 0;
  }
  return log_failure("cachedir", p.cachedir);
}

/* Moves the cache aside first: its path is then free at once, however long the removal takes. */
int remove_cache(const Purge& p) {
  char moved[OX_MAXPATH_LEN];
  if (ox_movedir2tmp(p.cachedir, moved, sizeof moved) != 0) {
    return remove_in_place(p, log_failure("cachedir", p.cachedir));
  }
  if (ox_rmrf(moved) != 0) {
    return log_failure("tmp/cachedir", moved);
  }
  return remove_in_place(p, 0);
}

/*
 * Whether some service has the cache: one of another process, or one that still writes files back
 * although its last drive is gone. It keeps its pid file locked as long as it runs.
 */
bool is_held(const Purge& p) {
  char path[CACHEDIR_SIZE + 16];
  snprintf(path, sizeof path, "%s/tarnd_pid", p.cachedir);
  const int fd = ox_creat(path, OX_O_RDONLY, 0644); /* ox_open would log that it is missing */
  if (fd < 0) {
    return false;
  }
  const bool held = ox_flock(fd, LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY) != 0;
  ox_close(fd);
  return held;
}

/* The caller holds tnw_glock, so no service starts meanwhile. */
int purge_unless_running(const Purge& p) {
  OX_ASSERT_HELD(&tnw_glock);
  if (!tnw_is_cache_in_use(p.domain, p.username, p.cachedir) && !is_held(p)) {
    return remove_cache(p);
  }
  return TNW_REFUSE(OX_EBUSY, nullptr, OX_EBUSY,
                    "Cannot purge cachedir %s because tarnd is still running for %s@%s", p.cachedir,
                    p.username, p.domain);
}

}  // namespace

int tnw_purge_cache(tnw_purge_opt_t* po) {
  if (po == nullptr) {
    return static_cast<int>(unixerr2winerr(static_cast<ox_u32>(
        TNW_REFUSE(OX_EINVAL, nullptr, OX_EINVAL, "tnw_purge_opt_t param is NULL"))));
  }
  Purge p = {};
  int err = prepare(po, &p);
  if (err == 0) {
    ox_rwlock_excl(&tnw_glock);
    err = purge_unless_running(p);
    ox_rwunlock(&tnw_glock);
  }
  return static_cast<int>(unixerr2winerr(static_cast<ox_u32>(err)));
}
