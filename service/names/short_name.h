/*
 * Names that are longer than a listing's record can hold are shown by a short one, so that nothing
 * in the cloud is invisible: what fits of the name, a mark, 16 digits of the name's digest, and the
 * name's extension. The same name always has the same short one.
 */
#ifndef SERVICE_SHORT_NAME_H
#define SERVICE_SHORT_NAME_H

#include <string>
#include <string_view>

namespace tarnd {

inline constexpr std::string_view SHORT_NAME_MARK = "\uf07e";

/* The name itself when it has up to MAX_NAME_BYTES. */
std::string shown_name(const std::string& name);

/* Whether a name of the path may be one that shown_name made. */
inline bool has_short_name(const std::string& path) {
  return path.find(SHORT_NAME_MARK) != std::string::npos;
}

}  // namespace tarnd

#endif
