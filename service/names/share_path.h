/* Paths of requests, made into the paths of the cloud (see cloud.h). */
#ifndef SERVICE_SHARE_PATH_H
#define SERVICE_SHARE_PATH_H

#include <cstddef>
#include <string>
#include <string_view>

namespace tarnd {

/* The longest name in UTF-8 bytes: the listing's name field holds it with its terminator. */
inline constexpr size_t MAX_NAME_BYTES = 244;

/*
 * Joins the drive's share path and a request's path, both relative to the cloud's root, with either
 * kind of slash and any number of them. "." goes, ".." goes back one name. 0, or
 *   OX_EPERM   ".." that leaves the share (the share path itself: the cloud)
 *   OX_EINVAL  a name that check_name refuses
 */
int normalise_share_path(const std::string& share, const std::string& path, std::string* out);

/*
 * Whether an item may have this name, whatever its length: any Unicode text may, except what is no
 * name on Windows or could be taken for another file there: separators, control characters, streams
 * (':'), wildcards (also '<', '>' and '"', which match as such), a trailing dot or space (dropped
 * by programs that do not ask for verbatim paths) and the bare names of devices. A device's name
 * with an extension ("aux.c") is a file's name.
 */
bool is_windows_name(std::string_view name);
/* Whether a drive takes the name: it also has up to MAX_NAME_BYTES. 0 or OX_EINVAL. */
int check_name(std::string_view name);

}  // namespace tarnd

#endif
