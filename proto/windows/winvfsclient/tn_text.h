/*
 * Arguments for formatted texts: identifiers, 64-bit numbers, fixed fields and bounded texts. Only
 * the C++ sources of this folder use them.
 */
#ifndef TN_TEXT_H
#define TN_TEXT_H

#include "ox_util.h"
#include "ox_uuid.h"
#include "tnv_proto.h"

/* An identifier as text. */
struct tn_id_text {
  char text[OX_UUID_TEXT_SIZE];
  explicit tn_id_text(const cfs_id_t& id) { ox_uuid_unparse(id.id, text); }
};

/* A text without a terminator. */
struct tn_text {
  int len;
  const char* at;
};

/* For %llu, since ox_u64 is `unsigned long` on some hosts. */
inline unsigned long long tn_llu(ox_u64 value) { return value; }
inline unsigned long long tn_llu(ox_s64 value) { return static_cast<unsigned long long>(value); }

/* For %.*s: a fixed field, which has no NUL when it is full, and a bounded text. */
#define TN_FIELD(field) static_cast<int>(ox_field_len((field), sizeof(field))), (field)
#define TN_TEXT(text) (text).len, (text).at

#endif
