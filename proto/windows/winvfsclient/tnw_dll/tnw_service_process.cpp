/* The cache service's process: its command line, its start and readiness, its stop. */

#include <cstdio>

#include "ox_errno.h"
#include "ox_file.h"
#include "ox_time.h"
#include "ox_util.h"
#include "tn_text.h"
#include "tnw_log.h"
#include "tnw_start.h"
#include "vfstnw_client.h"

namespace {

constexpr DWORD READY_TIMEOUT_MS = 60000;
constexpr size_t EXTRA_ARGS_SIZE = 512;
constexpr size_t COMMAND_SIZE = 4096;

/*
 * Appends to a text of N bytes. *total counts the characters that a long enough one would hold; it
 * becomes and stays negative when one could not be formatted.
 */
template <size_t N, class... Args>
void append(char (&text)[N], int* total, const char* fmt, Args... args) {
  if (*total < 0) {
    return;
  }
  const size_t at = static_cast<size_t>(*total) < N ? static_cast<size_t>(*total) : N - 1;
  const int added = snprintf(text + at, N - at, fmt, args...);
  *total = added < 0 ? added : *total + added;
}

/* Options that do not fit are cut, and the start goes on with what is left of them. */
int compose_extra_args(const tnw_tninit* init, const tnw_tninstance* tni,
                       char (&text)[EXTRA_ARGS_SIZE]) {
  int total = 0;
  text[0] = '\0';
  if (tni->tni_uds_workdir[0] != 0) {
    append(text, &total, "--sockdir \"%.*s\" ", TN_FIELD(tni->tni_uds_workdir));
  }
  if (tni->tni_workgroup_id[0] != 0) {
    append(text, &total, "--wgid \"%.*s\" ", TN_FIELD(tni->tni_workgroup_id));
  }
  if (tni->tni_user_id != 0) {
    append(text, &total, "--uid %llu ", static_cast<unsigned long long>(tni->tni_user_id));
  }
  if (init->tnw_proxy_server[0] != 0) {
    append(text, &total, "--proxy-server %.*s --proxy-user %.*s --proxy-password %.*s",
           TN_FIELD(init->tnw_proxy_server), TN_FIELD(init->tnw_proxy_uname),
           TN_FIELD(init->tnw_proxy_password));
  }
  if (total >= 0 && total < static_cast<int>(sizeof text)) {
    return 0;
  }
  return TNW_REFUSE(
      ERROR_INSUFFICIENT_BUFFER, nullptr, ERROR_INSUFFICIENT_BUFFER,
      "Failed to construct cmd extra_args because %d chars does not fit in %zu buffer", total,
      sizeof text);
}

/*
 * A command line that does not fit fails the start: cut, it would start a service with another
 * log file, or on another address, than the caller asked for.
 */
int compose_command(const tnw_tninit* init, const tnw_tninstance* tni, const char* extra,
                    char (&command)[COMMAND_SIZE]) {
  char logfile[sizeof init->tnw_logdir];
  snprintf(logfile, sizeof logfile, "%.*s/tarnd.%.*s@%.*s.log", TN_FIELD(init->tnw_logdir),
           TN_FIELD(tni->tni_username), TN_FIELD(tni->tni_domain));
  const int n =
      snprintf(command, sizeof command,
               "%.*s --cfs https://%.*s --user %.*s --cache \"%.*s\" --addr %.*s --confaddr %.*s "
               "--tn-devid %.*s --da-devid %.*s --access-token %.*s --logfile \"%s\" --vfs %s",
               TN_FIELD(tni->tni_binpath), TN_FIELD(tni->tni_domain), TN_FIELD(tni->tni_username),
               TN_FIELD(tni->tni_cachedir), TN_FIELD(tni->tni_api_addr),
               TN_FIELD(tni->tni_config_addr), TN_FIELD(tni->tni_tn_device_id),
               TN_FIELD(tni->tni_da_device_id), TN_FIELD(tni->tni_authtoken), logfile, extra);
  if (n >= 0 && static_cast<size_t>(n) < sizeof command) {
    return 0;
  }
  return TNW_REFUSE(ERROR_INSUFFICIENT_BUFFER, nullptr, ERROR_INSUFFICIENT_BUFFER,
                    "Failed to construct cmd because %d chars does not fit in %zu buffer", n,
                    sizeof command);
}

int create_process(tnw_tninstance* tni, char* command) {
  SECURITY_ATTRIBUTES security = {sizeof security, nullptr, FALSE};
  STARTUPINFOA startup = {};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  if (CreateProcessA(nullptr, command, &security, nullptr, FALSE, CREATE_NO_WINDOW, nullptr,
                     nullptr, &startup, &tni->tni_pi) != 0) {
    return 0;
  }
  const int code = static_cast<int>(GetLastError());
  return TNW_REFUSE(code, nullptr, code, "Failed to start Tarn");
}

/*
 * The event is made before the process and is not signalled: no signal of this service is missed,
 * and none of an earlier service counts.
 */
int create_ready_event(tnw_tninstance* tni, const char* name) {
  tni->tni_ready_event = CreateEventA(nullptr, FALSE, FALSE, name);
  if (tni->tni_ready_event != nullptr) {
    ResetEvent(tni->tni_ready_event);
    return 0;
  }
  const int code = static_cast<int>(GetLastError());
  return TNW_REFUSE(code, nullptr, code, "Failed to create named event %s", name);
}

int wait_until_ready(tnw_tninstance* tni, const char* event_name) {
  TNW_INFO(nullptr, "Waiting on event name: %s", event_name);
  struct timespec start;
  ox_clock_gettime(0, &start);
  const DWORD waited = WaitForSingleObject(tni->tni_ready_event, READY_TIMEOUT_MS);
  TNW_INFO(nullptr, "Waited for %.2f seconds", static_cast<double>(ox_usecs_since(&start)) / 1e6);
  if (waited != WAIT_OBJECT_0) {
    return TNW_REFUSE(static_cast<int>(waited), nullptr, static_cast<int>(waited),
                      "Failed to wait for tarnd ready state");
  }
  TNW_INFO(nullptr, "Successully waited for tarnd pid %lu for user %.*s@%.*s",
           tni->tni_pi.dwProcessId, TN_FIELD(tni->tni_username), TN_FIELD(tni->tni_domain));
  return 0;
}

int start_and_wait(const tnw_tninit* tninit, tnw_tninstance* tni) {
  char event_name[109];
  char extra[EXTRA_ARGS_SIZE];
  char command[COMMAND_SIZE];
  tnw_ready_event_name(tni, event_name);
  (void)compose_extra_args(tninit, tni, extra); /* options that were cut are used as they are */
  int code = compose_command(tninit, tni, extra, command);
  if (code != 0) {
    return code;
  }
  TNW_INFO(nullptr, "Start tarnd with cmd: %s", command); /* with token and proxy password */
  code = create_ready_event(tni, event_name);
  if (code == 0) {
    code = create_process(tni, command);
  }
  if (code != 0) {
    return code;
  }
  code = wait_until_ready(tni, event_name);
  if (code != 0) {
    tnw_terminate_service(nullptr, &tni->tni_pi);
  }
  return code;
}

}  // namespace

tnw_tninstance* tnw_tnstart(const tnw_tninit* tninit, int* err) {
  tnw_tninstance* tni = tnw_alloc_tninstance();
  if (tni == nullptr) {
    *err =
        TNW_REFUSE(OX_ENOMEM, nullptr, OX_ENOMEM, "Failed to allocate memory for tnw_tninstance_t");
    return nullptr;
  }
  tnw_fill_tninstance(tninit, tni); /* what it could not fill stays empty, and the start goes on */
  *err = start_and_wait(tninit, tni);
  if (*err == 0) {
    return tni;
  }
  tnw_free_tninstance(tni);
  return nullptr;
}

void tnw_terminate_service(vfs_handle* vh, PROCESS_INFORMATION* process) {
  if (TerminateProcess(process->hProcess, 1) == 0) {
    const int code = static_cast<int>(GetLastError());
    TNW_ERROR(vh, code, "Could not terminate tarnd");
  }
  CloseHandle(process->hProcess);
  CloseHandle(process->hThread);
}

int tnw_tnstop(tnw_tninstance* tni) {
  vfs_handle* vh = tnw_connection(tni, 0);
  TNW_INFO(vh, "Stopping tarnd for user %.*s@%.*s", TN_FIELD(tni->tni_username),
           TN_FIELD(tni->tni_domain));
  const int result = vfstnw_shutdown(vh);
  CloseHandle(tni->tni_pi.hProcess);
  CloseHandle(tni->tni_pi.hThread);
  if (result != 0) {
    TNW_ERROR(vh, result, "tarnd shutdown failed for %.*s@%.*s", TN_FIELD(tni->tni_username),
              TN_FIELD(tni->tni_domain));
  } else {
    TNW_INFO(vh, "tarnd shutdown success for %.*s@%.*s", TN_FIELD(tni->tni_username),
             TN_FIELD(tni->tni_domain));
  }
  ox_unlink(vh->vfs_sock_path);
  return result;
}
