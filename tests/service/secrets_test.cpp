/* The token and the proxy's password show up in no log and stay on no command line. */
#include <gtest/gtest.h>

#include <algorithm>

#include "clients.h"
#include "raw_client.h"
#include "secret_options.h"
#include "test_folder.h"
#include "tnv_connio_win.h"

namespace {

const std::string SECRET(40, 'Q');

TEST(Secrets, AreOverwrittenInACommandLine) {
  char line[] = R"(C:\a b\tarnd.exe --access-token abc "d e" --user me --proxy-password x --vfs)";
  tarnd::hide_secret_options(line);
  EXPECT_STREQ(line,
               R"(C:\a b\tarnd.exe --access-token *** ***** --user me --proxy-password * --vfs)");
  wchar_t empty[] = L"tarnd --access-token --proxy-password";
  tarnd::hide_secret_options(empty);
  EXPECT_STREQ(empty, L"tarnd --access-token --proxy-password");
}

/* What any program of the user sees of another's command line: at fixed places of its memory. */
std::wstring command_line_of(HANDLE process) {
  using Query = LONG(WINAPI*)(HANDLE, int, void*, ULONG, ULONG*);
  const auto query = reinterpret_cast<Query>(reinterpret_cast<void*>(
      GetProcAddress(GetModuleHandleA("ntdll"), "NtQueryInformationProcess")));
  struct {
    void* unused;
    char* environment_block;
    void* more[4];
  } process_information = {};
  query(process, 0, &process_information, sizeof process_information, nullptr);
  const auto pointer_at = [process](const char* address) {
    char* pointer = nullptr;
    ReadProcessMemory(process, address, &pointer, sizeof pointer, nullptr);
    return pointer;
  };
  const char* parameters = pointer_at(process_information.environment_block + 0x20);
  USHORT bytes = 0;
  ReadProcessMemory(process, parameters + 0x70, &bytes, sizeof bytes, nullptr);
  std::wstring line(bytes / sizeof(wchar_t), L' ');
  ReadProcessMemory(process, pointer_at(parameters + 0x78), line.data(), bytes, nullptr);
  return line;
}

TEST(Secrets, AreNeitherLoggedNorLeftOnTheCommandLine) {
  const TestFolder folder;
  create_directories(folder.path() / "cloud");
  ServiceProcess service(folder.path().string());
  service.more_options = "--access-token " + SECRET + " --proxy-password " + SECRET;
  ASSERT_EQ(tnv_sock_init(), 0);
  ASSERT_TRUE(service.start({{"TARND_DEBUG", "5"}, {"TARND_UTXID", "1"}}));
  const std::wstring line = command_line_of(service.handle());
  EXPECT_NE(line.find(L"--proxy-password ****"), std::wstring::npos);
  EXPECT_EQ(line.find(L'Q'), std::wstring::npos);
  RawConnection connection(service);
  EXPECT_EQ(connection.connect().error(), 0);
  EXPECT_EQ(connection.texts(TNV_OP_UPDATETOKEN, {SECRET}).error(), 0);
  EXPECT_EQ(connection.texts(TNV_OP_WIN_SETPROXY, {"a proxy", "a user", SECRET}).error(), 0);
  EXPECT_EQ(connection.ask(TNV_OP_SHUTDOWN).error(), 0);
  EXPECT_EQ(service.wait(), 0);
  std::ifstream file(folder.path() / "tarnd.log");
  std::string log{std::istreambuf_iterator<char>(file), {}};
  std::erase(log, ' '); /* a dump sets its characters apart */
  EXPECT_NE(log.find("aproxy"), std::string::npos);
  EXPECT_EQ(log.find("QQQQ"), std::string::npos);
}

}  // namespace
