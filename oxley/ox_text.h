/*
 * Comparison of file names as the Java platform's lower-casing compares them.
 *
 * The service and the cloud compare names with Java's rules, which know fewer letters than today's
 * Unicode tables: who compares with other tables takes two different files for one, or one for two.
 * Needs no initialisation, takes no lock and no memory, and keeps nothing: call it from any thread.
 *
 * Texts are UTF-8 up to their NUL; nothing beyond it is read, whatever stands before it. Bytes that
 * are no part of a well-formed character (a truncated or overlong sequence, a surrogate, a value
 * above U+10FFFF) are not refused: each such byte compares equal with the same byte alone, hence
 * never with a character.
 */
#ifndef OX_TEXT_H
#define OX_TEXT_H

#include "ox_types.h"

OX_BEGIN_DECLS

/*
 * Whether two texts are the same: 0 when they are equal code point by code point, else 1. An
 * equality test, not an ordering: never negative, and no use for sorting. Canonically equivalent
 * texts (a letter with its accent, or letter and accent apart) differ. 1 when either is null, also
 * when both are.
 */
int ox_utf8_strcmp(const char* a, const char* b);

/*
 * The same after lower-casing each code point with ox_java_tolower. U+0130 (capital I with dot
 * above) also equals the two characters that Java lowers it to, "i" and U+0307 (combining dot
 * above), but neither a plain "i" nor a capital "I" and U+0307. U+00DF (sharp s) is not "ss".
 */
int ox_utf8_strcasecmp(const char* a, const char* b);

/*
 * The lower case of a code point as Java gives it. Deliberately, letters whose lower case Java does
 * not know come back as they are (Cherokee and Georgian capitals, for two), and so does what is no
 * code point: surrogates, values above U+10FFFF, negative ones. For U+0130 the result is no code
 * point but two, packed: 0x690307, "i" (0x69) above the low 16 bits U+0307.
 */
ox_s32 ox_java_tolower(ox_s32 c);

/*
 * Whether "i" followed by U+0307 stands at *p. 1 with *p moved past the "i", onto the U+0307; else
 * 0 with *p where it was, also when p or *p is null.
 */
int ox_is_lower_turkish_i(const char** p);

OX_END_DECLS

#endif
