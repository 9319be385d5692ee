/* Folders that only this user may enter. */
#ifndef SERVICE_PRIVATE_FOLDER_H
#define SERVICE_PRIVATE_FOLDER_H

#include <windows.h>

#include <string>

namespace tarnd {

/*
 * Makes the folder and those above it that are missing, each for this user only. One that is there
 * stays as it is: its owner decided who may enter. 0 or a Windows error.
 */
DWORD make_private_folder(const std::wstring& path);

}  // namespace tarnd

#endif
