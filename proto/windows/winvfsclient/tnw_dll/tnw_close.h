/*
 * How an open ends, for tnw_close and for the other calls that end one.
 */
#ifndef TNW_CLOSE_H
#define TNW_CLOSE_H

#include "tnw_call.h"
#include "tnw_fd.h"

/* Gives back an entry that the service has closed, with its local file, context, maps and listing.
 */
void tnw_release_entry(const tnw_call& call, tnvfd* fde);

/*
 * Takes back an open that the service has granted and that fails on our side: closes the local file
 * and sends a CLOSE for the entry, which the caller has filled. The caller then gives the entry
 * back.
 */
void tnw_take_back(const tnw_call& call, tnvfd* fde, void* drvhdl);

#endif
