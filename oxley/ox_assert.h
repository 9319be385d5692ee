/*
 * Assertions for internal faults (a corrupt list, a count that disagrees with its list).
 *
 * They hold in release builds too: the log is flushed, the expression is named on the standard
 * error stream with its source file and line, and the process ends.
 */
#ifndef OX_ASSERT_H
#define OX_ASSERT_H

#include "ox_types.h"

OX_BEGIN_DECLS
#ifdef __cplusplus
[[noreturn]]
#else
_Noreturn
#endif
void ox_assert_failed(const char* expr, const char* file, int line);
OX_END_DECLS

#define OX_ASSERT(expr) ((expr) ? (void)0 : ox_assert_failed(#expr, __FILE_NAME__, __LINE__))

#endif
