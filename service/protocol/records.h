/* The cloud's entries as the records of the protocol. */
#ifndef SERVICE_RECORDS_H
#define SERVICE_RECORDS_H

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string_view>

#include "cloud/cloud.h"
#include "tnv_proto.h"

namespace tarnd {

/* CloudEntry::attributes: may not be written or deleted. */
inline constexpr uint32_t READ_ONLY_ATTRIBUTE = 0x1;

/* Fills a fixed text field: cut to its size, the rest zero; a text that fills it has no NUL. */
template <size_t SIZE>
void copy_field(char (&field)[SIZE], std::string_view text) {
  std::memset(field, 0, SIZE);
  std::memcpy(field, text.data(), std::min(SIZE, text.size()));
}

/* The text of a fixed field. */
template <size_t SIZE>
std::string_view field_text(const char (&field)[SIZE]) {
  return {field, strnlen(field, SIZE)};
}

/* `parent` is null for the cloud's root. `seqno`: how often the cached file was filled. */
tnvfso fso_of(const CloudEntry& entry, const CloudEntry* parent, uint64_t seqno);
ox_statx_t stat_of(const CloudEntry& entry);
void info_of(const CloudEntry& entry, tnw_fileinfo* info);

}  // namespace tarnd

#endif
