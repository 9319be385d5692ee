/*
 * New contents on their way into a cloud that is a directory: each in a file of its own beside its
 * target, until it is whole. What a killed write left behind bears such a name, too.
 */
#ifndef SERVICE_CLOUD_PART_H
#define SERVICE_CLOUD_PART_H

#include <cstdint>
#include <string>
#include <string_view>

#include "cloud/cloud.h"

namespace tarnd {

inline constexpr uint64_t PART_MIN_AGE = 600ull * 10'000'000; /* ten minutes, in 100 ns */

/* Whether a name is that of such a file. */
bool is_part(std::wstring_view name);
/* A new one for a target. */
std::wstring new_part(const std::wstring& target);
/*
 * Writes the announced content into a new part, all of it or an error, and to the disk; with the
 * attributes and the time of creation of the target that it will replace.
 */
int write_part(const std::wstring& part, const std::wstring& target, uint64_t size,
               const ContentReader& content);
/*
 * Removes what killed writes left in a folder. A write that lives keeps its file from being deleted
 * by holding it open; the age guards those of other machines, whose locks may not be seen here.
 */
void remove_parts(const std::wstring& folder, uint64_t min_age);

}  // namespace tarnd

#endif
