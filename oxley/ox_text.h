/**
 * @file
 * @ingroup portability
 * Comparison of file names as the Java platform's lower-casing compares them.
 *
 * The service and the cloud compare names with Java's rules, which know fewer letters than today's
 * Unicode tables. Another table would take two different files for one, or one for two. The calls
 * need no initialisation, take no lock and no memory, and keep nothing: any thread may call.
 *
 * Texts are UTF-8 up to their NUL. Nothing behind the NUL is read. Bytes that are no part of a
 * well-formed character (a truncated or overlong sequence, a surrogate, a value above U+10FFFF) are
 * not refused: each such byte equals the same byte and nothing else.
 */
#ifndef OX_TEXT_H
#define OX_TEXT_H

#include "ox_types.h"

OX_BEGIN_DECLS

/**
 * 0 when two texts are equal code point by code point, else 1. It never says which of them comes
 * first, so it cannot sort. Canonically equivalent texts (an accented letter as one code point or
 * as two) differ. 1 when either is null, also when both are.
 */
int ox_utf8_strcmp(const char* a, const char* b);

/**
 * The same after lower-casing each code point with ox_java_tolower. U+0130 (capital I with dot
 * above) also equals the two characters that Java lowers it to, "i" and U+0307 (combining dot
 * above), but neither a plain "i" nor a capital "I" and U+0307. U+00DF (sharp s) is not "ss".
 */
int ox_utf8_strcasecmp(const char* a, const char* b);

/**
 * The lower case of a code point as Java gives it. A letter whose lower case Java does not know
 * (Cherokee and Georgian capitals, for two) or that is newer than Unicode 15.1 comes back as it is:
 * the service takes such a capital and its small letter for two names. So does what is no code
 * point: surrogates, values above U+10FFFF, negative ones. For U+0130 the result is not one code
 * point but two in one number, 0x690307: "i" (0x69) above the low 16 bits U+0307.
 */
ox_s32 ox_java_tolower(ox_s32 c);

/**
 * 1 when "i" followed by U+0307 stands at *p, which is then moved past the "i", onto the U+0307.
 * Else 0 with *p as it was, also when p or *p is null.
 */
int ox_is_lower_turkish_i(const char** p);

OX_END_DECLS

#endif
