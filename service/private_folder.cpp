#include "private_folder.h"

#include <sddl.h>

#include <memory>
#include <vector>

namespace tarnd {
namespace {

struct LocalFreer {
  void operator()(void* memory) const { LocalFree(memory); }
};
template <typename T>
using LocalPtr = std::unique_ptr<T, LocalFreer>;

/* This user's SID as text; empty when it cannot be told. */
std::wstring user_sid() {
  HANDLE token = nullptr;
  if (OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token) == 0) {
    return {};
  }
  DWORD size = 0;
  GetTokenInformation(token, TokenUser, nullptr, 0, &size);
  std::vector<uint64_t> buffer(size / sizeof(uint64_t) + 1);
  const bool found = GetTokenInformation(token, TokenUser, buffer.data(), size, &size) != 0;
  CloseHandle(token);
  wchar_t* text = nullptr;
  if (!found || (ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(buffer.data())->User.Sid,
                                        &text) == 0)) {
    return {};
  }
  const LocalPtr<wchar_t> owner(text);
  return text;
}

/* Full access for this user, inherited by what is made inside, and nothing for anybody else. */
LocalPtr<void> user_only() {
  const std::wstring sddl = L"D:P(A;OICI;FA;;;" + user_sid() + L")";
  void* descriptor = nullptr;
  ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl.c_str(), SDDL_REVISION_1, &descriptor,
                                                       nullptr);
  return LocalPtr<void>(descriptor);
}

bool is_folder(const std::wstring& path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

}  // namespace

DWORD make_private_folder(const std::wstring& path) {
  if (is_folder(path)) {
    return ERROR_SUCCESS;
  }
  const size_t slash = path.find_last_of(L"/\\");
  if (slash != std::wstring::npos && slash > 0) {
    if (const DWORD code = make_private_folder(path.substr(0, slash))) {
      return code;
    }
  }
  const LocalPtr<void> descriptor = user_only();
  if (descriptor == nullptr) {
    return GetLastError();
  }
  SECURITY_ATTRIBUTES attributes = {sizeof attributes, descriptor.get(), FALSE};
  if ((CreateDirectoryW(path.c_str(), &attributes) != 0) || is_folder(path)) {
    return ERROR_SUCCESS;
  }
  return GetLastError();
}

}  // namespace tarnd
