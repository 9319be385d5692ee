/* Characters of UTF-8. */
#ifndef SERVICE_UTF8_H
#define SERVICE_UTF8_H

#include <cstddef>
#include <string>
#include <string_view>

namespace tarnd {

/* The bytes of the well-formed character that begins the text; 0: there is none. */
size_t utf8_character_size(std::string_view text);
bool is_utf8(std::string_view text);
/* Up to `bytes` of the text, cut between two characters. */
std::string cut_utf8(const std::string& text, size_t bytes);

}  // namespace tarnd

#endif
