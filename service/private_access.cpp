#include "private_access.h"

#include <aclapi.h>
#include <sddl.h>

#include <memory>
#include <vector>

#include "files/windows_file.h"
#include "ox_logging.h"
#include "wide_text.h"

namespace tarnd {
namespace {

struct LocalFreer {
  void operator()(void* memory) const { LocalFree(memory); }
};
template <typename T>
using LocalPtr = std::unique_ptr<T, LocalFreer>;

std::wstring text_of_sid(PSID sid) {
  wchar_t* text = nullptr;
  if (sid == nullptr || ConvertSidToStringSidW(sid, &text) == 0) {
    return {};
  }
  const LocalPtr<wchar_t> owner(text);
  return text;
}

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
  return found ? text_of_sid(reinterpret_cast<TOKEN_USER*>(buffer.data())->User.Sid)
               : std::wstring();
}

/* An access list as text. Null when it cannot be made. */
LocalPtr<void> descriptor_of(const std::wstring& sddl) {
  void* descriptor = nullptr;
  ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl.c_str(), SDDL_REVISION_1, &descriptor,
                                                       nullptr);
  return LocalPtr<void>(descriptor);
}

/* Full access for this user, inherited by what is made inside, and nothing for anybody else. */
LocalPtr<void> user_only() { return descriptor_of(L"D:P(A;OICI;FA;;;" + user_sid() + L")"); }

bool is_folder(const std::wstring& path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

/* The user, the system, the administrators; in a list also whoever owns the thing. */
bool is_trusted(PSID sid, const std::wstring& user) {
  const std::wstring text = text_of_sid(sid);
  return text == user || text == L"S-1-5-18" || text == L"S-1-5-32-544";
}
bool is_owner(PSID sid) {
  const std::wstring text = text_of_sid(sid);
  return text == L"S-1-3-0" || text == L"S-1-3-4";
}

/* An entry of a kind that is not known here is taken for one that lets others in. */
bool lets_others_in(void* entry, const std::wstring& user) {
  const auto* allowed = static_cast<ACCESS_ALLOWED_ACE*>(entry);
  if (allowed->Header.AceType == ACCESS_DENIED_ACE_TYPE) {
    return false;
  }
  PSID sid = const_cast<DWORD*>(&allowed->SidStart);
  return allowed->Header.AceType != ACCESS_ALLOWED_ACE_TYPE ||
         (allowed->Mask != 0 && !is_trusted(sid, user) && !is_owner(sid));
}

/*
 * A folder or file to look at. A socket's file is a reparse point that cannot be opened as anything
 * else; behind a link to a folder it is the folder that counts.
 */
FileHandle open_for(DWORD access, const std::wstring& path) {
  const DWORD flags =
      FILE_FLAG_BACKUP_SEMANTICS | (is_folder(path) ? 0 : FILE_FLAG_OPEN_REPARSE_POINT);
  return FileHandle(
      CreateFileW(path.c_str(), access, SHARE_ALL, nullptr, OPEN_EXISTING, flags, nullptr));
}

DWORD look_at(const std::wstring& path, const std::wstring& user, Access* access) {
  const FileHandle file = open_for(READ_CONTROL, path);
  if (!file.valid()) {
    return GetLastError();
  }
  void* descriptor = nullptr;
  const DWORD code = GetSecurityInfo(file.get(), SE_FILE_OBJECT,
                                     OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION,
                                     nullptr, nullptr, nullptr, nullptr, &descriptor);
  const LocalPtr<void> owner(descriptor);
  if (code == 0) {
    *access = access_in(descriptor, user);
  }
  return code;
}

/* What is in a folder already keeps its own list. */
DWORD shut_others_out(const std::wstring& path, const std::wstring& user) {
  const LocalPtr<void> descriptor =
      descriptor_of(L"D:P(A;OICI;FA;;;" + user + L")(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)");
  const FileHandle file = open_for(READ_CONTROL | WRITE_DAC, path);
  if (!file.valid() || descriptor == nullptr) {
    return GetLastError();
  }
  const BOOL done = SetKernelObjectSecurity(
      file.get(), DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION,
      descriptor.get());
  return done != 0 ? 0 : GetLastError();
}

}  // namespace

Access access_in(void* descriptor, const std::wstring& user) {
  PSID owner = nullptr;
  PACL list = nullptr;
  BOOL present = FALSE;
  BOOL by_default = FALSE;
  if (GetSecurityDescriptorOwner(descriptor, &owner, &by_default) == 0 ||
      !is_trusted(owner, user)) {
    return Access::OTHER_OWNER;
  }
  if (GetSecurityDescriptorDacl(descriptor, &present, &list, &by_default) == 0 || present == 0 ||
      list == nullptr) {
    return Access::OTHERS_TOO; /* no list: everybody may do anything */
  }
  for (DWORD i = 0; i < list->AceCount; i++) {
    void* entry = nullptr;
    if (GetAce(list, i, &entry) == 0 || lets_others_in(entry, user)) {
      return Access::OTHERS_TOO;
    }
  }
  return Access::USER_ONLY;
}

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
  if (CreateDirectoryW(path.c_str(), &attributes) != 0 || is_folder(path)) {
    return ERROR_SUCCESS;
  }
  return GetLastError();
}

bool claim_for_user(const std::wstring& path, std::string* error) {
  std::string name;
  utf8_from_wide(path, &name);
  const std::wstring user = user_sid();
  Access access = Access::OTHER_OWNER;
  DWORD code = look_at(path, user, &access);
  if (code == 0 && access == Access::OTHERS_TOO) {
    OX_LOG(OX_WARN_LEVEL, 0, "Others could use %s; from now on only its user can", name.c_str());
    code = shut_others_out(path, user);
    code = code == 0 ? look_at(path, user, &access) : code;
  }
  if (code != 0) {
    *error = "The access list of " + name + " cannot be read or changed (Windows error " +
             std::to_string(code) + ")";
    return false;
  }
  *error = access == Access::OTHER_OWNER
               ? name + " belongs to another user"
               : "Others can use " + name + ", which cannot be taken from them";
  return access == Access::USER_ONLY;
}

}  // namespace tarnd
