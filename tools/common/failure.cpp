#include "tools/common/failure.h"

#include <windows.h>

#include "tools/common/wide_text.h"

namespace tools {
namespace {

/* Texts for the codes whose text from Windows would mislead or says too little. */
const char* plain_meaning(uint32_t code) {
  switch (code) {
    case ERROR_SHARING_VIOLATION:
      return "it is open elsewhere, in a way that does not allow this";
    case ERROR_FILE_EXISTS:
      return "the name is taken";
    case ERROR_DIR_NOT_EMPTY:
      return "the folder is not empty";
    case ERROR_DIRECTORY:
      return "it is a file, not a folder";
    default:
      return nullptr;
  }
}

std::string windows_meaning(uint32_t code) {
  wchar_t text[512];
  const DWORD length =
      FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS |
                         FORMAT_MESSAGE_MAX_WIDTH_MASK, /* without line breaks in the text */
                     nullptr, code, 0, text, static_cast<DWORD>(std::size(text)), nullptr);
  std::string meaning = utf8_from_wide(std::wstring_view(text, length));
  meaning.erase(meaning.find_last_not_of(" .\r\n") + 1);
  return meaning.empty() ? "a code that Windows has no text for" : meaning;
}

}  // namespace

std::string meaning_of(uint32_t code) {
  const char* plain = plain_meaning(code);
  return plain != nullptr ? plain : windows_meaning(code);
}

}  // namespace tools
