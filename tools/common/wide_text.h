/* Between UTF-8, which the programs speak, and the UTF-16 of Windows calls. Windows only. */
#ifndef TOOLS_COMMON_WIDE_TEXT_H
#define TOOLS_COMMON_WIDE_TEXT_H

#include <string>
#include <string_view>

namespace tools {

/*
 * Empty when the text is not well-formed (overlong, cut or surrogate bytes; a lone surrogate): such
 * a name has no counterpart on the other side, and a replaced character would be another name.
 */
std::wstring wide_from_utf8(std::string_view text);
std::string utf8_from_wide(std::wstring_view text);

}  // namespace tools

#endif
