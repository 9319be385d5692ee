/* A cloud file list of a real folder. */
#ifndef CFFLPRINT_MAKE_LIST_H
#define CFFLPRINT_MAKE_LIST_H

#include <string>

namespace cfflprint {

/* The size of the chunks that a file's checksum counts, in bytes. */
inline constexpr unsigned CHUNK_SIZE = 4194304;

/*
 * Writes the list of `folder` to `file`, or leaves that as it was and throws a tools::Failure.
 * Paths are UTF-8. `user` must fit in 63 bytes.
 */
void make_list(const std::string& folder, const std::string& file, const std::string& user);

}  // namespace cfflprint

#endif
