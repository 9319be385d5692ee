/*
 * Paths of the drive in addresses: "/a%20b/" is the path "/a b". A path begins with '/', and only
 * the root ends with it.
 */
#ifndef TNWDAV_DAV_PATH_H
#define TNWDAV_DAV_PATH_H

#include <optional>
#include <string>
#include <string_view>

namespace tnwdav {

/*
 * The path that a request's target or a Destination header names; the latter may be a whole
 * address. Nothing when it names none: bad encoding or text, a "." or "..", a backslash, a query,
 * or another server than `host`.
 */
std::optional<std::string> path_of_address(std::string_view address, std::string_view host);

/* The encoded form, with a slash at the end of a folder. */
std::string address_of_path(const std::string& path, bool folder);

/* The folder that holds the path; of the root the root. */
std::string parent_of(const std::string& path);

/* Keys are path_key() of paths. Whether `key` lies below `folder`, at any depth. */
bool lies_below(const std::string& key, const std::string& folder);

}  // namespace tnwdav

#endif
