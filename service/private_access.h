/*
 * Folders and files that only this user may use. The system and its administrators may, too: they
 * cannot be kept out.
 */
#ifndef SERVICE_PRIVATE_ACCESS_H
#define SERVICE_PRIVATE_ACCESS_H

#include <windows.h>

#include <string>

namespace tarnd {

/*
 * Makes the folder and those above it that are missing, each for this user only. One that is there
 * stays as it is. 0 or a Windows error.
 */
DWORD make_private_folder(const std::wstring& path);

/*
 * Sees to it that a folder, or a file, is for this user only. What others may use, too, is taken
 * from them, with a line in the log. False, with a text in `*error`, for what belongs to somebody
 * else, who could take it back at any time, and for what cannot be looked at or changed.
 */
bool claim_for_user(const std::wstring& path, std::string* error);

enum class Access { USER_ONLY, OTHERS_TOO, OTHER_OWNER };
/* What a security descriptor with an owner and an access list says of a user, given by the SID's
 * text. */
Access access_in(void* descriptor, const std::wstring& user);

}  // namespace tarnd

#endif
