#include "mount.h"

#include <windows.h>

#include <winnetwk.h>

#include "tools/common/failure.h"
#include "tools/common/wide_text.h"

namespace tnwdav {

/* The call that "net use" makes; a password on its command line could be seen by others. */
Mount::Mount(const std::string& letter, const std::string& address, const std::string& user,
             const std::string& password)
    : letter_(tools::wide_from_utf8(letter)) {
  std::wstring local = letter_;
  std::wstring remote = tools::wide_from_utf8(address);
  NETRESOURCEW resource = {};
  resource.dwType = RESOURCETYPE_DISK;
  resource.lpLocalName = local.data();
  resource.lpRemoteName = remote.data();
  const std::wstring name = tools::wide_from_utf8(user);
  const std::wstring secret = tools::wide_from_utf8(password);
  const DWORD err =
      WNetAddConnection2W(&resource, password.empty() ? nullptr : secret.c_str(),
                          password.empty() ? nullptr : name.c_str(), CONNECT_TEMPORARY);
  if (err != NO_ERROR) {
    throw tools::Failure(letter, "Windows cannot map the drive", err);
  }
}

Mount::~Mount() { WNetCancelConnection2W(letter_.c_str(), 0, TRUE); }

}  // namespace tnwdav
