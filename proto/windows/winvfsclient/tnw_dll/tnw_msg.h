/* Requests: their headers and trailing texts, filled from what a call was given. */
#ifndef TNW_MSG_H
#define TNW_MSG_H

#include <cstring>
#include <initializer_list>

#include "tnv_proto.h"
#include "tnw_fd.h"

/* Fills the header of a request of `len` bytes for a drive and a process, each null for none. */
void tnw_fill_header(tnv_msg* msg, vfs_op op, size_t len, const void* drvhdl, const char* procname);
/*
 * A request with its header filled and `texts` behind the fixed part, each with its NUL, or null
 * when there is no memory for it. Freed with ox_free_safe.
 */
tnv_msg* tnw_build_msg(vfs_op op, const void* drvhdl, const char* procname,
                       std::initializer_list<const char*> texts);
/* Fills a CLOSE or CLEANUP request (their payloads have one layout) for an open entry. */
void tnw_fill_close(tnv_msg* msg, vfs_op op, const tnvfd* fde);
/* The length of a trailing text as requests carry it, without the NUL. */
inline ox_s32 tnw_text_len(const char* text) { return static_cast<ox_s32>(strlen(text)); }

#endif
