/* Between UTF-8, which our own code and the protocol speak, and the UTF-16 of Windows calls. */
#ifndef SERVICE_WIDE_TEXT_H
#define SERVICE_WIDE_TEXT_H

#include <string>
#include <string_view>

namespace tarnd {

/*
 * False when the text is not well-formed (overlong, cut or surrogate bytes; a lone surrogate):
 * such a name has no counterpart on the other side, and a replaced character would be another name.
 */
bool wide_from_utf8(std::string_view text, std::wstring* out);
bool utf8_from_wide(std::wstring_view text, std::string* out);

}  // namespace tarnd

#endif
