#include "failure.h"

#include <windows.h>

#include <algorithm>

#include "service/wide_text.h"

namespace tnwsh {
namespace {

/* Codes of the library whose Windows text would mislead, or says less. */
const char* OwnMeaning(uint32_t code) {
  switch (code) {
    case kConnectionBroken:
      return "the connection to the cache service is broken, or the service has ended";
    case kUnauthorised:
      return "the cache service has no valid authorisation for this user: its token was refused";
    case ERROR_INVALID_DATA:
      return "the cache service refuses the path (a name is too long, or none for Windows) or the "
             "request";
    case ERROR_SHARING_VIOLATION:
      return "it is open elsewhere, in a way that does not allow this";
    case ERROR_FILE_EXISTS:
      return "the name is taken";
    case ERROR_DIR_NOT_EMPTY:
      return "the folder is not empty";
    case ERROR_DIRECTORY:
      return "it is a file, not a folder";
    case ERROR_IO_DEVICE:
      return "the cache service could not reach or change the file in the cloud";
    default:
      return nullptr;
  }
}

std::string WindowsMeaning(uint32_t code) {
  wchar_t text[512];
  const DWORD length =
      FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS |
                         FORMAT_MESSAGE_MAX_WIDTH_MASK, /* no line breaks of its own */
                     nullptr, code, 0, text, static_cast<DWORD>(std::size(text)), nullptr);
  std::string meaning;
  tarnd::utf8_from_wide(std::wstring_view(text, length), &meaning);
  meaning.erase(meaning.find_last_not_of(" .\r\n") + 1);
  return meaning.empty() ? "a code that Windows has no text for" : meaning;
}

}  // namespace

std::string MeaningOf(uint32_t code, Answers answers) {
  const auto found = std::find_if(answers.begin(), answers.end(),
                                  [=](const Answer& answer) { return answer.code == code; });
  if (found != answers.end() && found->meaning != nullptr) {
    return found->meaning;
  }
  const char* own = OwnMeaning(code);
  return own != nullptr ? own : WindowsMeaning(code);
}

Failure::Failure(const std::string& path, const std::string& what, uint32_t code, Answers answers)
    : std::runtime_error(path + ": " + what + ": error " + std::to_string(code) + ": " +
                         MeaningOf(code, answers)),
      code_(code) {}

}  // namespace tnwsh
