/*
 * File contexts. A context counts the opens of one file. The drive application finds it through a
 * slot, one for each file; the library fills the slot with the first open, and frees the context
 * with the last close.
 */
#ifndef TNW_FILE_CONTEXT_H
#define TNW_FILE_CONTEXT_H

#include "ox_lock.h"
#include "tnw_fd.h"

/*
 * Guards the counters of every context, and the callers' slots while a call uses them. No other
 * lock is taken under it.
 */
extern ox_lock_t tnw_fc_lock;

/*
 * An open begins: gives the context of the slot, which it makes when the slot is empty, or null
 * when there is no memory. The context lives until the open has ended in one of the three ways
 * below.
 */
tnw_file_context* tnw_begin_open(void** slot);
/* The open succeeded, with this access mode. */
void tnw_count_open(tnw_file_context* fc, ox_u32 accmode);
/* The open failed. If the file has no other open, the context is freed and the slot emptied. */
void tnw_drop_open(void** slot, tnw_file_context* fc);
/* The open was unauthorised: the context stays in the caller's slot, though the file is not open.
 */
void tnw_keep_context(tnw_file_context* fc);

/* A close of an open with this access mode. The last close frees the context. */
void tnw_uncount_open(tnw_file_context* fc, ox_u32 accmode);

#endif
