// The library's entry point and its two process-wide locks.

#include <windows.h>

#include "tnw_instance.h"
#include "tnw_list.h"
#include "tnw_open.h"

tnw_tnihd tnw_tninstances;
ox_rwlock_t tnw_glock;

// Each line of detach undoes one of attach. Instances that are still there are deliberately left:
// their threads are gone by now, and the process's end takes the rest.
extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID) {
  if (reason == DLL_PROCESS_ATTACH) {
    tnw_list_init(&tnw_tninstances);
    tnw_tninstances.tni_cnt = 0;
    ox_init_rwlock(&tnw_tninstances.tni_lock);
    ox_init_rwlock(&tnw_glock);
    ox_init_lock(&tnw_fc_lock);
  } else if (reason == DLL_PROCESS_DETACH) {
    ox_deinit_lock(&tnw_fc_lock);
    ox_deinit_rwlock(&tnw_glock);
    ox_deinit_rwlock(&tnw_tninstances.tni_lock);
  }
  return TRUE;
}
