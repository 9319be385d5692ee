/* The library's entry point, the list of service instances and the lock of starts and stops. */

#include <windows.h>

#include "ox_list.h"
#include "tnw_instance.h"
#include "tnw_open.h"

tnw_tnihd tnw_tninstances;
ox_rwlock_t tnw_glock;

/*
 * Each line of the detach undoes one of the attach. When the process ends, nothing is undone: its
 * other threads were stopped where they stood, and the destruction of a lock that one of them held
 * would wait for ever (a start holds tnw_glock for up to two minutes). Instances that are still
 * there are not freed: that would mean to wait for their services.
 */
extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID process_ends) {
  if (reason == DLL_PROCESS_ATTACH) {
    ox_list_init(&tnw_tninstances);
    tnw_tninstances.tni_cnt = 0;
    ox_init_rwlock(&tnw_tninstances.tni_lock);
    ox_init_rwlock(&tnw_glock);
    ox_init_lock(&tnw_fc_lock);
  } else if (reason == DLL_PROCESS_DETACH && process_ends == nullptr) {
    ox_deinit_lock(&tnw_fc_lock);
    ox_deinit_rwlock(&tnw_glock);
    ox_deinit_rwlock(&tnw_tninstances.tni_lock);
  }
  return TRUE;
}
