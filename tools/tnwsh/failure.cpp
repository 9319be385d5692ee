#include "failure.h"

#include <windows.h>

#include "service/wide_text.h"

namespace tnwsh {
namespace {

// Codes of the library whose Windows text would mislead. The last one is a number of the cache
// service that has no Windows code and comes as it is; the end of a file, which has the same, is
// never an error here.
const char* OwnMeaning(uint32_t code) {
  switch (code) {
    case kConnectionBroken:
      return "the connection to the cache service is broken, or the service has ended";
    case kUnauthorised:
      return "the cache service has no valid authorisation for this user: its token was refused";
    case ERROR_INVALID_DATA:
      return "the cache service refuses the path or the request as invalid";
    case kEndOfFile:
      return "a name in the path is too long";
    default:
      return nullptr;
  }
}

std::string WindowsMeaning(uint32_t code) {
  wchar_t text[512];
  const DWORD length =
      FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS |
                         FORMAT_MESSAGE_MAX_WIDTH_MASK,  // no line breaks of its own
                     nullptr, code, 0, text, static_cast<DWORD>(std::size(text)), nullptr);
  std::string meaning;
  tarnd::Utf8FromWide(std::wstring_view(text, length), &meaning);
  meaning.erase(meaning.find_last_not_of(" .\r\n") + 1);
  return meaning.empty() ? "a code that Windows has no text for" : meaning;
}

}  // namespace

std::string MeaningOf(uint32_t code) {
  const char* own = OwnMeaning(code);
  return own != nullptr ? own : WindowsMeaning(code);
}

Failure::Failure(const std::string& path, const std::string& what, uint32_t code)
    : std::runtime_error(path + ": " + what + ": error " + std::to_string(code) + ": " +
                         MeaningOf(code)),
      code_(code) {}

}  // namespace tnwsh
