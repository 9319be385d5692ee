/* Percent-encoding, as addresses have it. */
#ifndef SERVICE_PERCENT_H
#define SERVICE_PERCENT_H

#include <string>
#include <string_view>

namespace tarnd {

/* False when '%' is not followed by two hexadecimal digits, or when these make a null. */
bool decode_percent(std::string_view text, std::string* out);
/* Leaves letters, digits, "-._~" and '/' as they are. */
std::string encode_percent(std::string_view text);

}  // namespace tarnd

#endif
