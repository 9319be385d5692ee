/**
 * @file
 * @ingroup portability
 * Fixed-width types, linkage and export marks shared by every oxley header.
 *
 * Usable from C and C++. OX_DATA marks the few exported variables: a program that links the DLL's
 * import library sees them as dllimport; the library itself (OX_BUILDING) and programs that link
 * its objects statically (OX_STATIC) see plain externs.
 */
#ifndef OX_TYPES_H
#define OX_TYPES_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

typedef uint8_t ox_u8;   /**< 8 bits, unsigned */
typedef uint16_t ox_u16; /**< 16 bits, unsigned */
typedef uint32_t ox_u32; /**< 32 bits, unsigned */
typedef uint64_t ox_u64; /**< 64 bits, unsigned */
typedef int32_t ox_s32;  /**< 32 bits, signed */
typedef int64_t ox_s64;  /**< 64 bits, signed */
typedef int64_t ox_off;  /**< a byte offset in a file */

/** A Windows HANDLE without <windows.h>; the invalid value has all bits set. */
typedef void* ox_handle;

/** @cond MACROS */
#ifdef __cplusplus
#define OX_BEGIN_DECLS extern "C" {
#define OX_END_DECLS }
#define OX_STATIC_ASSERT(cond, text) static_assert(cond, text)
#else
#define OX_BEGIN_DECLS
#define OX_END_DECLS
#define OX_STATIC_ASSERT(cond, text) _Static_assert(cond, text)
#endif

#if defined(_WIN32) && !defined(OX_BUILDING) && !defined(OX_STATIC)
#define OX_DATA extern __declspec(dllimport)
#else
#define OX_DATA extern
#endif

/** printf-style checking; fmt and first are 1-based argument positions. C99 formats (%zu, %llu). */
#if defined(__MINGW32__) && !defined(__clang__)
#define OX_PRINTF_LIKE(fmt, first) __attribute__((format(gnu_printf, fmt, first)))
#elif defined(__GNUC__)
#define OX_PRINTF_LIKE(fmt, first) __attribute__((format(printf, fmt, first)))
#else
#define OX_PRINTF_LIKE(fmt, first)
#endif
/** @endcond */

#endif
