/* Names and paths of a service instance, from the start-up record. */

#include <winsock2.h>

#include <shlobj.h>
#include <cstdio>
#include <cstring>

#include "ox_assert.h"
#include "ox_errno.h"
#include "ox_util.h"
#include "ox_uuid.h"
#include "tn_text.h"
#include "tnw_log.h"
#include "tnw_start.h"

namespace {

constexpr size_t COMPOSE_SIZE = 4096;

/* Copies one fixed field into another. A text that fills the target has no NUL there. */
template <size_t N, size_t M>
void copy_field(char (&to)[N], const char (&from)[M]) {
  const size_t len = ox_field_len(from, M);
  memset(to, 0, N);
  memcpy(to, from, len < N ? len : N);
}

void copy_fields(const tnw_tninit* tninit, tnw_tninstance* tni) {
  copy_field(tni->tni_uds_workdir, tninit->tnw_uds_workdir);
  copy_field(tni->tni_workgroup_id, tninit->tnw_workgroup_id);
  copy_field(tni->tni_domain, tninit->tnw_domain);
  copy_field(tni->tni_username, tninit->tnw_username);
  copy_field(tni->tni_regpath, tninit->tnw_regpath);
  copy_field(tni->tni_binpath, tninit->tnw_binpath);
  copy_field(tni->tni_api_addr, tninit->tnw_api_addr);
  copy_field(tni->tni_config_addr, tninit->tnw_config_addr);
  copy_field(tni->tni_da_device_id, tninit->tnw_da_device_id);
  copy_field(tni->tni_tn_device_id, tninit->tnw_tn_device_id);
  copy_field(tni->tni_authtoken, tninit->tnw_authtoken);
  tni->tni_user_id = tninit->tnw_user_id;
  tni->tni_is_tn_unauthorized = false;
  ox_u8 id[OX_UUID_SIZE];
  ox_uuid_generate(id);
  ox_uuid_unparse(id, tni->tni_id);
}

int fill_subdomain(const tnw_tninit* tninit, tnw_tninstance* tni) {
  const size_t len = ox_field_len(tninit->tnw_domain, sizeof tninit->tnw_domain);
  const void* dot = memchr(tninit->tnw_domain, '.', len);
  if (dot == nullptr) {
    return TNW_REFUSE(OX_EINVAL, nullptr, OX_EINVAL, "Failed to parse subdomain from domain %.*s",
                      TN_FIELD(tninit->tnw_domain));
  }
  memcpy(tni->tni_subdomain, tninit->tnw_domain,
         static_cast<size_t>(static_cast<const char*>(dot) - tninit->tnw_domain));
  return 0;
}

/* 0 when a composed text fits into `size` bytes; else 38 after the line that begins with `what`. */
int check_fit(int composed, size_t size, const char* what, const char* partial) {
  if (composed >= 0 && static_cast<size_t>(composed) < size) {
    return 0;
  }
  return TNW_REFUSE(OX_ENAMETOOLONG, nullptr, OX_ENAMETOOLONG,
                    "%s does not fit in char[%zu]. Partial path %s", what, size, partial);
}

int compose_socket_dir(const tnw_tninstance* tni, char (&dir)[COMPOSE_SIZE]) {
  const bool own = tni->tni_uds_workdir[0] != '\0';
  const char* base = own ? tni->tni_uds_workdir : tni->tni_cachedir;
  const size_t base_size = own ? sizeof tni->tni_uds_workdir : sizeof tni->tni_cachedir;
  const char* separator = tni->tni_workgroup_id[0] != 0 ? "\\" : "";
  const int n =
      snprintf(dir, sizeof dir, "%.*s%s%.*s", static_cast<int>(ox_field_len(base, base_size)), base,
               separator, TN_FIELD(tni->tni_workgroup_id));
  return check_fit(n, sizeof dir, "Socket dir", dir);
}

int compose_socket_path(tnw_tninstance* tni) {
  char dir[COMPOSE_SIZE];
  char name[COMPOSE_SIZE];
  const int code = compose_socket_dir(tni, dir);
  if (code != 0) {
    return code;
  }
  const int n = tni->tni_user_id != 0 ? snprintf(name, sizeof name, "%llu.sock",
                                                 static_cast<unsigned long long>(tni->tni_user_id))
                                      : snprintf(name, sizeof name, "tnvfs.sock");
  const int name_code = check_fit(n, sizeof name, "Socket name", name);
  if (name_code != 0) {
    return name_code;
  }
  const int len = snprintf(tni->tni_sock, sizeof tni->tni_sock, "%s\\%s", dir, name);
  return check_fit(len, sizeof tni->tni_sock, "Socket path", tni->tni_sock);
}

}  // namespace

int tnw_fill_tninstance(const tnw_tninit* tninit, tnw_tninstance* tni) {
  OX_ASSERT_HELD(&tnw_glock);
  const int code = fill_subdomain(tninit, tni);
  if (code != 0) {
    return code;
  }
  tnw_compose_cachedir(tninit->tnw_workdir, tninit->tnw_domain, tninit->tnw_username,
                       tni->tni_cachedir);
  copy_fields(tninit, tni);
  return compose_socket_path(tni);
}

int tnw_check_texts(const tnw_tninit* tninit) {
  const struct {
    const char* what;
    int size;
    const char* text;
  } texts[] = {
      {"user name", TN_FIELD(tninit->tnw_username)},
      {"domain", TN_FIELD(tninit->tnw_domain)},
      {"work directory", TN_FIELD(tninit->tnw_workdir)},
      {"socket directory", TN_FIELD(tninit->tnw_uds_workdir)},
      {"workgroup id", TN_FIELD(tninit->tnw_workgroup_id)},
      {"log directory", TN_FIELD(tninit->tnw_logdir)},
      {"service program", TN_FIELD(tninit->tnw_binpath)},
      {"cloud address", TN_FIELD(tninit->tnw_api_addr)},
  };
  for (const auto& [what, size, text] : texts) {
    if (size != 0 &&
        MultiByteToWideChar(CP_ACP, MB_ERR_INVALID_CHARS, text, size, nullptr, 0) == 0) {
      return TNW_REFUSE(ERROR_NO_UNICODE_TRANSLATION, nullptr, ERROR_NO_UNICODE_TRANSLATION,
                        "The %s is no text of code page %u: %.*s", what, GetACP(), size, text);
    }
  }
  return 0;
}

/*
 * The system makes no folder whose path has 248 characters or more. Wine cuts such a path, and
 * makes another folder.
 */
int tnw_make_folder(const char* path) {
  constexpr int TOO_LONG = 248 + 1; /* with its NUL */
  if (MultiByteToWideChar(CP_ACP, 0, path, -1, nullptr, 0) >= TOO_LONG) {
    return ERROR_FILENAME_EXCED_RANGE;
  }
  const int made = SHCreateDirectoryExA(nullptr, path, nullptr);
  return made == ERROR_ALREADY_EXISTS ? 0 : made;
}

bool tnw_compose_cachedir(const char (&workdir)[5000], const char (&domain)[51],
                          const char (&username)[64], char (&cachedir)[5000]) {
  const int n = snprintf(cachedir, sizeof cachedir, "%.*s\\%.*s\\%.*s", TN_FIELD(workdir),
                         TN_FIELD(domain), TN_FIELD(username));
  return n >= 0 && static_cast<size_t>(n) < sizeof cachedir;
}

void tnw_ready_event_name(const tnw_tninstance* tni, char (&name)[109]) {
  memcpy(name, tni->tni_sock, sizeof tni->tni_sock);
  name[sizeof tni->tni_sock] = '\0';
  ox_event_name_fold(name);
}
