#include "answers.h"

#include <algorithm>

namespace tnwsh {
namespace {

/* The meaning of the codes to which the library or the service gives a meaning of its own. */
constexpr Answer MEANINGS[] = {
    {TNW_ERROR_NO_SERVICE,
     "the connection to the cache service is broken, or the service has ended"},
    {ERROR_LOGON_FAILURE,
     "the cache service has no valid authorisation for this user: its token was refused"},
    {ERROR_INVALID_DATA,
     "the cache service refuses the path (a name is too long, or none for Windows) or the request"},
    {ERROR_IO_DEVICE, "the cache service could not reach or change the file in the cloud"},
};

const char* own_meaning(uint32_t code, Answers answers) {
  const auto found = std::find_if(answers.begin(), answers.end(),
                                  [code](const Answer& answer) { return answer.code == code; });
  return found != answers.end() ? found->meaning : nullptr;
}

}  // namespace

std::string meaning_of(uint32_t code, Answers answers) {
  for (const Answers table : {answers, Answers(MEANINGS)}) {
    if (const char* meaning = own_meaning(code, table)) {
      return meaning;
    }
  }
  return tools::meaning_of(code);
}

Failure drive_failure(const std::string& path, const std::string& what, int code, Answers answers) {
  const uint32_t windows_code = static_cast<uint32_t>(code);
  return Failure(path, what, windows_code, meaning_of(windows_code, answers));
}

}  // namespace tnwsh
