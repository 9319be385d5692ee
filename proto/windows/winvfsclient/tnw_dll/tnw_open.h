/*
 * File contexts: one per file as the drive application sees it, found through the caller's slot.
 */
#ifndef TNW_OPEN_H
#define TNW_OPEN_H

#include "tnw_call.h"
#include "tnw_fd.h"

/* Guards the caller's slots while a call uses them, and the counters of every context. Taken
 * alone. */
extern ox_lock_t tnw_fc_lock;

/* Counts an open in or out by its access mode. The last one out frees the context. */
void tnw_count_open(tnw_file_context* fc, ox_u32 accmode);
void tnw_uncount_open(tnw_file_context* fc, ox_u32 accmode);

/* Gives back an entry whose close is done: local file, context, maps and listing go with it. */
void tnw_release_entry(const tnw_call& call, tnvfd* fde);

#endif
