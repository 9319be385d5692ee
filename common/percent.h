/* Percent-encoding, as addresses have it. */
#ifndef COMMON_PERCENT_H
#define COMMON_PERCENT_H

#include <string>
#include <string_view>

namespace common {

/* False when '%' is not followed by two hexadecimal digits, or when these make a null. */
bool decode_percent(std::string_view text, std::string* out);
/* Leaves letters, digits, "-._~" and '/' as they are. */
std::string encode_percent(std::string_view text);

}  // namespace common

#endif
