/* What the drive's operations may answer: for their failures, and for the end of their help. */
#ifndef TNWSH_ANSWERS_H
#define TNWSH_ANSWERS_H

#include <windows.h>

#include <span>
#include <string>

#include "common.h"
#include "tnw.h"

namespace tnwsh {

/* What a code means as the answer of an operation. A null text stands for the general meaning. */
struct Answer {
  uint32_t code;
  const char* meaning;
};
using Answers = std::span<const Answer>;

std::string meaning_of(uint32_t code, Answers answers);
Failure drive_failure(const std::string& path, const std::string& what, int code,
                      Answers answers = {});

/* The answers of every operation on the drive. An operation's own meaning goes before these. */
inline constexpr Answer DRIVE_ANSWERS[] = {{ERROR_LOGON_FAILURE, nullptr},
                                           {TNW_ERROR_NO_SERVICE, nullptr}};
/* The answers of every operation on a path. */
inline constexpr Answer PATH_ANSWERS[] = {
    {ERROR_FILE_NOT_FOUND, "there is no such file or folder"},
    {ERROR_ACCESS_DENIED, "the path leads out of the drive's folder, or the cloud denies access"},
    {ERROR_INVALID_DATA, nullptr},
};

inline constexpr Answer LIST_ANSWERS[] = {{ERROR_DIRECTORY, nullptr}};
inline constexpr Answer READ_ANSWERS[] = {
    {ERROR_READ_FAULT, "a part of the file could not be fetched from the cloud"},
    {ERROR_SHARING_VIOLATION, nullptr},
    {ERROR_IO_DEVICE, nullptr},
};
inline constexpr Answer WRITE_ANSWERS[] = {
    {ERROR_ACCESS_DENIED,
     "the file is read-only, or is a folder, or the path leads out of the drive's folder"},
    {ERROR_SHARING_VIOLATION, nullptr},
    {ERROR_DISK_FULL, nullptr},
    {ERROR_IO_DEVICE, nullptr},
};
inline constexpr Answer RENAME_ANSWERS[] = {
    {ERROR_FILE_NOT_FOUND, "there is no such file or folder, or no folder to put it into"},
    {ERROR_INVALID_DATA, "the service refuses a path, or a folder would go below itself"},
    {ERROR_SHARING_VIOLATION, "it is open elsewhere"},
    {ERROR_FILE_EXISTS, "the target exists; nothing is replaced"},
    {ERROR_BUSY, "a file below the folder is open or not yet written back"},
};
inline constexpr Answer DELETE_ANSWERS[] = {
    {ERROR_ACCESS_DENIED,
     "it is read-only, or the drive's top folder, or out of the drive's folder"},
    {ERROR_SHARING_VIOLATION, "it is open elsewhere"},
    {ERROR_DIR_NOT_EMPTY, nullptr},
};
inline constexpr Answer MAKE_FOLDER_ANSWERS[] = {
    {ERROR_FILE_NOT_FOUND, "there is no folder to make it in"},
    {ERROR_FILE_EXISTS, nullptr},
};
inline constexpr Answer LOCK_ANSWERS[] = {
    {ERROR_SHARING_VIOLATION,
     "another lock overlaps the range, or the file is open elsewhere and not shared"},
};
inline constexpr Answer UNLOCK_ANSWERS[] = {
    {ERROR_INVALID_DATA, "the cache service has no such lock"},
};
inline constexpr Answer TOKEN_ANSWERS[] = {
    {ERROR_ACCESS_DENIED, "the cache service refuses the token"},
};
inline constexpr Answer PROXY_ANSWERS[] = {
    {ERROR_INVALID_DATA, nullptr},
    {ERROR_BAD_ARGUMENTS, "the proxy is empty"},
};
inline constexpr Answer PURGE_ANSWERS[] = {
    {ERROR_ACCESS_DENIED, "a file of the cache cannot be deleted"},
    {ERROR_INVALID_DATA, "the domain or the user is no plain name"},
    {ERROR_SHARING_VIOLATION, "a file of the cache is in use"},
    {ERROR_HANDLE_EOF, "the cache directory's path is too long"},
    {ERROR_BUSY, "a cache service runs on it"},
};

}  // namespace tnwsh

#endif
