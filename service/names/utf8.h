/* Characters of UTF-8. */
#ifndef SERVICE_UTF8_H
#define SERVICE_UTF8_H

#include <cstddef>
#include <string_view>

namespace tarnd {

/* The bytes of the well-formed character that begins the text; 0: there is none. */
size_t utf8_character_size(std::string_view text);
bool is_utf8(std::string_view text);

}  // namespace tarnd

#endif
