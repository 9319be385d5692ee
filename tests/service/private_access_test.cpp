/* Who may talk to the service, and reach its files. */
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

/* What the guide about security says of each place; "everybody" stands for another user. */
TEST(PrivateAccess, OthersReachOnlyWhatLiesInFoldersThatTheyReach) {
  const TestFolder folder;
  create_directories(folder.path() / "cloud");
  create_directories(folder.path() / "sock");
  ServiceProcess service(folder.path().string());
  ASSERT_TRUE(service.start());
  const std::pair<const char*, bool> places[] = {{".", true},
                                                 {"cloud", true},
                                                 {"tarnd.log", true},
                                                 {"cache", false},
                                                 {"cache\\files", false},
                                                 {"sock", false},
                                                 {"sock\\tnvfs.sock", false}};
  for (const auto& [place, others] : places) {
    const std::wstring list = list_of((folder.path() / place).wstring());
    EXPECT_EQ(list.find(L";;;WD)") != std::wstring::npos, others) << place;
  }
}

TEST(PrivateAccess, APeerIsKnownWhereTheSystemTells) {
  ASSERT_EQ(tnv_sock_init(), 0);
  const SOCKET socket = ::socket(AF_INET, SOCK_STREAM, 0);
  EXPECT_EQ(tarnd::peer_process(socket), 0u);
  closesocket(socket);
}

}  // namespace
