/*
 * A content whose upload had no answer, so that the cloud may have it. Its bytes are not kept: the
 * file may be saved again before the cloud can be asked. What is kept is enough to know them again.
 */
#ifndef SERVICE_SENT_CONTENT_H
#define SERVICE_SENT_CONTENT_H

#include <string>
#include <vector>

#include "cloud/cloud.h"

namespace tarnd {

struct SentContent {
  uint64_t size = 0;           /* bytes of the whole content */
  std::vector<ByteRange> held; /* the ranges that the digest is of; the others were the base's */
  std::string digest;          /* SHA-256 of their bytes, in hexadecimal digits */

  bool operator==(const SentContent&) const = default;
};

/* Reads what the snapshot holds: 0 or an error number. */
int describe_sent(Snapshot& content, SentContent* sent);

/* Reads these ranges of the cloud's file, to see whether it is what was sent. `is_same` is false
 * unless the answer is OK. */
CloudResult is_sent_content(Cloud& cloud, const CloudContext& context, const CloudEntry& entry,
                            const SentContent& sent, bool* is_same);

}  // namespace tarnd

#endif
