#include "cloud/directory/file_rename.h"

#include <cstring>
#include <vector>

namespace tarnd {
namespace {

/* Classes and flags of Windows 10 that MinGW's headers show to newer versions alone. */
constexpr auto DISPOSITION_INFO_EX = static_cast<FILE_INFO_BY_HANDLE_CLASS>(21);
constexpr auto RENAME_INFO_EX = static_cast<FILE_INFO_BY_HANDLE_CLASS>(22);
constexpr DWORD RENAME_REPLACE_POSIX = 0x1 | 0x2;
constexpr DWORD DELETE_POSIX = 0x1 | 0x2;

bool is_unknown_call(DWORD code) {
  return code == ERROR_INVALID_PARAMETER || code == ERROR_NOT_SUPPORTED ||
         code == ERROR_INVALID_FUNCTION;
}

/* `flags` as the information class has them: a replace flag, or the newer ones. */
DWORD set_name(HANDLE file, FILE_INFO_BY_HANDLE_CLASS info_class, DWORD flags,
               const std::wstring& place) {
  const size_t bytes = place.size() * sizeof(wchar_t);
  std::vector<char> buffer(sizeof(FILE_RENAME_INFO) + bytes);
  FILE_RENAME_INFO info = {};
  info.FileNameLength = static_cast<DWORD>(bytes);
  std::memcpy(buffer.data(), &info, sizeof info);
  std::memcpy(buffer.data(), &flags, sizeof flags);
  std::memcpy(buffer.data() + offsetof(FILE_RENAME_INFO, FileName), place.data(), bytes);
  const BOOL renamed = SetFileInformationByHandle(file, info_class, buffer.data(),
                                                  static_cast<DWORD>(buffer.size()));
  return renamed != 0 ? ERROR_SUCCESS : GetLastError();
}

}  // namespace

DWORD rename_file(HANDLE file, const std::wstring& place) {
  return set_name(file, FileRenameInfo, 0, place);
}

DWORD replace_file(HANDLE file, const std::wstring& place, FileHandle* target) {
  const DWORD code = set_name(file, RENAME_INFO_EX, RENAME_REPLACE_POSIX, place);
  if (!is_unknown_call(code)) {
    return code;
  }
  target->close();
  return set_name(file, FileRenameInfo, TRUE, place);
}

DWORD delete_file(HANDLE file) {
  DWORD flags = DELETE_POSIX;
  if (SetFileInformationByHandle(file, DISPOSITION_INFO_EX, &flags, sizeof flags) != 0) {
    return ERROR_SUCCESS;
  }
  if (const DWORD code = GetLastError(); !is_unknown_call(code)) {
    return code;
  }
  FILE_DISPOSITION_INFO info = {TRUE};
  return SetFileInformationByHandle(file, FileDispositionInfo, &info, sizeof info) != 0
             ? ERROR_SUCCESS
             : GetLastError();
}

}  // namespace tarnd
