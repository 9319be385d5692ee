/*
 * Identifiers: binary UUIDs in the Windows layout. Not exported from the DLL.
 *
 * The layout is a 32-bit and two 16-bit little-endian numbers, then 8 bytes. Any thread may call.
 */
#ifndef OX_UUID_H
#define OX_UUID_H

#include "ox_types.h"

OX_BEGIN_DECLS

enum { OX_UUID_SIZE = 16, OX_UUID_TEXT_SIZE = 37 };

/* Makes a new random UUID. Windows only. */
void ox_uuid_generate(ox_u8* id);
/* Writes 36 lower-case characters and a NUL: "00112233-4455-6677-8899-aabbccddeeff". */
void ox_uuid_unparse(const ox_u8* id, char* text);
/* Reads exactly the 36-character form, in either case. 0, or 22 with `id` untouched; a null text is
 * 22. */
int ox_uuid_parse(const char* text, ox_u8* id);

OX_END_DECLS

#endif
