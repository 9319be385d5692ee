/* Who may talk to the service. */
#include "private_access.h"

#include "raw_client.h"
/* after winsock2.h */
#include <aclapi.h>
#include <gtest/gtest.h>
#include <sddl.h>

#include "clients.h"
#include "test_folder.h"
#include "tnv_connio_win.h"

namespace {

using tarnd::Access;

constexpr const wchar_t* USER = L"S-1-5-21-1-2-3-1001";
const std::wstring MINE = L"O:S-1-5-21-1-2-3-1001";

Access access_of(const std::wstring& sddl) {
  void* descriptor = nullptr;
  EXPECT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl.c_str(), SDDL_REVISION_1,
                                                                   &descriptor, nullptr));
  const Access access = tarnd::access_in(descriptor, USER);
  LocalFree(descriptor);
  return access;
}

TEST(PrivateAccess, OwnerAndListDecide) {
  const struct {
    std::wstring sddl;
    Access access;
  } cases[] = {
      {MINE + L"D:P(A;OICI;FA;;;S-1-5-21-1-2-3-1001)", Access::USER_ONLY},
      {MINE + L"D:(A;OICIID;FA;;;SY)(A;OICIID;FA;;;BA)(A;OICIIOID;FA;;;CO)(A;;FA;;;S-1-3-4)",
       Access::USER_ONLY},
      {L"O:BAD:(A;;FA;;;S-1-5-21-1-2-3-1001)(D;;FA;;;WD)", Access::USER_ONLY},
      {MINE + L"D:(A;;FA;;;S-1-5-21-1-2-3-1001)(A;;FR;;;WD)", Access::OTHERS_TOO},
      {MINE + L"D:(A;OICIIOID;0x1301bf;;;AU)", Access::OTHERS_TOO}, /* in what is made inside */
      {MINE + L"D:(A;;FX;;;S-1-5-21-1-2-3-1002)", Access::OTHERS_TOO},
      {MINE, Access::OTHERS_TOO}, /* without a list everybody may */
      {L"O:S-1-5-21-1-2-3-1002D:P(A;;FA;;;S-1-5-21-1-2-3-1001)", Access::OTHER_OWNER},
      {L"O:WDD:P(A;;FA;;;S-1-5-21-1-2-3-1001)", Access::OTHER_OWNER},
      {L"D:P(A;;FA;;;S-1-5-21-1-2-3-1001)", Access::OTHER_OWNER},
  };
  for (const auto& [sddl, access] : cases) {
    EXPECT_EQ(access_of(sddl), access) << std::string(sddl.begin(), sddl.end());
  }
}

std::wstring list_of(const std::wstring& path) {
  void* descriptor = nullptr;
  wchar_t* text = nullptr;
  GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr,
                        nullptr, nullptr, &descriptor);
  ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1,
                                                       DACL_SECURITY_INFORMATION, &text, nullptr);
  const std::wstring list = text;
  LocalFree(text);
  LocalFree(descriptor);
  return list;
}

TEST(PrivateAccess, TheSocketAndAFolderThatWasThereAreForTheUserOnly) {
  const TestFolder folder;
  create_directories(folder.path() / "cloud");
  create_directories(folder.path() / "sock");
  ServiceProcess service(folder.path().string());
  ASSERT_TRUE(service.start());
  const std::wstring socket = (folder.path() / "sock" / "tnvfs.sock").wstring();
  ASSERT_NE(list_of(folder.path()).find(L";;;WD)"), std::wstring::npos) << "as folders are made";
  EXPECT_EQ(list_of(folder.path() / "sock").find(L";;;WD)"), std::wstring::npos);
  EXPECT_EQ(list_of(socket).find(L";;;WD)"), std::wstring::npos);
}

TEST(PrivateAccess, APeerIsKnownWhereTheSystemTells) {
  ASSERT_EQ(tnv_sock_init(), 0);
  const SOCKET socket = ::socket(AF_INET, SOCK_STREAM, 0);
  EXPECT_EQ(tarnd::peer_process(socket), 0u);
  closesocket(socket);
}

}  // namespace
